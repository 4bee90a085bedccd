// The daemon's one shared record: everything the threads share (the global
// state record of start-up, the identity and network records, the listener
// switches, the controller and board flags, the version texts), with the
// locks, fork guards and atomics that keep each piece whole. The ground
// floor: every module reads it, it reads no module.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "core/site_conf.h"
#include "wire/text.h"

inline constexpr int kMaxListEntries = 16;
inline constexpr int kListNameLen = 256;
inline constexpr int kMaxMtd = 20;
inline constexpr int kMtdSummaryLen = 1024;
inline constexpr int kMaxEnv = 2;
inline constexpr int kKeywordCount = wire::kKeywordCount;
inline constexpr int kKeywordLen = 256;  // one slot of protocol_keywords
inline constexpr size_t kIdLen = wire::kIdLen;  // device and client IDs: 32 hex characters
inline constexpr size_t kTypeCodeLen = 32;      // the partner protocol's device type code

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

// One multicast endpoint, plain data (its functions are in discovery/mcast.h).
// The socket and addresses live in variables owned by start-up; the record
// only points at them so the DHCP watcher can replace the socket under the
// listener.
struct mcast_endpoint {
  std::atomic<int>* sock = nullptr;          // IPv4 socket descriptor
  struct sockaddr_in* bind_addr = nullptr;   // local bind address (also recvfrom's sender)
  struct sockaddr_in* group_addr = nullptr;  // destination of every reply
  std::atomic<int>* sock6 = nullptr;         // IPv6 socket descriptor
  struct sockaddr_in6* bind_addr6 = nullptr;
  struct sockaddr_in6* group_addr6 = nullptr;
  int port = 0;
  char group[128] = {};
};

// IPv4 network settings of eth0 (each text NUL-terminated).
struct net_info_t {
  int32_t dhcp;  // 1 = DHCP, 0 = static
  char ipaddr[32];
  char netmask[32];
  char gateway[32];
  char fdns[32];
  char macaddr[32];
};

struct net_info_ipv6_t {
  int32_t dhcp;
  char ip[64];
  char prefix[64];  // with its slash, "/64"
  char gateway[64];
  char fdns[64];
  char mac[64];
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

  // Firmware version and device model texts (read_version). Other threads
  // refresh them: read them through current_version().
  char soc_version[32] = {};
  char device_model[32] = {};

  // Receive switches of the search and batch listeners (1 = receive); the
  // DHCP watcher clears them while it re-creates the sockets.
  std::atomic<int> search_switch{1};
  std::atomic<int> batch_switch{1};
  // Failed get_net_info attempts of the search listener.
  std::atomic<int> net_info_failures{0};
  // Set from an accepted multicast announcement to the next acknowledgement:
  // a new announcement is answered '9' and the firmware query is ignored.
  std::atomic<int> mcast_upgrading{0};

  // Board type of the current controller session (set by check_arm_status).
  std::atomic<int> board_type{0};
  // 1 while check_arm runs (cleared on every way out that does not reboot);
  // upgrade_busy follows it.
  std::atomic<int> arm_upgrade_flag{0};
  // The last controller image name found by update_arm_version.
  char arm_upgrade_file_name[128] = {};

  // The broadcast production-mode switch: set by "action=test enable" with
  // "enable=on", never cleared by a command (only a restart clears it).
  std::atomic<int> production_mode{0};
};

extern daemon_state_t daemon_state;

// Everything in this header back to its start values: the record, the
// identity and network records, the address latch and the type code (tests
// use it between cases; start-up's tables are filled again by their callers).
void reset_daemon_state();

// The keyword table of the text protocol, each keyword appended to its
// cleared slot (start-up step 8).
void fill_protocol_keywords();

// ---- identity and network records ------------------------------------------
// Shared by the listeners, the DHCP watcher, the handlers and the partner
// threads; each accessor copies under one lock, so a reader always sees a
// whole record. An installer's forked child builds acknowledgements from
// them: the lock is free in the child.
// Copies into out (kIdLen + 1 bytes at least).
void get_device_id(char* out);
void set_device_id(const char* id);
void get_client_id(char* out);
// Takes at most kIdLen characters of id (fewer when a NUL comes first).
void set_client_id(const char* id);
// The tool that started the current multicast upgrade.
void get_upgrade_client_id(char* out);
void set_upgrade_client_id(const char* id);
int mcast_upgrade_in_progress();
void set_mcast_upgrade_in_progress(int on);

void copy_net_info(net_info_t* out);
void set_net_info(const net_info_t& in);
void copy_net_info_ipv6(net_info_ipv6_t* out);
void set_net_info_ipv6(const net_info_ipv6_t& in);

// The partner protocol's device type code ("HKW7", "DKW7", or empty while
// unknown), copied into out (kTypeCodeLen bytes).
void get_device_type_code(char* out);
void set_device_type_code(const char* code);

// ---- listener switches ------------------------------------------------------
inline std::atomic<int>& mcast_search_switch() { return daemon_state.search_switch; }
inline std::atomic<int>& mcast_batch_switch() { return daemon_state.batch_switch; }

// ---- eth0's IPv4 address ----------------------------------------------------
// eth0 has its IPv4 address (static from the start, or DHCP's once the
// watcher saw it); the post-upgrade report waits for it.
void mark_ipv4_address_ready();
void wait_for_ipv4_address();

// ---- version texts ----------------------------------------------------------
// The firmware version and device model texts, as one consistent copy.
struct version_texts {
  char version[32];
  char model[32];
};

// Reads the version text and device model (files in the camera table of the
// README) and returns them. Threads that read the texts meanwhile see either
// the former or the new pair, never a half-written one.
version_texts read_version();
// The texts as last read.
version_texts current_version();
