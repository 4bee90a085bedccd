// Multicast endpoints, the raw-socket sender and the two listener threads.
#include "discovery/mcast.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/ip.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/fork_guard.h"
#include "core/network.h"
#include "core/platform.h"
#include "discovery/commands.h"
#include "discovery/identity.h"

namespace {

constexpr int kPollMs = 50;
// Room for the transfer packets that arrive while the listener is not
// scheduled: 2 MiB (the kernel doubles it) holds some 800 full datagrams,
// a third of a second at the camera's line rate. The default holds 40.
constexpr int kRecvBufferBytes = 2 << 20;
constexpr uint64_t kSwitchOffUs = 100000;
constexpr uint64_t kIdleUs = 50000;

// Guards the address records while an endpoint is (re-)opened or used.
std::mutex g_addr_mu;
// An installer's forked child sends acknowledgements (see core/daemon_state.cpp).
[[maybe_unused]] const int g_addr_fork_guard = guard_across_fork<g_addr_mu>(kForkRankModule);

// The endpoints' sockets: opened, dropped and re-opened under the write
// lock; the listeners receive and the handlers send under the read lock.
// The DHCP watcher re-creates the sockets while a listener may still be
// opening its own or waiting on it: no descriptor is closed while another
// thread works on it. Writers go first (a listener takes the read lock
// again at once), the lock is taken before g_addr_mu and, like it, held
// across fork() (an installer's child sends acknowledgements).
pthread_rwlock_t g_open_mu;
void init_open_lock() {
  pthread_rwlockattr_t a;
  pthread_rwlockattr_init(&a);
  pthread_rwlockattr_setkind_np(&a, PTHREAD_RWLOCK_PREFER_WRITER_NONRECURSIVE_NP);
  pthread_rwlock_init(&g_open_mu, &a);
  pthread_rwlockattr_destroy(&a);
}
// The child starts with a fresh lock: an rwlock knows its writer by thread
// ID, and the child's thread has another one than the thread that locked.
[[maybe_unused]] const int g_open_fork_guard = (init_open_lock(),
    register_fork_guard(kForkRankSockets, [] { pthread_rwlock_wrlock(&g_open_mu); },
                        [] { pthread_rwlock_unlock(&g_open_mu); }, init_open_lock));

struct socket_write_lock {
  socket_write_lock() { pthread_rwlock_wrlock(&g_open_mu); }
  ~socket_write_lock() { pthread_rwlock_unlock(&g_open_mu); }
};
struct socket_read_lock {
  socket_read_lock() { pthread_rwlock_rdlock(&g_open_mu); }
  ~socket_read_lock() { pthread_rwlock_unlock(&g_open_mu); }
};

int open_locked(mcast_endpoint* ep) {
  return init_mcast(ep->sock, ep->bind_addr, ep->group_addr, ep->port, ep->group);
}

int set_int_opt(int fd, int level, int opt, int value) {
  return net().setsockopt(fd, level, opt, &value, sizeof(value));
}

void close_endpoint_socket(std::atomic<int>* sock) {
  int fd = sock->exchange(-1);
  if (fd >= 0) net().close(fd);
}

// Sends `text` to the group address of an endpoint (copied under the lock,
// as a re-open may rewrite it); false when sendto fails.
template <class Addr>
bool send_to_group(const std::atomic<int>* sock, const Addr* group, const char* text) {
  Addr to;
  {
    std::lock_guard<std::mutex> lock(g_addr_mu);
    to = *group;
  }
  socket_read_lock use;
  int fd = sock->load();
  return net().sendto(fd, text, strlen(text), 0, reinterpret_cast<struct sockaddr*>(&to),
                      sizeof(to)) >= 0;
}

}  // namespace

int mcast_net_info_failures() { return daemon_state.net_info_failures.load(); }

int mcast_open_endpoint(mcast_endpoint* ep) {
  socket_write_lock lock;
  return open_locked(ep);
}

int mcast_open_endpoint_if_closed(mcast_endpoint* ep) {
  socket_write_lock lock;
  return ep->sock->load() > 0 ? 0 : open_locked(ep);
}

namespace {
// Shut down before closing: a listener may be waiting on it. 0 is a record
// that was never opened: descriptor 0 is not ours.
void drop_locked(mcast_endpoint* ep) {
  int fd = ep->sock->exchange(-1);
  if (fd > 0) {
    net().shutdown(fd, SHUT_RDWR);
    net().close(fd);
  }
}
}  // namespace

int mcast_reopen_endpoint(mcast_endpoint* ep) {
  socket_write_lock lock;
  drop_locked(ep);
  return open_locked(ep);
}

void mcast_drop_endpoint(mcast_endpoint* ep) {
  socket_write_lock lock;
  drop_locked(ep);
}

int set_nonblocking(int fd, int block) {
  int flags = net().fcntl(fd, F_GETFL, 0);
  if (flags < 0) {
    DBG_ERR("fcntl F_GETFL fail\n");
    return -1;
  }
  flags = block == 0 ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  if (net().fcntl(fd, F_SETFL, flags) < 0) {
    DBG_ERR("fcntl F_SETFL fail\n");
    return -1;
  }
  return 0;
}

int init_mcast(std::atomic<int>* sock, struct sockaddr_in* bind_addr,
               struct sockaddr_in* group_addr, int port, const char* group) {
  int fd = net().socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) {
    DBG_ERR("socket failed\n");
    return -1;
  }
  sock->store(fd);
  {
    std::lock_guard<std::mutex> lock(g_addr_mu);
    memset(bind_addr, 0, sizeof(*bind_addr));
    bind_addr->sin_family = AF_INET;
    bind_addr->sin_addr.s_addr = htonl(INADDR_ANY);
    bind_addr->sin_port = htons(static_cast<uint16_t>(port));
    memset(group_addr, 0, sizeof(*group_addr));
    group_addr->sin_family = AF_INET;
    group_addr->sin_addr.s_addr = inet_addr(group);
    group_addr->sin_port = htons(static_cast<uint16_t>(port));
  }
  if (set_int_opt(fd, SOL_SOCKET, SO_REUSEADDR, 1) < 0) {
    DBG_ERR("Reusing ADDR failed\n");
    return -1;
  }
  // Above the system's limit only for root (SO_RCVBUFFORCE).
  if (set_int_opt(fd, SOL_SOCKET, SO_RCVBUFFORCE, kRecvBufferBytes) < 0)
    set_int_opt(fd, SOL_SOCKET, SO_RCVBUF, kRecvBufferBytes);
  set_nonblocking(fd, 0);
  struct sockaddr_in local;
  {
    std::lock_guard<std::mutex> lock(g_addr_mu);
    local = *bind_addr;
  }
  if (net().bind(fd, reinterpret_cast<struct sockaddr*>(&local), sizeof(local)) < 0) {
    DBG_ERR("bind failed\n");
    perror("bind");
    return -1;
  }
  const int options = set_mcast_loop_ttl(fd);
  if (options != 0) {
    DBG_ERR(options == kMcastLoopFailed ? "Set IP_MULTICAST_LOOP failed\n"
                                        : "Set IP_MULTICAST_TTL failed\n");
    close_endpoint_socket(sock);
    return -1;
  }
  char local_ip[32] = {};
  get_local_ip("eth0", local_ip, sizeof(local_ip));
  DBG_INFO("get_local_ip: %s\n", local_ip);
  const int joined = join_mcast_group(fd, inet_addr(group), mcast_iface_of(local_ip), false);
  if (joined & kMcastJoinFailed) {
    DBG_ERR("setsockopt failed\n");
    return -1;
  }
  if (joined & kMcastIfFailed) {
    DBG_ERR("Setting IP_MULTICAST_IF error\n");
    close_endpoint_socket(sock);
  }
  DBG_INFO("init search succeed\n");
  return 0;
}

int set_mcast_loop_ttl(int fd) {
  if (set_int_opt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, 0) < 0) return kMcastLoopFailed;
  if (set_int_opt(fd, IPPROTO_IP, IP_MULTICAST_TTL, 10) < 0) return kMcastTtlFailed;
  return 0;
}

int join_mcast_group(int fd, in_addr_t group, in_addr_t iface, bool join_optional) {
  int failed = 0;
  struct ip_mreq mreq;
  memset(&mreq, 0, sizeof(mreq));
  mreq.imr_multiaddr.s_addr = group;
  mreq.imr_interface.s_addr = iface;
  if (net().setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof(mreq)) < 0) {
    failed |= kMcastJoinFailed;
    if (!join_optional) return failed;
  }
  struct in_addr out;
  out.s_addr = iface;
  if (net().setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof(out)) < 0)
    failed |= kMcastIfFailed;
  return failed;
}

in_addr_t mcast_iface_of(const char* local_ip) {
  return local_ip[0] != '\0' ? inet_addr(local_ip) : htonl(INADDR_ANY);
}

int leave_mcast_group(std::atomic<int>* sock, const char* group) {
  DBG_INFO("enter\n");
  char local_ip[32] = {};
  get_local_ip("eth0", local_ip, sizeof(local_ip));
  struct ip_mreq mreq;
  memset(&mreq, 0, sizeof(mreq));
  mreq.imr_multiaddr.s_addr = inet_addr(group);
  mreq.imr_interface.s_addr = local_ip[0] != '\0' ? inet_addr(local_ip) : htonl(INADDR_ANY);
  if (net().setsockopt(sock->load(), IPPROTO_IP, IP_DROP_MEMBERSHIP, &mreq, sizeof(mreq)) < 0) {
    DBG_ERR("setsockopt:IP_DROP_MEMBER error\n");
    close_endpoint_socket(sock);
    return -1;
  }
  DBG_INFO("leave\n");
  return 0;
}

void mcast_send_data(mcast_endpoint* ep, const char* text) {
  if (send_to_group(ep->sock, ep->group_addr, text)) return;
  DBG_ERR("sendto failed\n");
  sys().sync();
  mcast_reopen_endpoint(ep);
}

int init_mcast_ipv6(std::atomic<int>* sock, struct sockaddr_in6* bind_addr,
                    struct sockaddr_in6* group_addr) {
  char tmp[64] = {};
  get_ipv6_global_addr("eth0", tmp, sizeof(tmp));
  DBG_INFO("tmp: %s\n", tmp);
  int fd = net().socket(AF_INET6, SOCK_DGRAM, 0);
  if (fd < 0) {
    DBG_ERR("socket failed\n");
    return -1;
  }
  sock->store(fd);
  {
    std::lock_guard<std::mutex> lock(g_addr_mu);
    memset(bind_addr, 0, sizeof(*bind_addr));
    bind_addr->sin6_family = AF_INET6;
    bind_addr->sin6_addr = in6addr_any;
    bind_addr->sin6_port = htons(8008);
    memset(group_addr, 0, sizeof(*group_addr));
    group_addr->sin6_family = AF_INET6;
    group_addr->sin6_port = htons(8008);
    inet_pton(AF_INET6, "FF02::1:FF08:0808", &group_addr->sin6_addr);
  }
  struct sockaddr_in6 local;
  struct in6_addr grp;
  {
    std::lock_guard<std::mutex> lock(g_addr_mu);
    local = *bind_addr;
    grp = group_addr->sin6_addr;
  }
  if (net().bind(fd, reinterpret_cast<struct sockaddr*>(&local), sizeof(local)) < 0) {
    DBG_ERR("bind failed\n");
    return -1;
  }
  if (set_int_opt(fd, SOL_SOCKET, SO_REUSEADDR, 1) < 0) {
    DBG_ERR("Reusing ADDR failed\n");
    return -1;
  }
  if (set_int_opt(fd, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, 0) < 0) {
    DBG_ERR("Set IPV6_MULTICAST_LOOP failed\n");
    return -1;
  }
  if (set_int_opt(fd, IPPROTO_IPV6, IPV6_MULTICAST_HOPS, 100) < 0) {
    DBG_ERR("Set IPV6_MULTICAST_TTL failed\n");
    return -1;
  }
  unsigned int ifindex = net().interface_index("eth0");
  DBG_INFO("ifindex: %d\n", static_cast<int>(ifindex));
  struct ipv6_mreq mreq;
  memset(&mreq, 0, sizeof(mreq));
  mreq.ipv6mr_multiaddr = grp;
  mreq.ipv6mr_interface = ifindex;
  if (net().setsockopt(fd, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &mreq, sizeof(mreq)) < 0) {
    DBG_ERR("Setting IPV6_ADD_MEMBERSHIP error\n");
    return -1;
  }
  if (net().setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &ifindex, sizeof(ifindex)) < 0) {
    DBG_ERR("Setting IPV6_MULTICAST_IF error\n");
    return -1;
  }
  DBG_INFO("init search ipv6 succeed\n");
  return 0;
}

void mcast_send_data_ipv6(mcast_endpoint* ep, const char* text) {
  if (send_to_group(ep->sock6, ep->group_addr6, text)) return;
  DBG_ERR("sendto failed\n");
  sys().sync();
  close_endpoint_socket(ep->sock6);
}

int ip_udp_send(const char* src_addr, int src_port, const char* dst_addr, int dst_port,
                const void* payload, size_t len) {
  if (len > 65507) return -1;
  int fd = net().socket(AF_INET, SOCK_RAW, IPPROTO_UDP);
  if (fd < 0) {
    DBG_ERR("socket failed\n");
    return -1;
  }
  set_int_opt(fd, IPPROTO_IP, IP_HDRINCL, 1);
  struct sockaddr_in local;
  memset(&local, 0, sizeof(local));
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = htonl(INADDR_ANY);
  local.sin_port = htons(static_cast<uint16_t>(dst_port));
  if (net().bind(fd, reinterpret_cast<struct sockaddr*>(&local), sizeof(local)) < 0) {
    DBG_ERR("bind failed\n");
    net().close(fd);
    sys().exit_process(1);
  }
  if (set_int_opt(fd, SOL_SOCKET, SO_REUSEADDR, 1) < 0) {
    DBG_ERR("Reusing ADDR failed\n");
    net().close(fd);
    sys().exit_process(1);
  }
  in_addr_t src = inet_addr(src_addr);
  in_addr_t dst = inet_addr(dst_addr);
  // Both option steps are tried whatever they return.
  set_int_opt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, 0);
  set_int_opt(fd, IPPROTO_IP, IP_MULTICAST_TTL, 10);
  join_mcast_group(fd, dst, src, true);

  // 20-byte IPv4 header, 8-byte UDP header, payload; all fields big-endian.
  std::vector<unsigned char> pkt(28 + len, 0);
  unsigned char* ip = pkt.data();
  uint16_t total = static_cast<uint16_t>(len + 28);
  uint16_t udp_len = static_cast<uint16_t>(len + 8);
  ip[0] = 0x45;  // version 4, 5 words
  ip[1] = 0;     // type of service
  ip[2] = static_cast<unsigned char>(total >> 8);
  ip[3] = static_cast<unsigned char>(total);
  ip[6] = 0x40;  // don't fragment
  ip[8] = 10;    // TTL
  ip[9] = IPPROTO_UDP;
  memcpy(ip + 12, &src, 4);
  memcpy(ip + 16, &dst, 4);
  unsigned char* udp = ip + 20;
  udp[0] = static_cast<unsigned char>(src_port >> 8);
  udp[1] = static_cast<unsigned char>(src_port);
  udp[2] = static_cast<unsigned char>(dst_port >> 8);
  udp[3] = static_cast<unsigned char>(dst_port);
  udp[4] = static_cast<unsigned char>(udp_len >> 8);
  udp[5] = static_cast<unsigned char>(udp_len);
  if (len > 0) memcpy(udp + 8, payload, len);

  struct sockaddr_in to;
  memset(&to, 0, sizeof(to));
  to.sin_family = AF_INET;
  to.sin_addr.s_addr = dst;
  to.sin_port = htons(static_cast<uint16_t>(dst_port));
  int rc = 0;
  if (net().sendto(fd, pkt.data(), pkt.size(), 0, reinterpret_cast<struct sockaddr*>(&to),
                   sizeof(to)) < 0) {
    DBG_ERR("sendto() failed\n");
    rc = -1;
  } else {
    DBG_INFO("sendto() ok!!!\n");
  }
  net().close(fd);
  return rc;
}

// ---- listeners --------------------------------------------------------------------

// Runs inside mcast_func: its lines carry that name.
void mcast_wait_net_info() {
  while (get_net_info() != 0) {
    int n = ++daemon_state.net_info_failures;
    // The listener never gives up; the line only marks the long wait.
    if (n == 180) DBG_ERR_AS("mcast_func", "get_net_info() num is 180, exit mcast_func()\n");
    sys().sleep_us(1000000);
  }
  DBG_INFO_AS("mcast_func", "read %s info succeed\n", "eth0");
}

int mcast_listen_once(mcast_endpoint* ep, std::atomic<int>& recv_switch, size_t size,
                      uint64_t pause_us) {
  char buf[kBatchDatagram];
  if (size > sizeof(buf)) size = sizeof(buf);
  ssize_t n = -1;
  bool off = recv_switch.load() == 0, idle = false;
  if (!off) {
    socket_read_lock use;
    // Cleared while this thread waited for the lock: the socket is gone.
    off = recv_switch.load() == 0;
    int fd = ep->sock->load();
    struct sockaddr_in sender;
    socklen_t sender_len = sizeof(sender);
    // A datagram already queued (a transfer streams them back to back) is
    // taken at once; otherwise waiting in poll() answers a command as soon
    // as it comes, the timeout being the idle pause of a non-blocking read.
    if (!off) {
      n = net().recvfrom(fd, buf, size, MSG_DONTWAIT, reinterpret_cast<struct sockaddr*>(&sender),
                         &sender_len);
    }
    if (!off && n < 0) {
      struct pollfd pfd = {fd, POLLIN, 0};
      int ready = net().poll(&pfd, 1, kPollMs);
      if (ready == 0) return 0;
      if (ready > 0 && (pfd.revents & POLLIN) != 0) {
        sender_len = sizeof(sender);
        n = net().recvfrom(fd, buf, size, MSG_DONTWAIT,
                           reinterpret_cast<struct sockaddr*>(&sender), &sender_len);
      }
      idle = n < 0;
    }
  }
  if (off) {
    sys().sleep_us(kSwitchOffUs);
    return 2;
  }
  if (idle || n < 0) {
    sys().sleep_us(kIdleUs);
    return 0;
  }
  // Only another installer's run drops datagrams: a multicast upgrade needs
  // its transfer packets, and its handler answers a second announcement.
  if (daemon_state.upgrade_busy.load() == 0) mcast_receive(ep, buf, static_cast<size_t>(n));
  if (pause_us > 0) sys().sleep_us(pause_us);
  return 1;
}

void* mcast_func(void* arg) {
  auto* ep = static_cast<mcast_endpoint*>(arg);
  mcast_wait_net_info();
  // On a DHCP camera the watcher may have made the socket while this thread
  // still waited for an address; a second one would only be leaked.
  mcast_open_endpoint_if_closed(ep);
  for (;;) mcast_listen_once(ep, daemon_state.search_switch, kSearchDatagram, kSearchPauseUs);
}

void* mcast_batUpgrade_func(void* arg) {
  auto* ep = static_cast<mcast_endpoint*>(arg);
  while (mcast_open_endpoint(ep) != 0) {
    // A socket left open by a failed bind is not kept for the next try.
    mcast_drop_endpoint(ep);
    sys().sleep_us(1000000);
  }
  for (;;) mcast_listen_once(ep, daemon_state.batch_switch, kBatchDatagram, 0);
}
