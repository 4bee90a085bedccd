// Network settings: the live IPv4/IPv6 view of eth0 and the files the
// configuration commands rewrite ("/data/net.conf", "/etc/resolv.conf").
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/network.h"
#include "core/platform.h"
#include "core/text.h"
#include "discovery/identity.h"
#include "discovery/oem_serial.h"

namespace {

constexpr const char* kNetConfPath = "/data/net.conf";
constexpr const char* kResolvPath = "/etc/resolv.conf";
constexpr size_t kConfAccumulator = 2048;
constexpr size_t kConfLineMax = 96;

// dhcp flag from the first 256 bytes of net.conf; -1 when the file is
// missing (reported for `func`).
int read_dhcp_flag(int32_t* dhcp, const char* func) {
  FILE* fp = fopen(cam_path(kNetConfPath).c_str(), "r");
  if (fp == nullptr) {
    DBG_ERR_AS(func, "fopen %s failed\n", kNetConfPath);
    return -1;
  }
  char conf[257] = {};
  size_t n = fread(conf, 1, 256, fp);
  fclose(fp);
  conf[n] = '\0';
  if (strstr(conf, "dhcp=0") != nullptr)
    *dhcp = 0;
  else if (strstr(conf, "dhcp=1") != nullptr)
    *dhcp = 1;
  return 0;
}

// Copies the text at p up to the first character of `stops` (or the end).
void copy_until(char* dst, size_t size, const char* p, const char* stops) {
  copy_text(dst, size, p, strcspn(p, stops));
}

// Text of a key=value field up to its line end ("\r" or "\n").
std::string line_value(const char* p) { return std::string(p, strcspn(p, "\r\n")); }

void lock_or_log(int fd, const char* func) {
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) DBG_ERR_AS(func, "file lock by others\n");
}

// Writes the configuration body into net.conf under the file lock.
int write_net_conf(const char* body, const char* func) {
  std::string path = cam_path(kNetConfPath);
  int fd = open(path.c_str(), O_WRONLY | O_CREAT, 0644);
  if (fd < 0) {
    DBG_ERR_AS(func, "fopen %s failed\n", kNetConfPath);
    return -1;
  }
  lock_or_log(fd, func);
  int rc = 0;
  size_t len = strlen(body);
  if (ftruncate(fd, 0) != 0 || write(fd, body, len) != static_cast<ssize_t>(len)) rc = -1;
  flock(fd, LOCK_UN);
  close(fd);
  return rc;
}

// Shared part of the two configuration writers (`func`): the body starts
// `skip` characters after the first `anchor`.
void apply_net_conf(const char* msg, const char* anchor, size_t skip, bool log_dns,
                    const char* func) {
  traceout("[%s %s +%-4d %s] \n%s", trace_timestamp(), __FILE_NAME__, __LINE__, func, msg);
  const char* body = msg;
  const char* p = strstr(msg, anchor);
  if (p != nullptr) body = strlen(p) >= skip ? p + skip : p + strlen(p);
  if (write_net_conf(body, func) != 0) return;
  const char* f = strstr(msg, "fdns=");
  if (f != nullptr) {
    std::string dns = line_value(f);
    if (log_dns) DBG_INFO_AS(func, "tmp: %s\n", dns.c_str());
    set_resolv_nameserver(dns.c_str());
  }
  DBG_INFO_AS(func, "write network info succeed\n");
}

}  // namespace

// ---- IPv4 ------------------------------------------------------------------------

int get_net_info() {
  net_info_t ni;
  copy_net_info(&ni);
  if (read_dhcp_flag(&ni.dhcp, __func__) != 0) return -1;
  // What was found before a failure stays in the record.
  auto fail = [&ni]() {
    set_net_info(ni);
    return -1;
  };

  char buf[351] = {};
  int n = sys().shell_read("ifconfig", buf, 350);
  if (n < 4 || strncmp(buf, "eth0", 4) != 0) return fail();
  buf[n] = '\0';

  const char* p = strchr(buf, 'H');
  if (p == nullptr || strncmp(p, "HWaddr ", 7) != 0) {
    DBG_ERR("find \"HWADDR \" failed\n");
    return fail();
  }
  p += 7;
  copy_text(ni.macaddr, sizeof(ni.macaddr), p, 17);
  p += strlen(ni.macaddr);

  p = strchr(p, 'i');
  if (p == nullptr || strncmp(p, "inet addr:", 10) != 0) {
    DBG_ERR("find \"ipaddr\" failed\n");
    return fail();
  }
  p += 10;
  copy_until(ni.ipaddr, sizeof(ni.ipaddr), p, " \n");
  p += strcspn(p, " \n");

  if (get_gateway(ni.gateway) != 0) DBG_ERR("get_gateway failed\n");

  p = strchr(p, 'M');
  if (p == nullptr || strncmp(p, "Mask:", 5) != 0) {
    DBG_ERR("find \"mask\" failed\n");
    return fail();
  }
  p += 5;
  copy_until(ni.netmask, sizeof(ni.netmask), p, "\n");

  memset(ni.fdns, 0, sizeof(ni.fdns));
  get_dns_server(ni.fdns);
  set_net_info(ni);

  if (daemon_state.work_mode.load() == WORK_DEBUG_SEARCH) {
    DBG_INFO("dhcp: %d\n", static_cast<int>(ni.dhcp));
    DBG_INFO("ip: %s\n", ni.ipaddr);
    DBG_INFO("ip len: %d\n", static_cast<int>(strlen(ni.ipaddr)));
    DBG_INFO("mask: %s\n", ni.netmask);
    DBG_INFO("mask len: %d\n", static_cast<int>(strlen(ni.netmask)));
    DBG_INFO("gateway: %s\n", ni.gateway);
    DBG_INFO("gateway len: %d\n", static_cast<int>(strlen(ni.gateway)));
    DBG_INFO("fdns: %s\n", ni.fdns);
    DBG_INFO("fdns len: %d\n", static_cast<int>(strlen(ni.fdns)));
    DBG_INFO("mac: %s\n", ni.macaddr);
    DBG_INFO("mac len: %d\n", static_cast<int>(strlen(ni.macaddr)));
  }
  return 0;
}

int get_gateway(char* out) {
  memset(out, 0, 32);
  char buf[21] = {};
  int n = sys().shell_read("ip route show | grep 'via' | awk '{print $3}'", buf, 20);
  if (n < 0) {
    DBG_ERR("popen failed\n");
    return -1;
  }
  copy_until(out, 32, buf, "\n");
  return 0;
}

int get_dns_server(char* out) {
  out[0] = '\0';
  FILE* fp = fopen(cam_path(kResolvPath).c_str(), "r");
  if (fp == nullptr) return -1;
  char line[32];
  int rc = -1;
  while (fgets(line, sizeof(line), fp) != nullptr) {
    if (strncmp(line, "nameserver", 10) != 0) continue;
    const char* v = strlen(line) >= 11 ? line + 11 : line + strlen(line);
    copy_until(out, 32, v, "\n");
    rc = 0;
    break;
  }
  fclose(fp);
  return rc;
}

void read_net_info(const char* msg) { apply_net_conf(msg, "Cli", 43, false, __func__); }

void read_net_info_only_deviceid(const char* msg) {
  apply_net_conf(msg, "Dev", 43, true, __func__);
}

int set_resolv_nameserver(const char* text) {
  const char* eq = strchr(text, '=');
  std::string line = std::string("nameserver ") + (eq != nullptr ? eq + 1 : text);
  return update_conf_2(kResolvPath, "nameserver", line.c_str());
}

int update_conf_2(const char* path, const char* key, const char* line) {
  std::string real = cam_path(path);
  FILE* fp = fopen(real.c_str(), "r");
  if (fp == nullptr) return -1;
  lock_or_log(fileno(fp), __func__);
  std::string acc;
  char* l = nullptr;
  size_t cap = 0;
  ssize_t n;
  while ((n = getline(&l, &cap, fp)) != -1) {
    std::string piece;
    if (strstr(l, key) != nullptr) {
      piece = std::string(line) + "\n";
    } else {
      size_t len = strnlen(l, static_cast<size_t>(n));
      bool nl = len > 0 && l[len - 1] == '\n';
      piece.assign(l, len > kConfLineMax ? kConfLineMax : len);
      if (nl && piece.back() != '\n') piece += '\n';
    }
    if (acc.size() + piece.size() >= kConfAccumulator) break;
    acc += piece;
  }
  free(l);
  flock(fileno(fp), LOCK_UN);
  fclose(fp);

  sys().shell(std::string("rm ") + path);
  sys().sync();
  fp = fopen(real.c_str(), "w+");
  if (fp == nullptr) {
    DBG_ERR("fopen %s failed\n", path);
    return -1;
  }
  lock_or_log(fileno(fp), __func__);
  fputs(acc.c_str(), fp);
  fflush(fp);
  flock(fileno(fp), LOCK_UN);
  fclose(fp);
  return 0;
}

void update_serialNo_and_mac(const char* msg) {
  TRACE("\n%s", msg);
  const char* s = strstr(msg, "Serial No:");
  const char* m = strstr(msg, "Mac Address:");
  if (s != nullptr && m != nullptr && m > s) {
    // The serial is the text between the two keys without its line end.
    std::string serial(s + 10, static_cast<size_t>(m - (s + 10)));
    while (!serial.empty() && (serial.back() == '\n' || serial.back() == '\r')) serial.pop_back();
    DBG_INFO("Serial No: %s\n", serial.c_str());
    oem_serial_write(serial.c_str());
  }
  if (m != nullptr) {
    std::string mac = line_value(m + 12).substr(0, 63);
    std::string line = "macaddr=" + mac;
    DBG_INFO("MAC Address: %s\n", line.c_str());
    update_conf_2(kNetConfPath, "macaddr=", line.c_str());
  }
}

int get_local_ip(const char* ifname, char* out, size_t size) {
  out[0] = '\0';
  struct in_addr addr;
  if (net().interface_ipv4(ifname, &addr) != 0) return -1;
  if (inet_ntop(AF_INET, &addr, out, static_cast<socklen_t>(size)) == nullptr) return -1;
  return 0;
}

int get_mac_by_ioctl(const char* ifname, char* out, size_t size) {
  unsigned char b[6];
  if (net().interface_hwaddr(ifname, b) != 0) return -1;
  snprintf(out, size, "%02x:%02x:%02x:%02x:%02x:%02x", b[0], b[1], b[2], b[3], b[4], b[5]);
  return 0;
}

// ---- IPv6 ----------------------------------------------------------------------------

int get_ipv6_global_addr(const char* ifname, char* out, size_t size) {
  out[0] = '\0';
  std::string cmd = std::string("ifconfig ") + ifname + " | grep Scope:Global";
  char buf[129] = {};
  if (sys().shell_read(cmd, buf, 128) <= 0) return -1;
  const char* p = strchr(buf, ':');
  if (p == nullptr || strnlen(p, 3) < 3) return -1;
  copy_until(out, size, p + 2, "/\n");
  return 0;
}

int get_ipv6_prefix(const char* ifname, char* out, size_t size) {
  out[0] = '\0';
  std::string cmd = std::string("ifconfig ") + ifname + " | grep Scope:Global";
  char buf[129] = {};
  if (sys().shell_read(cmd, buf, 128) <= 0) return -1;
  const char* p = strchr(buf, '/');
  if (p == nullptr) return -1;
  copy_until(out, size, p, " \n");
  return 0;
}

int get_local_gateway_ipv6(const char* ifname, const char* ip, const char* prefix, char* out,
                           size_t size) {
  int bits = prefix[0] == '/' ? atoi(prefix + 1) : atoi(prefix);
  if (strcmp(prefix, "/0") == 0 || bits <= 0) {
    append_text(out, size, "::");
    return 0;
  }
  if (bits % 8 != 0) {
    DBG_ERR("t%%8 != 0\n");
    append_text(out, size, "::");
    return 0;
  }
  // The first bits/4 hexadecimal digits of the address, colons kept.
  std::string net;
  int digits = 0;
  for (const char* c = ip; *c != '\0' && digits < bits / 4; ++c) {
    net += *c;
    if (*c != ':') ++digits;
  }
  std::string cmd = std::string("/bin/ip -6 route show dev ") + ifname;
  char buf[129] = {};
  int n = sys().shell_read(cmd, buf, 128);
  if (n < 0) {
    DBG_ERR("popen %s failed\n", cmd.c_str());
    append_text(out, size, "::");
    return -1;
  }
  if (n == 0) {
    DBG_ERR("fread %s failed\n", cmd.c_str());
    append_text(out, size, "::");
    return -1;
  }
  const char* p = net.empty() ? nullptr : strstr(buf, net.c_str());
  if (p == nullptr) {
    append_text(out, size, "::");
    return -1;
  }
  std::string gw(p, strcspn(p, " \n"));
  append_text(out, size, gw.c_str());
  return 0;
}

int get_ipv6_mac(const char* ifname, char* out, size_t size) {
  out[0] = '\0';
  std::string cmd = std::string("ifconfig ") + ifname + " | grep HWaddr";
  char buf[129] = {};
  if (sys().shell_read(cmd, buf, 128) <= 0) return -1;
  const char* p = strstr(buf, "HWaddr");
  if (p == nullptr) return -1;
  p += 6;
  while (*p == ' ') ++p;
  std::string mac(p, strcspn(p, "\r\n"));
  while (!mac.empty() && mac.back() == ' ') mac.pop_back();
  copy_text(out, size, mac.c_str(), mac.size());
  return 0;
}

int get_net_ipv6_info() {
  net_info_ipv6_t v6;
  memset(&v6, 0, sizeof(v6));
  {
    net_info_ipv6_t now;
    copy_net_info_ipv6(&now);
    v6.dhcp = now.dhcp;
  }
  if (read_dhcp_flag(&v6.dhcp, __func__) != 0) return -1;
  get_ipv6_global_addr("eth0", v6.ip, sizeof(v6.ip));
  get_ipv6_prefix("eth0", v6.prefix, sizeof(v6.prefix));
  get_local_gateway_ipv6("eth0", v6.ip, v6.prefix, v6.gateway, sizeof(v6.gateway));
  append_text(v6.fdns, sizeof(v6.fdns), "240c:6666");
  get_ipv6_mac("eth0", v6.mac, sizeof(v6.mac));
  set_net_info_ipv6(v6);
  DBG_INFO("============== IPv6:\n");
  DBG_INFO("dhcp: %d\n", static_cast<int>(v6.dhcp));
  DBG_INFO("ip: %s\n", v6.ip);
  DBG_INFO("prefix: %s\n", v6.prefix);
  DBG_INFO("gateway: %s\n", v6.gateway);
  DBG_INFO("fdns: %s\n", v6.fdns);
  DBG_INFO("mac: %s\n", v6.mac);
  return 0;
}
