// Signed commands on a keyed camera: one challenge, renewed after each use.
#include "discovery/command_auth.h"

#include <cstring>
#include <mutex>

#include "core/dbgout.h"
#include "core/fork_guard.h"
#include "core/site_keys.h"
#include "discovery/identity.h"
#include "wire/signature.h"
#include "wire/text.h"

namespace {

std::mutex g_mu;
[[maybe_unused]] const int g_mu_fork_guard = guard_across_fork<g_mu>();
std::string g_challenge;  // under g_mu; made on first use

std::string challenge_locked() {
  if (g_challenge.empty()) g_challenge = wire::new_challenge();
  return g_challenge;
}

// True when the message's "Device ID:" names this camera.
bool for_this_camera(const std::string& msg) {
  size_t at = msg.find("Device ID:");
  if (at == std::string::npos) return false;
  char dev[kIdLen + 1];
  get_device_id(dev);
  return msg.compare(at + 10, kIdLen, dev) == 0;
}

}  // namespace

std::string current_challenge() {
  if (!camera_is_keyed()) return "";
  std::lock_guard<std::mutex> lock(g_mu);
  return challenge_locked();
}

std::optional<size_t> admit_command(const char* msg, size_t len) {
  const std::string text(msg, strnlen(msg, len));
  size_t files = 0;
  std::vector<site_key> keys = load_site_keys(&files);
  if (files == 0 || !for_this_camera(text)) return len;
  std::vector<wire::public_key> trusted;
  for (const site_key& k : keys) trusted.push_back(k.key);
  std::lock_guard<std::mutex> lock(g_mu);
  size_t body = 0;
  wire::sig_verdict v = wire::verify_command(trusted, text, challenge_locked(), &body);
  if (v != wire::sig_verdict::good) {
    DBG_ERR("command refused: %s (camera has site keys)\n", wire::sig_verdict_text(v));
    return std::nullopt;
  }
  g_challenge = wire::new_challenge();
  return body;
}

bool refuse_unsigned_change(const char* what) {
  if (!camera_is_keyed()) return false;
  DBG_ERR("%s refused: the camera has site keys and this protocol carries no signature\n", what);
  return true;
}

void reset_command_auth() {
  std::lock_guard<std::mutex> lock(g_mu);
  g_challenge.clear();
}
