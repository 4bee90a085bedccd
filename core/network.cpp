// The real network: the system calls themselves (core/network.h).
#include "core/network.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

int Network::socket(int family, int type, int protocol) {
  return ::socket(family, type | SOCK_CLOEXEC, protocol);
}

int Network::setsockopt(int fd, int level, int name, const void* value, socklen_t len) {
  return ::setsockopt(fd, level, name, value, len);
}

int Network::fcntl(int fd, int cmd, int arg) { return ::fcntl(fd, cmd, arg); }

int Network::bind(int fd, const struct sockaddr* addr, socklen_t len) {
  return ::bind(fd, addr, len);
}

int Network::listen(int fd, int backlog) { return ::listen(fd, backlog); }

int Network::accept(int fd, struct sockaddr* addr, socklen_t* len) {
  return ::accept4(fd, addr, len, SOCK_CLOEXEC);
}

ssize_t Network::sendto(int fd, const void* buf, size_t len, int flags, const struct sockaddr* to,
                        socklen_t to_len) {
  return ::sendto(fd, buf, len, flags, to, to_len);
}

ssize_t Network::recvfrom(int fd, void* buf, size_t len, int flags, struct sockaddr* from,
                          socklen_t* from_len) {
  return ::recvfrom(fd, buf, len, flags, from, from_len);
}

int Network::poll(struct pollfd* fds, nfds_t count, int timeout_ms) {
  return ::poll(fds, count, timeout_ms);
}

int Network::shutdown(int fd, int how) { return ::shutdown(fd, how); }

int Network::close(int fd) { return ::close(fd); }

namespace {
// One interface ioctl on a throw-away socket.
int interface_ioctl(const char* ifname, unsigned long request, struct ifreq* ifr) {
  int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  memset(ifr, 0, sizeof(*ifr));
  strncpy(ifr->ifr_name, ifname, IFNAMSIZ - 1);
  int rc = ::ioctl(fd, request, ifr);
  ::close(fd);
  return rc;
}
}  // namespace

int Network::interface_ipv4(const char* ifname, struct in_addr* out) {
  struct ifreq ifr;
  if (interface_ioctl(ifname, SIOCGIFADDR, &ifr) != 0) return -1;
  *out = reinterpret_cast<const struct sockaddr_in*>(&ifr.ifr_addr)->sin_addr;
  return 0;
}

int Network::interface_hwaddr(const char* ifname, unsigned char mac[6]) {
  struct ifreq ifr;
  if (interface_ioctl(ifname, SIOCGIFHWADDR, &ifr) != 0) return -1;
  memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
  return 0;
}

unsigned Network::interface_index(const char* ifname) { return if_nametoindex(ifname); }

namespace {
Network g_real;
std::atomic<Network*> g_current{&g_real};
}  // namespace

Network& net() { return *g_current.load(std::memory_order_acquire); }

Network* set_network(Network* n) {
  return g_current.exchange(n != nullptr ? n : &g_real, std::memory_order_acq_rel);
}
