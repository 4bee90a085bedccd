// The local control sender (core/local_control.h), through the network seam.
#include "core/local_control.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstring>

#include "core/dbgout.h"
#include "core/network.h"

void send_local_control(const void* buf, size_t len) {
  int fd = net().socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) {
    DBG_ERR("socket failed\n");
    return;
  }
  struct sockaddr_in to;
  memset(&to, 0, sizeof(to));
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(kLocalControlPort));
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (net().sendto(fd, buf, len, 0, reinterpret_cast<struct sockaddr*>(&to), sizeof(to)) < 0)
    DBG_ERR("sendto failed\n");
  net().close(fd);
}
