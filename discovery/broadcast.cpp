// Broadcast commissioning: commands and fields are found by substring in a
// NUL-terminated copy of the datagram, so no search passes its end.
#include "discovery/broadcast.h"


#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/network.h"
#include "discovery/command_auth.h"
#include "discovery/identity.h"
#include "discovery/mcast.h"
#include "wire/broadcast.h"

namespace wb = wire::broadcast;

namespace {

#define BR_INFO(fmt, ...) DBG_INFO_AS("broadcast_receive", fmt __VA_OPT__(, ) __VA_ARGS__)
#define BR_ERR(fmt, ...) DBG_ERR_AS("broadcast_receive", fmt __VA_OPT__(, ) __VA_ARGS__)

int reply(broadcast_ctx* ctx, const std::string& text) {
  return static_cast<int>(net().sendto(ctx->sock, text.data(), text.size(), 0,
                                       reinterpret_cast<const struct sockaddr*>(&ctx->peer),
                                       sizeof(ctx->peer)));
}

bool addressed(const char* msg) {
  if (check_uuid_only_deviceid(msg) != 0) {
    BR_ERR("uuid check failed\n");
    return false;
  }
  BR_INFO("uuid check succeed\n");
  return true;
}

bool has(const char* msg, const char* word) { return strstr(msg, word) != nullptr; }

int discovery(broadcast_ctx* ctx) {
  BR_INFO("receive discovery camera command\n");
  // A failed refresh still answers, with the fields as last read.
  get_net_info();
  net_info_t ni;
  copy_net_info(&ni);
  char dev[kIdLen + 1];
  get_device_id(dev);
  wb::net_params p{dev, ni.dhcp, ni.ipaddr, ni.netmask, ni.gateway, ni.fdns, ni.macaddr};
  std::string text = wb::discovery_reply(p);
  BR_INFO("recv_buff: \n%s\nlen: %d\n", text.c_str(), static_cast<int>(text.size()));
  return reply(ctx, text);
}

int netconfig(broadcast_ctx* ctx, const char* msg) {
  BR_INFO("receive camera netconfig command\n");
  if (!addressed(msg)) return 0;
  if (refuse_unsigned_change("broadcast netconfig")) return 0;
  // Stored for the network scripts' next start; nothing is restarted here.
  read_net_info_only_deviceid(msg);
  char dev[kIdLen + 1];
  get_device_id(dev);
  return reply(ctx, wb::netconfig_reply(dev));
}

void production_off() { BR_INFO("production_mode_enable == 0\n"); }

int production(const char* msg) {
  BR_INFO("receive production mode command\n");
  if (!addressed(msg)) return 0;
  if (refuse_unsigned_change("broadcast production mode")) return 0;
  bool on = daemon_state.production_mode.load() == 1;
  if (has(msg, wb::kActionTestEnable)) {
    if (has(msg, wb::kEnableOn)) {
      BR_INFO("test enable = on\n");
      daemon_state.production_mode.store(1);
    } else if (has(msg, wb::kEnableOff) && on) {
      // Switching off leaves the switch on: it is never cleared.
      BR_INFO("test enable = off\n");
      daemon_state.production_mode.store(1);
    } else if (!on) {
      production_off();
    }
    return 0;
  }
  if (has(msg, wb::kActionCentralCross)) {
    if (!on) {
      production_off();
    } else if (has(msg, wb::kEnableOn)) {
      BR_INFO("central cross enable = on\n");
    } else if (has(msg, wb::kEnableOff)) {
      BR_INFO("central cross enable = off\n");
    }
    return 0;
  }
  if (has(msg, wb::kActionUpdateModel)) {
    if (!on) {
      production_off();
      return 0;
    }
    const char* key = strstr(msg, wb::kModelKey);
    if (key == nullptr) {
      BR_INFO("not found model=\n");
      return 0;
    }
    BR_INFO("new model: %s\n", strchr(key, '=') + 1);
    return 0;
  }
  for (const char* action : wb::kPlainActions) {
    if (has(msg, action)) {
      if (!on) production_off();
      return 0;
    }
  }
  return 0;
}

}  // namespace

int production_mode_enable() { return daemon_state.production_mode.load(); }

int broadcast_open(int port, struct sockaddr_in* local) {
  int fd = net().socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) {
    DBG_ERR_AS("broadcast_func", "socket() error\n");
    return -1;
  }
  memset(local, 0, sizeof(*local));
  local->sin_family = AF_INET;
  local->sin_addr.s_addr = htonl(INADDR_ANY);
  local->sin_port = htons(static_cast<uint16_t>(port));
  if (net().bind(fd, reinterpret_cast<struct sockaddr*>(local), sizeof(*local)) < 0)
    DBG_ERR_AS("broadcast_func", "bind() error\n");
  DBG_INFO_AS("broadcast_func", "init broadcast finish\n");
  return fd;
}

void* broadcast_func(void*) {
  broadcast_ctx ctx;
  ctx.sock = broadcast_open(wb::kPort, &ctx.local);
  for (;;) broadcast_serve_once(&ctx);
}

int broadcast_serve_once(broadcast_ctx* ctx) {
  char buf[wb::kDatagramMax + 1] = {};
  memset(&ctx->peer, 0, sizeof(ctx->peer));
  socklen_t len = sizeof(ctx->peer);
  ssize_t n = net().recvfrom(ctx->sock, buf, wb::kDatagramMax, 0,
                             reinterpret_cast<struct sockaddr*>(&ctx->peer), &len);
  if (n < 0) {
    DBG_ERR_AS("broadcast_func", "recvfrom() error\n");
    return -1;
  }
  buf[n] = '\0';
  char from[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &ctx->peer.sin_addr, from, sizeof(from));
  DBG_INFO_AS("broadcast_func", "\nmsg: \n%s \n(from %s)\n", buf, from);
  return broadcast_receive(ctx, buf);
}

int broadcast_receive(broadcast_ctx* ctx, const char* message) {
  if (has(message, wb::kDiscovery)) {
    BR_INFO("recv: Discovery camera cmd\n");
    return discovery(ctx);
  }
  if (has(message, wb::kNetconfig)) {
    BR_INFO("recv: Camera netconfig cmd\n");
    return netconfig(ctx, message);
  }
  if (has(message, wb::kProduction)) {
    BR_INFO("recv: Production mode cmd\n");
    return production(message);
  }
  return 0;
}
