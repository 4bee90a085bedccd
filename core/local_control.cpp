// The local control sender (core/local_control.h).
#include "core/local_control.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

#include "core/dbgout.h"

namespace {
std::atomic<int> g_local_control_port{kLocalControlPort};
}  // namespace

void set_local_control_port(int port) { g_local_control_port.store(port); }

void send_local_control(const void* buf, size_t len) {
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    DBG_ERR("socket failed\n");
    return;
  }
  struct sockaddr_in to;
  memset(&to, 0, sizeof(to));
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(g_local_control_port.load()));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (sendto(fd, buf, len, 0, reinterpret_cast<struct sockaddr*>(&to), sizeof(to)) < 0)
    DBG_ERR("sendto failed\n");
  close(fd);
}
