// The daemon's one seam to the network, beside core/platform.h's Platform:
// UDP sockets (IPv4, IPv6, and the raw IPv4 socket whose datagrams carry
// their own IP header) with their options and group memberships, sending and
// receiving, TCP listen and accept, and the interface facts (eth0's address,
// MAC and index). Every socket of the daemon, the local control datagram
// included, goes through it. On the camera the real system calls are used;
// unit tests install a fake LAN (tests/fakes/fake_lan.h).
//
// Each call takes and returns what its system call does (-1 with errno on
// failure); descriptors are the seam's own and go back to it to be closed.
#pragma once

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>

class Network {
 public:
  virtual ~Network() = default;

  // socket(2), close-on-exec: SOCK_DGRAM, SOCK_STREAM, or SOCK_RAW with
  // IPPROTO_UDP.
  virtual int socket(int family, int type, int protocol);
  // setsockopt(2): integer options, IP_ADD_MEMBERSHIP / IP_DROP_MEMBERSHIP
  // (ip_mreq), IP_MULTICAST_IF (in_addr) and their IPv6 counterparts.
  virtual int setsockopt(int fd, int level, int name, const void* value, socklen_t len);
  // fcntl(2) with F_GETFL or F_SETFL (O_NONBLOCK).
  virtual int fcntl(int fd, int cmd, int arg);
  virtual int bind(int fd, const struct sockaddr* addr, socklen_t len);
  virtual int listen(int fd, int backlog);
  // accept4(2), close-on-exec.
  virtual int accept(int fd, struct sockaddr* addr, socklen_t* len);
  virtual ssize_t sendto(int fd, const void* buf, size_t len, int flags,
                         const struct sockaddr* to, socklen_t to_len);
  virtual ssize_t recvfrom(int fd, void* buf, size_t len, int flags, struct sockaddr* from,
                           socklen_t* from_len);
  virtual int poll(struct pollfd* fds, nfds_t count, int timeout_ms);
  virtual int shutdown(int fd, int how);
  virtual int close(int fd);

  // The IPv4 address (SIOCGIFADDR) and hardware address (SIOCGIFHWADDR) of
  // an interface, and its index (if_nametoindex, 0 when unknown).
  virtual int interface_ipv4(const char* ifname, struct in_addr* out);
  virtual int interface_hwaddr(const char* ifname, unsigned char mac[6]);
  virtual unsigned interface_index(const char* ifname);
};

// The network in use (the real one unless a test installed another).
Network& net();
// Installs `n` (nullptr restores the real network); returns the previous one.
Network* set_network(Network* n);
