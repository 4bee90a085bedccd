// Device identity and the small facts that replies carry.
#include "discovery/identity.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/sysinfo.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/dbgout.h"
#include "core/platform.h"
#include "core/text.h"

namespace {

constexpr const char* kUuidPath = "/data/uuid_file";

// The kIdLen characters behind `key` in msg, bounded by the end of msg.
// Returns nullptr when the key is absent.
const char* id_after(const char* msg, const char* key, char* out) {
  const char* p = strstr(msg, key);
  if (p == nullptr) return nullptr;
  p += strlen(key);
  copy_text(out, kIdLen + 1, p, kIdLen);
  return p;
}

// Takes the client ID for `func` (check_uuid or check_uuid_bat).
int take_client_id(const char* msg, const char* func) {
  char id[kIdLen + 1];
  if (id_after(msg, "Client ID:", id) == nullptr) {
    DBG_ERR_AS(func, "find \"client id\" failed\n");
    return -1;
  }
  set_client_id(id);
  return 0;
}

int device_id_matches(const char* id) {
  char dev[kIdLen + 1];
  get_device_id(dev);
  return strcmp(id, dev) == 0;
}

// The counter of read_boot_times or read_curve_times (`func`).
int read_counter(const char* path, const char* func) {
  char cmd[64];
  snprintf(cmd, sizeof(cmd), "cat %s", path);
  char buf[129] = {};
  int n = sys().shell_read(cmd, buf, 128);
  if (n < 0) {
    DBG_ERR_AS(func, "popen %s failed\n", cmd);
    return 0;
  }
  if (n == 0) {
    DBG_ERR_AS(func, "fread %s failed\n", cmd);
    return 0;
  }
  return atoi(buf);
}

}  // namespace

// ---- identity -------------------------------------------------------------------

void gain_uuid() {
  uuid_t uu;
  uuid_generate_time(uu);
  char id[kIdLen + 1] = {};
  for (int i = 0; i < 16; ++i) snprintf(id + 2 * i, 3, "%02x", uu[i]);
  set_device_id(id);
  DBG_INFO("device id: %s\n", id);
}

void read_uuid() {
  std::string path = cam_path(kUuidPath);
  int fd = open(path.c_str(), O_RDWR);
  if (fd < 0) {
    gain_uuid();
    char id[kIdLen + 1];
    get_device_id(id);
    fd = open(path.c_str(), O_WRONLY | O_CREAT, 0644);
    if (fd < 0) {
      DBG_ERR("open %s failed\n", kUuidPath);
      return;
    }
    if (write(fd, id, kIdLen) != static_cast<ssize_t>(kIdLen))
      DBG_ERR("write %s failed\n", kUuidPath);
    close(fd);
    return;
  }
  char id[kIdLen + 1] = {};
  ssize_t n = read(fd, id, kIdLen);
  close(fd);
  if (n != static_cast<ssize_t>(kIdLen)) DBG_ERR("read %s failed\n", kUuidPath);
  set_device_id(id);
}

int check_uuid(const char* msg) {
  if (msg == nullptr || msg[0] == '\0') return -1;
  char id[kIdLen + 1];
  if (id_after(msg, "Device ID:", id) == nullptr) {
    DBG_ERR("find \"device id\" failed\n");
    return -1;
  }
  if (!device_id_matches(id)) return -1;
  return take_client_id(msg, __func__);
}

int check_uuid_only_deviceid(const char* msg) {
  if (msg == nullptr || msg[0] == '\0') return -1;
  char id[kIdLen + 1];
  if (id_after(msg, "Device ID:", id) == nullptr) {
    DBG_ERR("find \"device id\" failed\n");
    return -1;
  }
  return device_id_matches(id) ? 0 : -1;
}

int check_uuid_bat(const char* msg) {
  if (msg == nullptr || msg[0] == '\0') return -1;
  const char* p = strstr(msg, "Device ID:");
  if (p == nullptr) {
    DBG_ERR("find \"device id\" failed\n");
    return -1;
  }
  p += strlen("Device ID:");
  char count_text[5];
  copy_text(count_text, sizeof(count_text), p, 4);
  int count = atoi(count_text);
  DBG_INFO("count=%d\n", count);
  p += strlen(count_text);
  // The IDs follow without separators; a count promising more than the
  // datagram holds stops at its end.
  size_t left = strlen(p);
  char dev[kIdLen + 1];
  get_device_id(dev);
  int found = 0;
  for (int i = 0; i < count && left >= kIdLen; ++i, p += kIdLen, left -= kIdLen) {
    char id[kIdLen + 1];
    copy_text(id, sizeof(id), p, kIdLen);
    DBG_INFO("uuid_temp=%s\n", id);
    if (strcmp(id, dev) == 0) {
      DBG_INFO("uuid=%s,dev_uuid=%s\n", id, dev);
      found = 1;
      break;
    }
  }
  if (!found) {
    DBG_ERR("device id is not the same\n");
    return -1;
  }
  return take_client_id(msg, __func__);
}

// ---- small facts -------------------------------------------------------------

long get_sys_uptime() {
  struct sysinfo info;
  if (sysinfo(&info) != 0) {
    DBG_ERR("get_sys_uptime() failed\n");
    return 0;
  }
  return info.uptime;
}

int read_boot_times() { return read_counter("/data/boot_times.dat", __func__); }
int read_curve_times() { return read_counter("/data/curve_times.dat", __func__); }

int sockaddr_to_string(const struct sockaddr* addr, char* out, size_t size) {
  if (addr == nullptr || out == nullptr || size == 0) return -1;
  out[0] = '\0';
  char text[INET6_ADDRSTRLEN] = {};
  int port = 0;
  if (addr->sa_family == AF_INET) {
    const auto* in = reinterpret_cast<const struct sockaddr_in*>(addr);
    inet_ntop(AF_INET, &in->sin_addr, text, sizeof(text));
    port = ntohs(in->sin_port);
  } else if (addr->sa_family == AF_INET6) {
    const auto* in6 = reinterpret_cast<const struct sockaddr_in6*>(addr);
    inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof(text));
    port = ntohs(in6->sin6_port);
  } else {
    return -1;
  }
  append_text(out, size, text);
  if (port != 0) {
    char suffix[7];
    snprintf(suffix, sizeof(suffix), ":%d", port);
    append_text(out, size, suffix);
  }
  return 0;
}

int check_ipv4_format(const char* text) {
  int a, b, c, d;
  char tail;
  if (sscanf(text, "%d.%d.%d.%d%c", &a, &b, &c, &d, &tail) != 4) return -1;
  for (int v : {a, b, c, d})
    if (v < 0 || v > 255) return -1;
  return 0;
}

int check_mac_format(const char* text) {
  char c[13];
  int n = sscanf(text, "%c%c.%c%c.%c%c.%c%c.%c%c.%c%c%c", &c[0], &c[1], &c[2], &c[3], &c[4], &c[5],
                 &c[6], &c[7], &c[8], &c[9], &c[10], &c[11], &c[12]);
  if (n == 12) {
    DBG_INFO("%s good!\n", text);
    return 0;
  }
  DBG_ERR("%s error %.17s\n", text, text);
  return -1;
}

void build_upgrade_ack(char* buf, char code) {
  memset(buf, 0, 256);
  char client[kIdLen + 1];
  char dev[kIdLen + 1];
  if (code == '9') {
    get_client_id(client);
  } else {
    get_upgrade_client_id(client);
    set_mcast_upgrade_in_progress(0);
  }
  get_device_id(dev);
  snprintf(buf, 256, "REPLYU DO\r\nClient ID:%s\r\nDevice ID:%s\r\nAck:%c", client, dev, code);
}
