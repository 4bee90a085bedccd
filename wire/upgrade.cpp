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
