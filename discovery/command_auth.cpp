// Signed commands on a keyed camera: one challenge, renewed after each use.
#include "discovery/command_auth.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <mutex>

#include "core/dbgout.h"
#include "core/fork_guard.h"
#include "core/platform.h"
#include "core/site_keys.h"
#include "discovery/identity.h"
#include "discovery/mcast.h"
#include "wire/signature.h"
#include "wire/text.h"

namespace {

std::mutex g_mu;
[[maybe_unused]] const int g_mu_fork_guard = guard_across_fork<g_mu>(kForkRankSession);
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

namespace {

// The value after `key` up to the line's end.
std::string field_value(const std::string& text, const char* key) {
  size_t at = text.find(key);
  if (at == std::string::npos) return "";
  at += strlen(key);
  return text.substr(at, text.find_first_of("\r\n", at) - at);
}

bool write_key_file(const site_key& k) {
  const std::string tmp = cam_path(k.file + ".new");
  int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const std::string text = wire::format_public_key(k.key);
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  ok = fsync(fd) == 0 && ok;
  close(fd);
  return ok && rename(tmp.c_str(), cam_path(k.file).c_str()) == 0;
}

bool change_keys(const std::string& text) {
  size_t files = 0;
  std::vector<site_key> keys = load_site_keys(&files);
  const std::string add = field_value(text, "\r\nAdd:");
  const std::string remove = field_value(text, "\r\nRemove:");
  if (!add.empty()) {
    auto key = wire::parse_public_key(add);
    if (!key || files >= kSiteKeysMax) return false;
    mkdir(cam_path(kSiteKeyDir).c_str(), 0755);
    const site_key k{std::string(kSiteKeyDir) + "/" + wire::key_id_text(key->id) + ".pub", *key};
    DBG_INFO("site key %s added\n", k.file.c_str());
    return write_key_file(k);
  }
  for (const site_key& k : keys) {
    if (remove.empty() || wire::key_id_text(k.key.id) != remove) continue;
    DBG_INFO("site key %s removed\n", k.file.c_str());
    return unlink(cam_path(k.file).c_str()) == 0;
  }
  return false;
}

}  // namespace

void handle_key_command(mcast_endpoint* ep, const char* msg, size_t len) {
  DBG_INFO("receive key command\n");
  std::string text(msg, strnlen(msg, len));
  if (!for_this_camera(text)) return;
  std::optional<size_t> body = admit_command(text.c_str(), text.size());
  bool ok = false;
  if (body) {
    text.resize(*body);
    ok = change_keys(text);
  }
  char dev[kIdLen + 1];
  get_device_id(dev);
  const std::string reply = std::string(kKeyCommand) + "\r\nClient ID:" +
                            field_value(text, "Client ID:").substr(0, kIdLen) + "\r\nDevice ID:" +
                            dev + "\r\nResult:" + (ok ? "ok" : "refused");
  mcast_send_data(ep, reply.c_str());
}

void reset_command_auth() {
  std::lock_guard<std::mutex> lock(g_mu);
  g_challenge.clear();
}
