// Search, network query and network setting in the partner's binary framing.
// Requests are parsed by wire/partner from the bytes received only; replies
// leave through the raw-socket sender with the camera's address and port 8000
// as their source, once to each reply group.
#include "partner/search_mira.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/reboot.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <mutex>
#include <string>

#include "core/fork_guard.h"
#include "core/dbgout.h"
#include "core/helpers.h"
#include "core/local_control.h"
#include "core/network.h"
#include "core/platform.h"
#include "core/text.h"
#include "core/threads.h"
#include "discovery/command_auth.h"
#include "discovery/commands.h"
#include "discovery/mcast.h"
#include "partner/param_mira.h"
#include "wire/partner.h"

namespace wp = wire::partner;

namespace {

constexpr const char* kNetConfPath = "/data/net.conf";
constexpr const char* kTypeCommand = "cat /home/device_model_file";
constexpr uint64_t kFirstOpenDelayUs = 3000000;

std::mutex g_mu;
[[maybe_unused]] const int g_mu_fork_guard = guard_across_fork<g_mu>(kForkRankModule);
char g_local_addr[32];  // eth0's address: source of the replies

#define RX_INFO(fmt, ...) DBG_INFO_AS("mcast_receive_mira", fmt __VA_OPT__(, ) __VA_ARGS__)
#define RX_ERR(fmt, ...) DBG_ERR_AS("mcast_receive_mira", fmt __VA_OPT__(, ) __VA_ARGS__)

void store_local_address(const char* addr) {
  std::lock_guard<std::mutex> lock(g_mu);
  copy_text(g_local_addr, sizeof(g_local_addr), addr, sizeof(g_local_addr) - 1);
}

// eth0's current address; the one found when the endpoint opened while the
// interface has none.
void current_local_address(char* out, size_t size) {
  char now[32] = {};
  if (get_local_ip("eth0", now, sizeof(now)) == 0 && now[0] != '\0')
    store_local_address(now);
  std::lock_guard<std::mutex> lock(g_mu);
  copy_text(out, size, g_local_addr, sizeof(g_local_addr));
}

uint32_t addr_of(const char* text) { return wp::parse_ipv4(text).value_or(0); }

// Each reply goes to both reply groups, from the camera's address and port.
void send_reply(const uint8_t* frame, size_t len) {
  char local[32];
  current_local_address(local, sizeof(local));
  for (const char* group : wp::kReplyGroups)
    ip_udp_send(local, wp::kPort, group, wp::kPort, frame, len);
}

// The request names this camera.
bool addressed(const std::string& serial) {
  char dev[kIdLen + 1];
  get_device_id(dev);
  if (serial != dev) {
    RX_INFO("dev_uuid != SerialNumber\n");
    return false;
  }
  RX_INFO("dev_uuid == SerialNumber\n");
  return true;
}

void short_frame(size_t length) { RX_ERR("frame too short: %d bytes\n", static_cast<int>(length)); }

void handle_search() {
  RX_INFO("##### CMD_SEARCH_CAMERA\n");
  wp::search_reply r;
  char dev[kIdLen + 1];
  get_device_id(dev);
  r.device_id = dev;
  RX_INFO("uuid: %s\n", dev);
  get_device_type_info();
  char code[kTypeCodeLen];
  get_device_type_code(code);
  RX_INFO("CameraType: %s\n", code);
  char version[32], model[32];
  refresh_version(version, model);
  RX_INFO("soc_version_info: %s\n", version);
  char local[32];
  current_local_address(local, sizeof(local));
  r.ip = addr_of(local);
  net_info_t ni;
  copy_net_info(&ni);
  r.mac = wp::parse_mac(ni.macaddr).value_or(std::array<uint8_t, 6>{});
  r.name = kDeviceName;
  r.type_code = code;
  r.version = version;
  auto frame = wp::encode_search_reply(r);
  RX_INFO("length: %d\n", static_cast<int>(frame.size()));
  send_reply(frame.data(), frame.size());
}

void send_net_reply(const wp::net_reply& r) {
  RX_INFO("uuid: %s\n", r.device_id.c_str());
  auto frame = wp::encode_net_reply(r);
  RX_INFO("length: %d\n", static_cast<int>(frame.size()));
  send_reply(frame.data(), frame.size());
}

void handle_query(const uint8_t* datagram, size_t length) {
  RX_INFO("##### CMD_NET_QUERY\n");
  auto serial = wp::decode_net_query(datagram, length);
  if (!serial) return short_frame(length);
  RX_INFO("SerialNumber: %s\n", serial->c_str());
  if (!addressed(*serial)) return;
  get_net_info();
  net_info_t ni;
  copy_net_info(&ni);
  wp::net_reply r;
  r.device_id = *serial;
  r.connection_type = ni.dhcp == 1 ? wp::kConnDhcp : wp::kConnStatic;
  r.dhcp = ni.dhcp == 1 ? 1 : 0;
  uint32_t dns = addr_of(ni.fdns);
  // The primary DNS again in the secondary's place.
  r.addr = {addr_of(ni.ipaddr), addr_of(ni.netmask), addr_of(ni.gateway), dns, dns};
  send_net_reply(r);
}

void handle_set(const uint8_t* datagram, size_t length) {
  RX_INFO("##### CMD_NET_SET\n");
  auto req = wp::decode_net_set(datagram, length);
  if (!req) return short_frame(length);
  RX_INFO("SerialNumber: %s\n", req->serial.c_str());
  if (!addressed(req->serial)) return;
  if (refuse_unsigned_change("partner network set")) return;
  int dhcp;
  if (req->connection_type == wp::kConnStatic) {
    RX_INFO("CONNECT_TYPE_STATICIP\n");
    dhcp = 0;
  } else if (req->connection_type == wp::kConnDhcp) {
    RX_INFO("CONNECT_TYPE_DHCP\n");
    dhcp = 1;
  } else {
    RX_INFO("ConnectionType: 0x%x\n", req->connection_type);
    RX_ERR("unknown connection type, settings left as they are\n");
    return;
  }
  const wp::net_addresses& a = req->addr;
  std::string ip = wp::ipv4_text(a.ip), mask = wp::ipv4_text(a.netmask),
              gw = wp::ipv4_text(a.gateway), dns = wp::ipv4_text(a.dns),
              dns2 = wp::ipv4_text(a.dns2);
  RX_INFO("ConnectionType: 0x%x\n", req->connection_type);
  RX_INFO("UseDnsValue: %d\n", static_cast<int>(req->use_dns));
  RX_INFO("IPAddress: %s\n", ip.c_str());
  RX_INFO("NetMask: %s\n", mask.c_str());
  RX_INFO("DefaultGateway: %s\n", gw.c_str());
  RX_INFO("PrimaryDNS: %s\n", dns.c_str());
  RX_INFO("SecondaryDNS2: %s\n", dns2.c_str());
  RX_INFO("PPPoEEnable: %d\n", static_cast<int>(req->pppoe_enable));
  RX_INFO("PPPoEUserName: %s\n", req->pppoe_user.c_str());
  RX_INFO("PPPoEPasswd: %s\n", req->pppoe_password.c_str());

  wp::net_reply r;
  r.device_id = req->serial;
  r.connection_type = req->connection_type;
  r.dhcp = static_cast<uint32_t>(dhcp);
  r.addr = a;
  r.addr.dns2 = a.dns;
  send_net_reply(r);

  net_info_t now;
  copy_net_info(&now);
  net_info_t ni{};
  ni.dhcp = dhcp;
  copy_text(ni.ipaddr, sizeof(ni.ipaddr), ip.c_str(), ip.size());
  copy_text(ni.netmask, sizeof(ni.netmask), mask.c_str(), mask.size());
  copy_text(ni.gateway, sizeof(ni.gateway), gw.c_str(), gw.size());
  copy_text(ni.fdns, sizeof(ni.fdns), dns.c_str(), dns.size());
  copy_text(ni.macaddr, sizeof(ni.macaddr), now.macaddr, sizeof(now.macaddr));
  update_network_mira(ni);
  sys().sync();
  sys().sleep_us(2000000);
  RX_INFO("system reboot...\n");
  send_local_control(kRebootNotice, sizeof(kRebootNotice));
  sys().sleep_us(5000000);
  sys().reboot(RB_AUTOBOOT);
}

int set_int_opt(int fd, int level, int opt, int value) {
  return net().setsockopt(fd, level, opt, &value, sizeof(value));
}

}  // namespace

const char* type_code_of_model(const char* model) {
  const char* dot = strchr(model, '.');
  if (dot == nullptr) return nullptr;
  const char* kind = dot + 1;
  return strcmp(kind, "T") == 0 || strcmp(kind, "T2") == 0 ? kTypeCodeHkw7 : kTypeCodeDkw7;
}

int init_search_mira_server() {
  DBG_ERR("enter\n");
  char version[32], model[32];
  refresh_version(version, model);
  DBG_INFO("soc_version_info: %s\n", version);
  DBG_INFO("soc_device_type_info: %s, len: %d\n", model, static_cast<int>(strlen(model)));
  if (const char* code = type_code_of_model(model)) set_device_type_code(code);
  char code[kTypeCodeLen];
  get_device_type_code(code);
  DBG_INFO("device_type_info: %s\n", code);
  if (start_thread("search_mira_func", search_mira_func, nullptr) != 0) {
    DBG_ERR("create mira search thread failed\n");
    return -1;
  }
  if (start_thread("param_mira_func", param_mira_func, nullptr) != 0) {
    DBG_ERR("create mira param thread failed\n");
    return -1;
  }
  DBG_ERR("leave\n");
  return 0;
}

int init_mcast_mira(int* sock, struct sockaddr_in* local, struct sockaddr_in* group) {
  int fd = net().socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) {
    DBG_ERR("socket failed\n");
    sys().exit_process(1);
  }
  memset(local, 0, sizeof(*local));
  local->sin_family = AF_INET;
  local->sin_addr.s_addr = htonl(INADDR_ANY);
  local->sin_port = htons(static_cast<uint16_t>(wp::kPort));
  memset(group, 0, sizeof(*group));
  group->sin_family = AF_INET;
  group->sin_addr.s_addr = inet_addr(wp::kRequestGroup);
  group->sin_port = htons(static_cast<uint16_t>(wp::kPort));
  // Bound first, address reuse only afterwards.
  if (net().bind(fd, reinterpret_cast<struct sockaddr*>(local), sizeof(*local)) < 0) {
    DBG_ERR("bind failed\n");
    sys().exit_process(1);
  }
  if (set_int_opt(fd, SOL_SOCKET, SO_REUSEADDR, 1) < 0) {
    DBG_ERR("Reusing ADDR failed\n");
    sys().exit_process(1);
  }
  *sock = fd;
  auto fail = [&]() {
    net().close(fd);
    *sock = -1;
    return -1;
  };
  const int options = set_mcast_loop_ttl(fd);
  if (options != 0) {
    // (The loop line has no line end.)
    DBG_ERR(options == kMcastLoopFailed ? "Set IP_MULTICAST_LOOP failed"
                                        : "Set IP_MULTICAST_TTL failed\n");
    return fail();
  }
  char ip[32] = {};
  get_local_ip("eth0", ip, sizeof(ip));
  store_local_address(ip);
  DBG_INFO("get_local_ip: %s\n", ip);
  // A failed membership is only reported: the reply interface is set anyway.
  const int joined = join_mcast_group(fd, group->sin_addr.s_addr, mcast_iface_of(ip), true);
  if (joined & kMcastJoinFailed) DBG_ERR("setsockopt failed\n");
  if (joined & kMcastIfFailed) {
    DBG_ERR("Setting IP_MULTICAST_IF error\n");
    return fail();
  }
  register_listener_socket(fd);
  DBG_INFO("init search_mira succeed\n");
  return 0;
}

void* search_mira_func(void*) {
  sys().sleep_us(kFirstOpenDelayUs);
  int sock = -1;
  struct sockaddr_in local, group;
  init_mcast_mira(&sock, &local, &group);
  // A socket that failed to open stays at -1: every receive fails and is
  // reported, without a pause.
  for (;;) search_mira_serve_once(sock);
}

int search_mira_serve_once(int sock) {
  return mira_serve_once(sock, "search_mira_func",
                         [](int, const struct sockaddr_in&, const uint8_t* buf, size_t len) {
                           mcast_receive_mira(len, buf);
                         });
}

int mira_serve_once(int sock, const char* thread, mira_handler handle) {
  uint8_t buf[wp::kDatagramMax] = {};
  struct sockaddr_in from;
  memset(&from, 0, sizeof(from));
  socklen_t from_len = sizeof(from);
  ssize_t n = net().recvfrom(sock, buf, sizeof(buf), 0, reinterpret_cast<struct sockaddr*>(&from),
                             &from_len);
  if (n < 0) {
    DBG_ERR_AS(thread, "recvfrom failed\n");
    DBG_ERR_AS(thread, "recv: %d\n", static_cast<int>(n));
    return -1;
  }
  char addr[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &from.sin_addr, addr, sizeof(addr));
  DBG_INFO_AS(thread, "Recv: %dBytes, From %s:%d\n", static_cast<int>(n), addr,
              ntohs(from.sin_port));
  handle(sock, from, buf, static_cast<size_t>(n));
  memset(buf, 0, sizeof(buf));
  sys().sleep_us(kMiraPauseUs);
  return static_cast<int>(n);
}

void mcast_receive_mira(size_t length, const uint8_t* datagram) {
  auto h = wp::parse_header(datagram, length);
  if (!h) return short_frame(length);
  DBG_INFO("Group Code: 0x%x\n", h->group_code);
  DBG_INFO("Command ID: 0x%x\n", h->command);
  switch (h->command) {
    case wp::CMD_SEARCH_CAMERA:
      handle_search();
      break;
    case wp::CMD_NET_QUERY:
      handle_query(datagram, length);
      break;
    case wp::CMD_NET_SET:
      handle_set(datagram, length);
      break;
    default:
      break;  // other commands get no answer
  }
}

int get_device_type_info() {
  char buf[65] = {};
  int n = sys().shell_read(kTypeCommand, buf, 64);
  if (n < 0) {
    DBG_ERR("popen %s failed\n", kTypeCommand);
    return -1;
  }
  if (n == 0) {
    DBG_ERR("fread %s failed\n", kTypeCommand);
    return -1;
  }
  buf[n] = '\0';
  DBG_INFO("buff: %s\n", buf);
  // "T2" before "S2", both before a single 'T': "S2T" is a DKW7.
  const char* code;
  if (strstr(buf, "T2") != nullptr) {
    code = kTypeCodeHkw7;
  } else if (strstr(buf, "S2") != nullptr) {
    code = kTypeCodeDkw7;
  } else if (strchr(buf, 'T') != nullptr) {
    code = kTypeCodeHkw7;
  } else {
    if (strchr(buf, 'S') == nullptr) DBG_INFO("strstr failed! buff: %s\n", buf);
    code = kTypeCodeDkw7;
  }
  set_device_type_code(code);
  DBG_INFO("device_type_info: %s\n", code);
  return 0;
}

void update_network_mira(const net_info_t& settings) {
  DBG_INFO("enter\n");
  std::string buf = settings.dhcp == 1 ? "dhcp=1" : "dhcp=0";
  buf += "\n";
  buf += std::string("ipaddr=") + settings.ipaddr + "\n";
  buf += std::string("netmask=") + settings.netmask + "\n";
  buf += std::string("gateway=") + settings.gateway + "\n";
  buf += std::string("fdns=") + settings.fdns + "\n";
  buf += std::string("macaddr=") + settings.macaddr + "\n";
  DBG_INFO("buf: \n%s\n", buf.c_str());
  // The camera's network scripts read the file too: rewritten under its lock.
  int fd = open(cam_path(kNetConfPath).c_str(), O_WRONLY | O_CREAT, 0644);
  if (fd < 0) {
    DBG_INFO("fopen %s failed\n", kNetConfPath);
    return;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) DBG_ERR("file lock by others\n");
  bool written = ftruncate(fd, 0) == 0 &&
                 write(fd, buf.data(), buf.size()) == static_cast<ssize_t>(buf.size());
  flock(fd, LOCK_UN);
  close(fd);
  if (!written) DBG_ERR("write %s failed\n", kNetConfPath);
  std::string fdns = std::string("fdns=") + settings.fdns;
  DBG_INFO("fdns: %s\n", fdns.c_str());
  set_resolv_nameserver(fdns.c_str());
  DBG_INFO("leave\n");
}
