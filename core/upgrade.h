// Start-up, the site configuration files and the daemon's global state.
#pragma once

#include <atomic>
#include <cstdint>

#include "core/site_conf.h"
#include "discovery/mcast.h"
#include "wire/text.h"

inline constexpr const char* kUpgradeVersion = "3.1.34";

inline constexpr int kMaxListEntries = 16;
inline constexpr int kListNameLen = 256;
inline constexpr int kMaxMtd = 20;
inline constexpr int kMtdSummaryLen = 1024;
inline constexpr int kMaxEnv = 2;
inline constexpr int kKeywordCount = wire::kKeywordCount;
inline constexpr int kKeywordLen = 256;  // one slot of protocol_keywords

// Command codes: index into protocol_keywords.
using wire::keyword_code;
using enum wire::keyword_code;

enum work_modes { WORK_NORMAL = 0, WORK_DEBUG = 1, WORK_DEBUG_ARM = 2, WORK_DEBUG_SEARCH = 3 };

// One line of /proc/mtd: "mtd0: 00080000 00010000 \"boot\"".
struct mtd_entry {
  char dev[10];        // "mtd0:" (colon kept)
  char size[10];       // hexadecimal text
  char erasesize[10];  // hexadecimal text
  char name[128];      // label with its quotes
};

// One line of /etc/fw_env.config.
struct env_entry {
  char devname[16];
  uint32_t offset;
  uint32_t size;
  uint32_t sector_size;
  uint32_t sectors;
  uint8_t mtd_num;
};

struct daemon_state_t {
  // Set while an installation or a controller operation runs; read by the
  // accept loop and the listeners.
  std::atomic<int> upgrade_busy{0};

  int pid_num = 0;
  char pid_list[kMaxListEntries][kListNameLen] = {};
  int del_num = 0;
  char del_list[kMaxListEntries][kListNameLen] = {};

  int mtd_num = 0;
  mtd_entry mtd[kMaxMtd] = {};
  char mtd_summary[kMtdSummaryLen] = {};

  std::atomic<int> work_mode{WORK_NORMAL};
  int identity_read = 0;

  int env_num = 0;
  env_entry env[kMaxEnv] = {};
  uint32_t flash_unerase_offset = 0;

  char protocol_keywords[kKeywordCount][kKeywordLen] = {};

  // search (8005), batch (8006), status (8004), and a spare record.
  mcast_endpoint endpoints[4];

  // Default 1, cleared when the list cannot be opened / by "ARM_NO_EXIST".
  int is_kill_pid = 1;
  int is_del_file = 1;
  int arm_exist = 1;

  // Service switches of /customer/upgrade.conf (read at start-up).
  site_conf_t site;

  // Firmware version and device model texts (read_version).
  char soc_version[32] = {};
  char device_model[32] = {};
};

extern daemon_state_t daemon_state;

// Resets daemon_state to its start values (tests use it between cases).
void reset_daemon_state();

// Command-line word -> work_mode / arm_exist; returns 1 when "VERSION" was
// given (the caller prints the version and exits 0).
int parse_command_line(int argc, char** argv);

void read_pid_config();
void read_del_config();
int get_config(const char* path);
void read_mtd_info();
void rebuild_mtd_summary();

// Version text and device model (files in the camera table of the README):
// read_version reads them into daemon_state, version_texts copies them out
// (32 bytes each), both under one lock. Once the threads run, nothing reads
// daemon_state.soc_version or device_model directly.
void read_version();
void version_texts(char* version, char* model);

void fill_endpoint_records();
void fill_protocol_keywords();

int init_tcpsocket(int* listen_socket, struct sockaddr_in* addr);
int waiting(int listen_socket, struct sockaddr_in* peer);

// The whole daemon; returns only for "VERSION" (0) or fatal failures.
int upgrade_main(int argc, char** argv);
