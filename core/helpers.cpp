#include "core/helpers.h"

#include <linux/watchdog.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/network.h"
#include "core/platform.h"

// The watchdog request that enables the card: type 'W', number 4, int, read-write.
static constexpr unsigned long kWdtEnableCard = 0xC0045704;

int find_pid(const char* name) {
  std::string cmd = std::string("ps | grep \"") + name + "\" | grep -v grep";
  char buf[257] = {};
  int n = sys().shell_read(cmd, buf, 256);
  if (n < 0) {
    DBG_ERR("popen %s failed\n", cmd.c_str());
    return 0;
  }
  if (n == 0) {
    DBG_ERR("fread %s failed\n", cmd.c_str());
    return 0;
  }
  const char* p = buf;
  while (*p != '\0' && !isdigit(static_cast<unsigned char>(*p))) ++p;
  char num[257] = {};
  if (*p != '\0') sscanf(p, "%256[^ ]", num);
  int pid = atoi(num);
  DBG_INFO("find pid: %s:%d\n", name, pid);
  return pid;
}

void kill_pid(const char* name, const char* sig) {
  if (strcmp(name, "hid") == 0) {
    sys().shell("killall hid");
    DBG_INFO("killall hid\n");
    return;
  }
  std::string cmd = std::string("killall -") + sig + " " + name;
  sys().shell(cmd);
  DBG_INFO("cmd: %s\n", cmd.c_str());
}

int kill_pid_main() {
  daemon_state_t& st = daemon_state;
  if (st.is_kill_pid == 0) {
    DBG_INFO("is_kill_pid: %d\n", st.is_kill_pid);
    return 0;
  }
  if (st.pid_num == 0) {
    DBG_INFO("pid_num == 0, return\n");
    return 0;
  }
  sys().shell("killall ntp_client");
  sys().sleep_us(2000000);
  sys().shell("killall ntp_client");
  sys().sleep_us(1000000);

  // The main application is interrupted (twice) so it can shut down cleanly;
  // everything else is killed outright.
  kill_pid(st.pid_list[0], "2");
  sys().sleep_us(2000000);
  kill_pid(st.pid_list[0], "2");
  for (int i = 1; i < st.pid_num; ++i) {
    kill_pid(st.pid_list[i], "9");
    sys().sleep_us(1000000);
  }
  for (int i = 0; i < st.pid_num; ++i) find_pid(st.pid_list[i]);
  DBG_INFO("### kill process finish!!!\n");
  return 0;
}

namespace {
// Runs md5sum on `path` and reads its 32 digits into `digest` (33 bytes).
int read_md5(const char* path, char* digest) {
  std::string cmd = std::string("/usr/bin/md5sum ") + shell_quote(path);
  memset(digest, 0, 33);
  int n = sys().shell_read(cmd, digest, 32);
  if (n < 0) {
    DBG_ERR("popen failed\n");
    return -1;
  }
  if (n < 32) {
    DBG_ERR("fread %s failed\n", cmd.c_str());
    return -1;
  }
  return 0;
}
}  // namespace

int md5_verify(const char* path, const char* md5) {
  char digest[33];
  if (read_md5(path, digest) != 0) return -1;
  DBG_INFO("destfilemd5: %s, len: %d\n", digest, static_cast<int>(strlen(digest)));
  DBG_INFO("srcmd5: %s, len: %d\n", md5, static_cast<int>(strlen(md5)));
  TRACE_DATA("file md5: %s\n", digest);
  // 33 bytes: the digits and the terminating NUL, so anything after the
  // 32 digits (a line end, say) is a mismatch.
  return strncmp(digest, md5, 33) == 0 ? 0 : -1;
}

int wdt_reboot(int timeout) {
  int fd = sys().watchdog_open("/dev/watchdog");
  if (fd < 0) {
    DBG_ERR("open /dev/watchdog failed");
    return 0;
  }
  DBG_INFO("open watchdog succeed\n");
  int value = timeout;
  sys().watchdog_ioctl(fd, WDIOC_SETTIMEOUT, &value);
  DBG_INFO("wdt time 1s\n");
  int enable = 2;
  sys().watchdog_ioctl(fd, kWdtEnableCard, &enable);
  int real = 0;
  sys().watchdog_ioctl(fd, WDIOC_GETTIMEOUT, &real);
  TRACE_DATA("real wdt timeout:%d s\n\n", real);
  // Left open and never fed: the board resets when the timeout runs out.
  return real;
}

void delete_file() {
  daemon_state_t& st = daemon_state;
  DBG_INFO("is_del_file:%d,del_num:%d\n", st.is_del_file, st.del_num);
  if (st.is_del_file == 0) return;
  for (int i = 0; i < st.del_num; ++i) {
    DBG_INFO("remove file[%d]: %s succeed\n", i, st.del_list[i]);
    remove(cam_path(st.del_list[i]).c_str());
  }
}

int createDir(const char* path) {
  std::string copy = path;
  for (size_t i = 1; i < copy.size(); ++i) {
    if (copy[i] != '/') continue;
    std::string prefix = copy.substr(0, i);
    std::string real = cam_path(prefix);
    if (access(real.c_str(), F_OK) != 0 && mkdir(real.c_str(), 0755) != 0) {
      DBG_ERR("mkdir %s error\n", prefix.c_str());
      return -1;
    }
  }
  return 0;
}

uint32_t get_file_size(const char* path) {
  struct stat st;
  if (stat(cam_path(path).c_str(), &st) != 0) return 0;
  return static_cast<uint32_t>(st.st_size);
}

void int_to_decimal(uint32_t value, char* out) {
  char tmp[16];
  int n = 0;
  do {
    tmp[n++] = static_cast<char>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  for (int i = 0; i < n; ++i) out[i] = tmp[n - 1 - i];
  out[n] = '\0';
}

uint32_t hex_to_int(const char* text) {
  uint32_t value = 0;
  for (const char* p = text; *p != '\0'; ++p) {
    unsigned char c = static_cast<unsigned char>(*p);
    uint32_t digit;
    if (c >= '0' && c <= '9') digit = c - '0';
    else if (c >= 'a' && c <= 'z') digit = c - 'a' + 10;  // letters past 'f' count on
    else if (c >= 'A' && c <= 'Z') digit = c - 'A' + 10;
    else break;
    value = (value << 4) + digit;
  }
  return value;
}

int int_to_hex(uint32_t value, char* out) {
  static const char digits[] = "0123456789ABCDEF";
  int n = 0;
  while (value != 0) {
    out[n++] = digits[value & 0xF];
    value >>= 4;
  }
  out[n] = '\0';
  for (int i = 0; i < n / 2; ++i) {
    char c = out[i];
    out[i] = out[n - 1 - i];
    out[n - 1 - i] = c;
  }
  return n;
}

static void put_le32(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}

unsigned char* build_tcp_message(unsigned char* out, int32_t cmd_type, const void* data,
                                 const char* name, uint32_t value1, uint32_t value2,
                                 size_t data_len) {
  // Offsets 12..15 are not set: they keep whatever the caller's buffer held.
  put_le32(out + 0, static_cast<uint32_t>(cmd_type));
  put_le32(out + 4, value1);
  put_le32(out + 8, value2);
  unsigned char* name_area = out + 16;
  memset(name_area, 0, kTcpMessageName);
  if (name != nullptr) strncpy(reinterpret_cast<char*>(name_area), name, kTcpMessageName - 1);
  unsigned char* data_area = out + 16 + kTcpMessageName;
  memset(data_area, 0, kTcpMessageData);
  if (data != nullptr) {
    if (data_len > kTcpMessageData) data_len = kTcpMessageData;
    memcpy(data_area, data, data_len);
  }
  return out;
}

int system_cmd(const char* cmd) {
  char buf[129] = {};
  int n = sys().shell_read(cmd, buf, 128);
  if (n < 0) {
    DBG_ERR("popen failed\n");
  } else if (n == 0) {
    DBG_ERR("fread %s failed\n", cmd);
  } else {
    return 0;
  }
  DBG_ERR("not found uboot file\n");
  return -1;
}

void query_ps_process() {
  sys().shell("/bin/ps -T > /dev/ps.txt");
  char buf[2049] = {};
  int n = sys().shell_read("cat /dev/ps.txt", buf, 2048);
  if (n < 0) n = 0;
  buf[n] = '\0';
  printf("show ps info:\n%s\n", buf);
  fflush(stdout);
}

int get_file_md5(const char* path, char* md5_out) {
  char digest[33];
  if (read_md5(path, digest) != 0) return -1;
  memcpy(md5_out, digest, sizeof(digest));
  return 0;
}

int check_disk_info(const char* path, int* total, int* list, int* trailer_len) {
  FILE* fp = fopen(cam_path(path).c_str(), "rb");
  if (fp == nullptr) {
    const int err = errno;  // the console line below may change errno
    DBG_ERR("fopen %s failed\n", path);
    errno = err;
    perror("fopen");
    return -1;
  }
  unsigned char tail[33] = {};
  size_t n = 0;
  if (fseek(fp, -32, SEEK_END) == 0) {
    n = fread(tail, 1, 32, fp);
  } else {
    rewind(fp);
    n = fread(tail, 1, 32, fp);
  }
  fclose(fp);

  static const unsigned char marker[4] = {'U', 'Z', 0xAA, 0xA5};
  size_t m = n;
  for (size_t i = 0; i + 4 <= n; ++i) {
    if (memcmp(tail + i, marker, 4) == 0) {
      m = i;
      break;
    }
  }
  if (m == n) return -1;
  // After the marker: "<...><total.list>"; the numbers follow the second '<'.
  size_t i = m + 4;
  int lt = 0;
  while (i < n && lt < 2) {
    if (tail[i] == '<') ++lt;
    ++i;
  }
  if (lt < 2) return -1;
  // A number too large for an int is no valid trailer.
  auto read_number = [&](char end, int* out) {
    int v = 0;
    bool any = false;
    while (i < n && tail[i] != end) {
      if (!isdigit(tail[i])) return false;
      const int digit = tail[i] - '0';
      if (v > (INT_MAX - digit) / 10) return false;
      v = v * 10 + digit;
      any = true;
      ++i;
    }
    if (i >= n || !any) return false;
    ++i;  // past the terminator
    *out = v;
    return true;
  };
  int t = 0, l = 0;
  if (!read_number('.', &t)) return -1;
  if (t < 1) return -1;
  if (!read_number('>', &l)) return -1;
  *total = t;
  *list = l;
  *trailer_len = static_cast<int>(i - m);
  int j = 0;
  for (int bit = 0; bit < daemon_state.mtd_num && bit < 31; ++bit)
    if (l & (1 << bit)) ++j;
  DBG_INFO("total: %d\n", t);
  DBG_INFO("list: %d\n", l);
  DBG_INFO("j: %d\n", j);
  return j == t ? 0 : -1;
}

void reboot_sequence() {
  DBG_INFO("system reboot...\n");
  wdt_reboot(1);
  sys().sleep_us(5000000);
  sys().reboot(RB_AUTOBOOT);
}

std::string shell_quote(const char* text) {
  std::string out = "'";
  for (const char* p = text; *p != '\0'; ++p) {
    if (*p == '\'')
      out += "'\\''";
    else
      out += *p;
  }
  out += "'";
  return out;
}

namespace {
// Lock-free: a forked child has only the thread that forked, and a lock
// another thread held at fork() would never be released there.
constexpr int kListenerSlots = 8;
std::atomic<int> g_listeners[kListenerSlots] = {-1, -1, -1, -1, -1, -1, -1, -1};
}  // namespace

void register_listener_socket(int fd) {
  if (fd < 0) return;
  for (auto& slot : g_listeners) {
    int empty = -1;
    if (slot.compare_exchange_strong(empty, fd)) return;
  }
  DBG_ERR("no slot for listener socket %d\n", fd);
}

void close_listener_sockets() {
  for (auto& slot : g_listeners) {
    int fd = slot.exchange(-1);
    if (fd >= 0) net().close(fd);
  }
}
