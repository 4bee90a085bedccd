// Start-up: the command line, the site lists, the boot
// environment and partition table, the endpoint records, the service threads
// and the accept loop.
#include "core/upgrade.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/dbgout.h"
#include "core/helpers.h"
#include "core/network.h"
#include "core/platform.h"
#include "core/text.h"
#include "core/threads.h"
#include "discovery/broadcast.h"
#include "discovery/dhcp_status.h"
#include "discovery/identity.h"
#include "discovery/mcast.h"
#include "install/mtd_debug.h"
#include "install/mtd_upgrade.h"
#include "install/udisk_upgrade.h"
#include "mcu/arm_image.h"
#include "partner/search_mira.h"

namespace {

constexpr const char* kPidListPath = "/customer/pid_list";
constexpr const char* kDelListPath = "/customer/del_list";
// Socket and address storage of the endpoint records: start-up owns these,
// the records point at them.
std::atomic<int> g_mcast_sock[4];
struct sockaddr_in g_mcast_bind[4];
struct sockaddr_in g_mcast_group[4];
std::atomic<int> g_mcast_sock6[4];
struct sockaddr_in6 g_mcast_bind6[4];
struct sockaddr_in6 g_mcast_group6[4];

// A service thread; start-up cannot go on without it.
void start_service(const char* name, thread_fn fn, void* arg) {
  if (start_thread(name, fn, arg) != 0) {
    DBG_ERR("create thread failed\n");
    sys().exit_process(1);
  }
}

}  // namespace

int parse_command_line(int argc, char** argv) {
  if (argc != 2) return 0;
  const char* word = argv[1];
  if (strcmp(word, "DEBUG") == 0) {
    daemon_state.work_mode = WORK_DEBUG;
    DBG_INFO("current workmodel: DEBUG\n");
  } else if (strcmp(word, "DEBUG_ARM") == 0) {
    daemon_state.work_mode = WORK_DEBUG_ARM;
  } else if (strcmp(word, "DEBUG_SEARCH") == 0) {
    daemon_state.work_mode = WORK_DEBUG_SEARCH;
  } else if (strcmp(word, "VERSION") == 0) {
    return 1;
  } else if (strcmp(word, "ARM_NO_EXIST") == 0) {
    daemon_state.arm_exist = 0;
  }
  return 0;
}

void read_pid_config() {
  daemon_state_t& st = daemon_state;
  int fd = open(cam_path(kPidListPath).c_str(), O_RDONLY);
  if (fd < 0) {
    DBG_ERR("open %s failed\n", kPidListPath);
    DBG_ERR("exit read_pid_config\n");
    st.is_kill_pid = 0;
    return;
  }
  // Each entry is a name in double quotes followed by exactly one line-end
  // byte; anything before the opening quote becomes part of the name.
  int quotes = 0;
  int pos = 0;
  bool skip_next = false;
  while (st.pid_num < kMaxListEntries) {
    char c;
    ssize_t n = read(fd, &c, 1);
    if (n == 0) break;
    if (n < 0) {
      DBG_ERR("read failed\n");
      close(fd);
      sys().sync();
      sys().end_thread();
    }
    if (skip_next) {
      skip_next = false;
      continue;
    }
    char* entry = st.pid_list[st.pid_num];
    if (c != '"') {
      if (pos < kListNameLen - 1) entry[pos++] = c;
      entry[pos] = '\0';
      continue;
    }
    if (++quotes == 2) {
      entry[pos] = '\0';
      st.pid_num++;
      quotes = 0;
      pos = 0;
      skip_next = true;
    }
  }
  close(fd);
  DBG_INFO("read pid_config succeed\n");
}

void read_del_config() {
  daemon_state_t& st = daemon_state;
  FILE* fp = fopen(cam_path(kDelListPath).c_str(), "r");
  if (fp == nullptr) {
    DBG_ERR("read %s failed\n", kDelListPath);
    DBG_ERR("exit read_del_config\n");
    st.is_del_file = 0;
    return;
  }
  char* line = nullptr;
  size_t cap = 0;
  ssize_t len;
  while (st.del_num < kMaxListEntries && (len = getline(&line, &cap, fp)) > 0) {
    if (line[0] == '\n') continue;
    const char* open_quote = static_cast<const char*>(memchr(line, '"', len));
    if (open_quote == nullptr) continue;
    const char* start = open_quote + 1;
    const char* end = start;
    const char* stop = line + len;
    while (end < stop && *end != '"' && *end != '\n') ++end;
    copy_text(st.del_list[st.del_num], kListNameLen, start, end - start);
    st.del_num++;
  }
  free(line);
  fclose(fp);
  DBG_INFO("read del_config succeed\n");
}

int get_config(const char* path) {
  daemon_state_t& st = daemon_state;
  FILE* fp = fopen(cam_path(path).c_str(), "r");
  if (fp == nullptr) return -1;
  char line[128];
  while (st.env_num < kMaxEnv && fgets(line, sizeof(line), fp) != nullptr) {
    if (line[0] == '#') continue;
    env_entry e{};
    unsigned long offset = 0, size = 0, sector_size = 0, sectors = 0;
    int fields = sscanf(line, "%15s %lx %lx %lx %lx", e.devname, &offset, &size, &sector_size,
                        &sectors);
    if (fields < 4) continue;
    if (fields == 4) sectors = 1;
    e.offset = static_cast<uint32_t>(offset);
    e.size = static_cast<uint32_t>(size);
    e.sector_size = static_cast<uint32_t>(sector_size);
    e.sectors = static_cast<uint32_t>(sectors);
    for (size_t i = 0; i < sizeof(e.devname) && e.devname[i] != '\0'; ++i) {
      if (isdigit(static_cast<unsigned char>(e.devname[i]))) {
        e.mtd_num = static_cast<uint8_t>(atoi(e.devname + i));
        break;
      }
    }
    st.env[st.env_num] = e;
    DBG_INFO("env %d: %s 0x%x 0x%x id:%d\n", st.env_num, e.devname, e.offset, e.size, e.mtd_num);
    st.env_num++;
  }
  fclose(fp);
  if (st.env_num == 0) {
    errno = EINVAL;
    return -1;
  }
  // The first byte after the boot environment, counted from the start of
  // the flash: the partitions before the environment's own, plus its end.
  uint32_t offset = st.env[0].offset + st.env[0].size;
  for (int i = 0; i < st.env[0].mtd_num; ++i) offset += orn_get_mtd_size(i);
  st.flash_unerase_offset = offset;
  DBG_INFO("flash_unerase_offset: 0x%x\n", offset);
  return 0;
}

void rebuild_mtd_summary() {
  daemon_state_t& st = daemon_state;
  memset(st.mtd_summary, 0, sizeof(st.mtd_summary));
  for (int i = 0; i < st.mtd_num; ++i) {
    const mtd_entry& m = st.mtd[i];
    char line[200];
    int n = snprintf(line, sizeof(line), "%s %s %s %s\n", m.dev, m.size, m.erasesize, m.name);
    if (n > 0) append_text(st.mtd_summary, sizeof(st.mtd_summary), line, strnlen(line, sizeof(line)));
  }
}

void read_mtd_info() {
  daemon_state_t& st = daemon_state;
  st.mtd_num = 0;
  memset(st.mtd, 0, sizeof(st.mtd));
  char buf[kMtdSummaryLen + 1] = {};
  int len = sys().shell_read("/bin/cat /proc/mtd | grep mtd", buf, kMtdSummaryLen);
  if (len < 0) {
    DBG_ERR("popen failed\n");
    len = 0;
  }
  int pos = 0;
  // Fields end at a blank; none runs past the end of its line.
  auto take = [&](char* field, size_t size) {
    while (pos < len && buf[pos] == ' ') ++pos;
    int start = pos;
    while (pos < len && buf[pos] != ' ' && buf[pos] != '\n' && buf[pos] != '\0') ++pos;
    append_text(field, size, buf + start, pos - start);
  };
  while (pos < len && st.mtd_num < kMaxMtd) {
    mtd_entry& m = st.mtd[st.mtd_num];
    take(m.dev, sizeof(m.dev));
    take(m.size, sizeof(m.size));
    take(m.erasesize, sizeof(m.erasesize));
    take(m.name, sizeof(m.name));
    // Whatever follows the name on its line (a label with blanks) is dropped.
    while (pos < len && buf[pos] != '\n') ++pos;
    if (pos < len) ++pos;
    if (m.dev[0] != '\0') st.mtd_num++;
  }
  rebuild_mtd_summary();
}

void fill_endpoint_records() {
  static const wire::group_port kGroups[3] = {wire::kSearchEndpoint, wire::kBatchEndpoint,
                                               wire::kStatusEndpoint};
  for (int i = 0; i < 4; ++i) {
    mcast_endpoint& ep = daemon_state.endpoints[i];
    ep.sock = &g_mcast_sock[i];
    ep.bind_addr = &g_mcast_bind[i];
    ep.group_addr = &g_mcast_group[i];
    ep.sock6 = &g_mcast_sock6[i];
    ep.bind_addr6 = &g_mcast_bind6[i];
    ep.group_addr6 = &g_mcast_group6[i];
    if (i < 3) {
      memset(ep.group, 0, sizeof(ep.group));
      append_text(ep.group, sizeof(ep.group), kGroups[i].group);
      ep.port = kGroups[i].port;
    }
  }
}

int init_tcpsocket(int* listen_socket, struct sockaddr_in* addr) {
  int fd = net().socket(AF_INET, SOCK_STREAM, 0);
  if (fd < 0) {
    DBG_ERR("socket failed\n");
    sys().exit_process(1);
  }
  memset(addr, 0, sizeof(*addr));
  addr->sin_family = AF_INET;
  addr->sin_addr.s_addr = htonl(INADDR_ANY);
  addr->sin_port = htons(5555);
  int on = 1;
  net().setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (net().bind(fd, reinterpret_cast<struct sockaddr*>(addr), sizeof(*addr)) < 0) {
    DBG_ERR("bind failed\n");
    net().close(fd);
    sys().exit_process(1);
  }
  net().listen(fd, 5);
  register_listener_socket(fd);
  *listen_socket = fd;
  DBG_INFO("init socket succeed\n");
  return 0;
}

int waiting(int listen_socket, struct sockaddr_in* peer) {
  DBG_INFO("waiting connect...\n");
  socklen_t len = 0;  // the peer address is not filled in
  int fd = net().accept(listen_socket, reinterpret_cast<struct sockaddr*>(peer), &len);
  if (fd < 0) {
    DBG_ERR("accept failed\n");
    sys().sync();
    sys().end_thread();
  }
  return fd;
}

int upgrade_main(int argc, char** argv, int (*flash_setup)()) {
  if (parse_command_line(argc, argv) == 1) {
    printf("upgrade version: v%s\n", kUpgradeVersion);
    fflush(stdout);
    return 0;
  }
  if (flash_setup != nullptr) flash_setup();
  daemon_state_t& st = daemon_state;
  read_pid_config();
  read_del_config();
  get_config("/etc/fw_env.config");
  read_mtd_info();
  read_version();
  read_site_conf(kSiteConfPath, &st.site);

  if (st.arm_exist) {
    DBG_INFO("need check arm exist\n");
    check_arm(1);
  }
  if (!st.identity_read) {
    read_uuid();
    st.identity_read = 1;
  }
  fill_endpoint_records();
  fill_protocol_keywords();

  start_service("mcast_func", mcast_func, &st.endpoints[0]);
  start_service("mcast_batUpgrade_func", mcast_batUpgrade_func, &st.endpoints[1]);
  start_service("check_dhcp_status_main", check_dhcp_status_main, nullptr);
  int listen_socket = -1;
  struct sockaddr_in listen_addr;
  init_tcpsocket(&listen_socket, &listen_addr);
  start_service("mtd_upgrade_func", mtd_upgrade_func, nullptr);
  start_service("udisk_upgrade_func", udisk_upgrade_func, nullptr);
  // Services the site switches on in /customer/upgrade.conf.
  if (st.site.broadcast == 1) start_service("broadcast_func", broadcast_func, nullptr);
  if (st.site.partner == 1) init_search_mira_server();
  // The post-upgrade report, on its own endpoint apart from the listeners.
  if (st.site.status_report == 1)
    start_service("mcast_upgradeStatus_func", mcast_upgradeStatus_func, &st.endpoints[2]);

  // The installers run these copies: the originals may be replaced.
  sys().shell("cp /bin/fw_setenv /dev/fw_setenv");
  sys().shell("cp /bin/busybox /dev/busybox");

  // Connections are accepted but not served; the descriptor is only kept.
  struct sockaddr_in peer;
  for (;;) {
    if (st.upgrade_busy.load() == 0) {
      int conn = waiting(listen_socket, &peer);
      (void)conn;
    }
    sys().sleep_us(50000);
  }
}
