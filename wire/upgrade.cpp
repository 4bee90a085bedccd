#include "wire/upgrade.h"

#include <cstdio>

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
