#include "wire/upgrade.h"

#include <cstdio>
#include <cstdlib>

namespace wire {

std::string build_announcement(const announcement& a) {
  char count[kBatchCountDigits + 1];
  snprintf(count, sizeof(count), "%04u", static_cast<unsigned>(a.device_ids.size() % 10000));
  std::string out = kKeywords[KW_CAMERA_UP];
  out += "\r\n";
  out += kDeviceIdKey;
  out += count;
  for (const std::string& id : a.device_ids) out += id;
  out += "\r\n";
  out += kClientIdKey + a.client_id;
  out += "\r\n";
  out += kSessionKey + a.session;
  out += "\r\n";
  out += kFileNameKey + a.file_name + kFieldEnd;
  out += "\r\n";
  out += kFileMd5Key + a.md5;
  out += "\r\n";
  out += kFileSizeKey + std::to_string(a.file_size) + kFieldEnd;
  out += "\r\n";
  out += kUpgradeModeKey + std::to_string(a.mode);
  return out;
}

namespace {

// At most `max` characters after the first `key`, cut at `end` when given.
std::optional<std::string> field_after(std::string_view msg, const char* key, size_t max,
                                       char end = '\0') {
  size_t at = msg.find(key);
  if (at == std::string_view::npos) return std::nullopt;
  std::string_view v = msg.substr(at + std::string_view(key).size()).substr(0, max);
  if (end != '\0') v = v.substr(0, v.find(end));
  return std::string(v);
}

}  // namespace

announced_fields read_announcement(std::string_view msg) {
  msg = msg.substr(0, msg.find('\0'));
  announced_fields f;
  f.session = field_after(msg, kSessionKey, kIdLen).value_or("");
  f.file_name = field_after(msg, kFileNameKey, kFileNameMax, kFieldEnd).value_or("");
  f.md5 = field_after(msg, kFileMd5Key, kMd5Len).value_or("");
  f.file_size = atoi(field_after(msg, kFileSizeKey, kFileSizeDigits, kFieldEnd).value_or("").c_str());
  if (auto mode = field_after(msg, kUpgradeModeKey, 1)) f.mode = atoi(mode->c_str());
  return f;
}

std::string transfer_offer_field(const norm_offer& o) {
  char buf[64];
  snprintf(buf, sizeof(buf), "\r\n%s%s %u.%u.%u.%u:%u", kTransferKey, kTransferNorm,
           (o.group >> 24) & 0xffu, (o.group >> 16) & 0xffu, (o.group >> 8) & 0xffu, o.group & 0xffu,
           static_cast<unsigned>(o.port));
  return buf;
}

namespace {

// Reads 1..max_digits decimal digits at `at` into `out` (no sign, no spaces).
bool take_number(std::string_view s, size_t& at, size_t max_digits, uint64_t& out) {
  size_t n = 0;
  out = 0;
  while (at < s.size() && n < max_digits && s[at] >= '0' && s[at] <= '9') {
    out = out * 10 + static_cast<uint64_t>(s[at] - '0');
    ++at;
    ++n;
  }
  return n > 0 && !(at < s.size() && s[at] >= '0' && s[at] <= '9');
}

// The text after the first "Transfer:NORM " (nothing when the key is absent
// or another transfer is named).
std::optional<std::string_view> after_norm_key(std::string_view msg) {
  msg = msg.substr(0, msg.find('\0'));
  const size_t at = msg.find(kTransferKey);
  if (at == std::string_view::npos) return std::nullopt;
  std::string_view v = msg.substr(at + std::string_view(kTransferKey).size());
  const std::string_view want = std::string_view(kTransferNorm);
  if (v.substr(0, want.size()) != want || v.substr(want.size(), 1) != " ") return std::nullopt;
  return v.substr(want.size() + 1);
}

bool field_ends(std::string_view s, size_t at) {
  return at == s.size() || s[at] == '\r' || s[at] == kFieldEnd;
}

}  // namespace

std::optional<norm_offer> read_transfer_offer(std::string_view msg) {
  const auto v = after_norm_key(msg);
  if (!v) return std::nullopt;
  size_t at = 0;
  uint32_t group = 0;
  for (int i = 0; i < 4; ++i) {
    uint64_t octet = 0;
    if (!take_number(*v, at, 3, octet) || octet > 255) return std::nullopt;
    group = (group << 8) | static_cast<uint32_t>(octet);
    if (i < 3) {
      if (at >= v->size() || (*v)[at] != '.') return std::nullopt;
      ++at;
    }
  }
  if ((group >> 28) != 0xe) return std::nullopt;  // 224.0.0.0/4 only
  uint64_t port = 0;
  if (at >= v->size() || (*v)[at] != ':') return std::nullopt;
  ++at;
  if (!take_number(*v, at, 5, port) || port == 0 || port > 65535 || !field_ends(*v, at))
    return std::nullopt;
  return norm_offer{group, static_cast<uint16_t>(port)};
}

std::string transfer_answer_field(uint32_t node_id) {
  return std::string("\r\n") + kTransferKey + kTransferNorm + " " + std::to_string(node_id);
}

std::optional<uint32_t> read_transfer_answer(std::string_view reply) {
  const auto v = after_norm_key(reply);
  if (!v) return std::nullopt;
  size_t at = 0;
  uint64_t id = 0;
  if (!take_number(*v, at, 10, id) || id == 0 || id >= 0xffffffffu || !field_ends(*v, at))
    return std::nullopt;
  return static_cast<uint32_t>(id);
}

std::string build_packet(char kind, std::string_view session, const void* data, size_t len) {
  std::string out = kKeywords[KW_CAMERA_UP];
  out += kind;
  std::string sid(session.substr(0, kIdLen));
  sid.resize(kIdLen, '\0');
  out += sid;
  out.append(static_cast<const char*>(data), len);
  return out;
}

std::optional<packet_view> parse_packet(const char* buf, size_t len) {
  if (buf == nullptr || len < kPacketDataAt) return std::nullopt;
  return packet_view{buf[kPacketKindAt], std::string_view(buf + kPacketSessionAt, kIdLen),
                     buf + kPacketDataAt, len - kPacketDataAt};
}

std::string status_confirmation(std::string_view device_id, std::string_view client_id) {
  std::string out = kKeywords[KW_STATUS];
  out += "\r\n";
  out += kDeviceIdKey;
  out += device_id;
  out += "\r\n";
  out += kClientIdKey;
  out += client_id;
  out += "\r\n";
  out += kStatusConfirmed;
  return out;
}

}  // namespace wire
