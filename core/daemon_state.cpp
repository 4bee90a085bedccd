// The shared record and the records kept beside it under their own locks.
#include "core/daemon_state.h"

#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <new>

#include "core/fork_guard.h"
#include "core/platform.h"
#include "core/text.h"

daemon_state_t daemon_state;

namespace {

constexpr const char* kVersionPath = "/customer/version_file";
constexpr const char* kModelPath = "/customer/device_model_file";

// Guards the version texts of daemon_state (read_version, current_version).
std::mutex g_version_mu;
[[maybe_unused]] const int g_version_fork_guard = guard_across_fork<g_version_mu>(kForkRankRecord);

// The identity and IPv4 records. An installer's forked child builds
// acknowledgements from these records: it must not inherit the lock from a
// thread that does not exist there.
std::mutex g_records_mu;
[[maybe_unused]] const int g_records_fork_guard = guard_across_fork<g_records_mu>(kForkRankRecord);
char g_device_id[kIdLen + 1];
char g_client_id[kIdLen + 1];
char g_upgrade_client_id[kIdLen + 1];
net_info_t g_net_info;

std::mutex g_ipv6_mu;
[[maybe_unused]] const int g_ipv6_fork_guard = guard_across_fork<g_ipv6_mu>(kForkRankRecord);
net_info_ipv6_t g_net_info_ipv6;

std::mutex g_type_mu;
[[maybe_unused]] const int g_type_fork_guard = guard_across_fork<g_type_mu>(kForkRankRecord);
char g_type_code[kTypeCodeLen];

// Whether eth0 has its IPv4 address: a static one from the start, a DHCP
// one once the watcher has seen it. Nothing sent to a group before then
// reaches anybody.
std::mutex g_address_mu;
std::condition_variable g_address_cv;
bool g_address_ready = false;

void read_first_line(const char* path, char* out, size_t size) {
  memset(out, 0, size);
  FILE* fp = fopen(cam_path(path).c_str(), "r");
  if (fp == nullptr) return;
  if (fgets(out, static_cast<int>(size), fp) == nullptr) out[0] = '\0';
  fclose(fp);
  out[strcspn(out, "\r\n")] = '\0';
}

}  // namespace

void reset_daemon_state() {
  daemon_state.~daemon_state_t();
  new (&daemon_state) daemon_state_t();
  {
    std::lock_guard<std::mutex> lock(g_records_mu);
    memset(g_device_id, 0, sizeof(g_device_id));
    memset(g_client_id, 0, sizeof(g_client_id));
    memset(g_upgrade_client_id, 0, sizeof(g_upgrade_client_id));
    g_net_info = net_info_t{};
  }
  {
    std::lock_guard<std::mutex> lock(g_ipv6_mu);
    g_net_info_ipv6 = net_info_ipv6_t{};
  }
  set_device_type_code("");
  std::lock_guard<std::mutex> lock(g_address_mu);
  g_address_ready = false;
}

void fill_protocol_keywords() {
  // Index = command code; entry 12 stays empty.
  for (int i = 0; i < kKeywordCount; ++i) {
    memset(daemon_state.protocol_keywords[i], 0, kKeywordLen);
    append_text(daemon_state.protocol_keywords[i], kKeywordLen, wire::kKeywords[i]);
  }
}

// ---- identity and network records -----------------------------------------------

void get_device_id(char* out) {
  std::lock_guard<std::mutex> lock(g_records_mu);
  memcpy(out, g_device_id, sizeof(g_device_id));
}

void set_device_id(const char* id) {
  std::lock_guard<std::mutex> lock(g_records_mu);
  copy_text(g_device_id, sizeof(g_device_id), id, kIdLen);
}

void get_client_id(char* out) {
  std::lock_guard<std::mutex> lock(g_records_mu);
  memcpy(out, g_client_id, sizeof(g_client_id));
}

void set_client_id(const char* id) {
  std::lock_guard<std::mutex> lock(g_records_mu);
  copy_text(g_client_id, sizeof(g_client_id), id, kIdLen);
}

void get_upgrade_client_id(char* out) {
  std::lock_guard<std::mutex> lock(g_records_mu);
  memcpy(out, g_upgrade_client_id, sizeof(g_upgrade_client_id));
}

void set_upgrade_client_id(const char* id) {
  std::lock_guard<std::mutex> lock(g_records_mu);
  copy_text(g_upgrade_client_id, sizeof(g_upgrade_client_id), id, kIdLen);
}

int mcast_upgrade_in_progress() { return daemon_state.mcast_upgrading.load(); }
void set_mcast_upgrade_in_progress(int on) { daemon_state.mcast_upgrading.store(on); }

void copy_net_info(net_info_t* out) {
  std::lock_guard<std::mutex> lock(g_records_mu);
  *out = g_net_info;
}

void set_net_info(const net_info_t& in) {
  std::lock_guard<std::mutex> lock(g_records_mu);
  g_net_info = in;
}

void copy_net_info_ipv6(net_info_ipv6_t* out) {
  std::lock_guard<std::mutex> lock(g_ipv6_mu);
  *out = g_net_info_ipv6;
}

void set_net_info_ipv6(const net_info_ipv6_t& in) {
  std::lock_guard<std::mutex> lock(g_ipv6_mu);
  g_net_info_ipv6 = in;
}

void get_device_type_code(char* out) {
  std::lock_guard<std::mutex> lock(g_type_mu);
  memcpy(out, g_type_code, kTypeCodeLen);
}

void set_device_type_code(const char* code) {
  std::lock_guard<std::mutex> lock(g_type_mu);
  memset(g_type_code, 0, sizeof(g_type_code));
  copy_text(g_type_code, sizeof(g_type_code), code, kTypeCodeLen - 1);
}

// ---- eth0's IPv4 address ----------------------------------------------------------

void mark_ipv4_address_ready() {
  {
    std::lock_guard<std::mutex> lock(g_address_mu);
    g_address_ready = true;
  }
  g_address_cv.notify_all();
}

void wait_for_ipv4_address() {
  std::unique_lock<std::mutex> lock(g_address_mu);
  g_address_cv.wait(lock, [] { return g_address_ready; });
}

// ---- version texts ------------------------------------------------------------------

version_texts read_version() {
  // The files are read outside the lock: a slow read holds up no reader.
  version_texts fresh;
  read_first_line(kVersionPath, fresh.version, sizeof(fresh.version));
  read_first_line(kModelPath, fresh.model, sizeof(fresh.model));
  std::lock_guard<std::mutex> lock(g_version_mu);
  memcpy(daemon_state.soc_version, fresh.version, sizeof(fresh.version));
  memcpy(daemon_state.device_model, fresh.model, sizeof(fresh.model));
  return fresh;
}

version_texts current_version() {
  version_texts now;
  std::lock_guard<std::mutex> lock(g_version_mu);
  memcpy(now.version, daemon_state.soc_version, sizeof(now.version));
  memcpy(now.model, daemon_state.device_model, sizeof(now.model));
  now.version[sizeof(now.version) - 1] = '\0';
  now.model[sizeof(now.model) - 1] = '\0';
  return now;
}
