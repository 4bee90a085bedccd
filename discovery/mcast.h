// Multicast endpoints (the record is core/daemon_state.h's mcast_endpoint)
// and the two listener threads.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/daemon_state.h"
#include "wire/text.h"

// Listener threads (argument: the endpoint record).
void* mcast_func(void* arg);
void* mcast_batUpgrade_func(void* arg);

// Datagram sizes of the two listeners and the pause after a search datagram.
inline constexpr size_t kSearchDatagram = wire::kSearchDatagram;
inline constexpr size_t kBatchDatagram = wire::kBatchDatagram;
inline constexpr uint64_t kSearchPauseUs = 300000;

// Opens one IPv4 endpoint: socket, addresses, SO_REUSEADDR, non-blocking,
// bind, loop off, TTL 10, membership on eth0's address, outgoing interface.
int init_mcast(std::atomic<int>* sock, struct sockaddr_in* bind_addr,
               struct sockaddr_in* group_addr, int port, const char* group);
// block 0: O_NONBLOCK set; otherwise cleared.
int set_nonblocking(int fd, int block);
int leave_mcast_group(std::atomic<int>* sock, const char* group);
// Sends text (without its NUL) to the endpoint's group; a failed send
// re-opens the endpoint and the text is lost.
void mcast_send_data(mcast_endpoint* ep, const char* text);

int init_mcast_ipv6(std::atomic<int>* sock, struct sockaddr_in6* bind_addr,
                    struct sockaddr_in6* group_addr);
void mcast_send_data_ipv6(mcast_endpoint* ep, const char* text);

// The multicast options of a bound IPv4 socket, set the same way by every
// endpoint (init_mcast, the partner's init_mcast_mira, ip_udp_send); nothing
// is logged here, each caller logs its own lines. Results: 0, or the bits
// of the steps that failed.
inline constexpr int kMcastLoopFailed = 1;
inline constexpr int kMcastTtlFailed = 2;
inline constexpr int kMcastJoinFailed = 4;
inline constexpr int kMcastIfFailed = 8;
// IP_MULTICAST_LOOP 0, then IP_MULTICAST_TTL 10 (not tried after a failed loop).
int set_mcast_loop_ttl(int fd);
// IP_ADD_MEMBERSHIP of `group` on the interface address `iface`, then
// IP_MULTICAST_IF `iface`; a failed membership stops there unless
// `join_optional`.
int join_mcast_group(int fd, in_addr_t group, in_addr_t iface, bool join_optional);
// The interface address of a local address text: INADDR_ANY when empty.
in_addr_t mcast_iface_of(const char* local_ip);

// One UDP datagram with a hand-made IPv4 header through a raw socket.
int ip_udp_send(const char* src_addr, int src_port, const char* dst_addr, int dst_port,
                const void* payload, size_t len);

// (Re-)opens an endpoint record with init_mcast on its own group and port.
// Opening, dropping and re-opening an endpoint's socket are serialized, so
// a listener opening its socket and the DHCP watcher re-creating it never
// work on the same descriptor at once.
int mcast_open_endpoint(mcast_endpoint* ep);
int mcast_open_endpoint_if_closed(mcast_endpoint* ep);
int mcast_reopen_endpoint(mcast_endpoint* ep);
void mcast_drop_endpoint(mcast_endpoint* ep);

// The listeners' building blocks.
// Calls get_net_info until it succeeds, one second apart.
void mcast_wait_net_info();
int mcast_net_info_failures();
// One pass of a listener loop: waits up to 50 ms for a datagram of at most
// `size` bytes and hands it to mcast_receive (unless another installer
// runs: upgrade_busy), then pauses `pause_us`. Returns 1 after a
// datagram, 0 when none came, 2 while the receive switch is off.
int mcast_listen_once(mcast_endpoint* ep, std::atomic<int>& recv_switch, size_t size,
                      uint64_t pause_us);
