#include "partner/mira_net.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "core/platform.h"
#include "discovery/identity.h"
#include "discovery/mcast.h"

namespace {
MiraNet g_real;
std::atomic<MiraNet*> g_current{&g_real};
}  // namespace

MiraNet& mira_net() { return *g_current.load(std::memory_order_acquire); }

MiraNet* set_mira_net(MiraNet* n) {
  return g_current.exchange(n != nullptr ? n : &g_real, std::memory_order_acq_rel);
}

int MiraNet::local_address(const char* ifname, char* out, size_t size) {
  return get_local_ip(ifname, out, size);
}

int MiraNet::raw_send(const char* src_addr, int src_port, const char* dst_addr, int dst_port,
                      const void* payload, size_t len) {
  return ip_udp_send(src_addr, src_port, dst_addr, dst_port, payload, len);
}

int MiraNet::tracking_exchange(const void* req, size_t len, uint64_t pause_us, void* answer,
                               size_t max) {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  struct sockaddr_in to;
  memset(&to, 0, sizeof(to));
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(kTrackingServicePort));
  to.sin_addr.s_addr = inet_addr(kTrackingServiceAddr);
  // A lost request shows as a missing answer.
  sendto(fd, req, len, 0, reinterpret_cast<struct sockaddr*>(&to), sizeof(to));
  if (pause_us > 0) sys().sleep_us(pause_us);
  ssize_t n = recvfrom(fd, answer, max, 0, nullptr, nullptr);
  close(fd);
  return static_cast<int>(n);
}
