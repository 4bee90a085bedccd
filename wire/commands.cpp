#include "wire/commands.h"

#include <cstdio>

#include "wire/text.h"

namespace wire {

namespace {

bool is_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

}  // namespace

std::string addressed_request(int code, std::string_view device_id, std::string_view client_id,
                              std::string_view rest) {
  std::string out = kKeywords[code];
  out += kFieldSep;
  out += kDeviceIdKey;
  out += device_id;
  out += kFieldSep;
  out += kClientIdKey;
  out += client_id;
  out += rest;
  return out;
}

std::string confignet_request(std::string_view device_id, std::string_view client_id,
                              const net_settings& s) {
  std::string body = "\ndhcp=";
  body += s.dhcp ? "1" : "0";
  body += "\nipaddr=" + s.ipaddr + "\nnetmask=" + s.netmask + "\ngateway=" + s.gateway +
          "\nfdns=" + s.fdns + "\nmacaddr=" + s.macaddr + "\n";
  return addressed_request(KW_CONFIGNET, device_id, client_id, body);
}

std::string flicker_request(std::string_view device_id, std::string_view client_id, bool on) {
  return addressed_request(KW_CAMERA_FL, device_id, client_id,
                           on ? "\r\nstatus=open" : "\r\nstatus=close");
}

bool is_board_type(std::string_view type) {
  for (const char* t : kBoardTypes)
    if (type == t) return true;
  return false;
}

std::string board_test_request(std::string_view device_id, std::string_view client_id,
                               const board_test_options& o) {
  std::string rest = "\r\nTYPE=" + o.type;
  if (o.usb) rest += "\r\nUSB_Test=true";
  if (o.hdmi) rest += "\r\nHDMI_Test=true";
  if (o.sdi) rest += "\r\nSDI_Test=true";
  return addressed_request(KW_BOARD_TES, device_id, client_id, rest);
}

std::string batch_ids(const std::vector<std::string>& device_ids) {
  char count[8];
  snprintf(count, sizeof(count), "%04u", static_cast<unsigned>(device_ids.size() % 10000));
  std::string out = count;
  for (const std::string& id : device_ids) out += id;
  return out;
}

std::string query_request(const std::vector<std::string>& device_ids, std::string_view client_id) {
  std::string out = kKeywords[KW_CAMERA_QU];
  out += kFieldSep;
  out += kDeviceIdKey + batch_ids(device_ids);
  out += kFieldSep;
  out += kClientIdKey;
  out += client_id;
  return out;
}

std::string lumconfig_request(std::string_view device_id, std::string_view client_id,
                              std::string_view serial, std::string_view mac) {
  std::string rest = "\nSerial No:";
  rest += serial;
  rest += "\nMac Address:";
  rest += mac;
  return addressed_request(KW_LUMCONFIG, device_id, client_id, rest);
}

bool is_ipv4(std::string_view text) { return parse_ipv4(text, true).has_value(); }

bool is_netmask(std::string_view text) {
  auto v = parse_ipv4(text, true);
  if (!v || *v == 0) return false;
  unsigned inverted = ~*v;
  return (inverted & (inverted + 1)) == 0;  // ones on top, zeros below
}

std::optional<std::string> normal_mac(std::string_view text) {
  if (text.size() != 17) return std::nullopt;
  std::string out;
  for (size_t i = 0; i < 17; ++i) {
    char c = text[i];
    if (i % 3 == 2) {
      if (c != ':' && c != '-') return std::nullopt;
      out += ':';
    } else {
      if (!is_hex(c)) return std::nullopt;
      out += static_cast<char>(c >= 'A' && c <= 'F' ? c - 'A' + 'a' : c);
    }
  }
  if (out == "00:00:00:00:00:00") return std::nullopt;
  unsigned first = static_cast<unsigned>(std::stoul(out.substr(0, 2), nullptr, 16));
  if (first & 1u) return std::nullopt;  // group (multicast or broadcast) address
  return out;
}

bool is_serial_text(std::string_view text) {
  if (text.empty() || text.size() > kSerialMax) return false;
  for (char c : text)
    if (c < 0x20 || c > 0x7e) return false;
  return true;
}

bool is_device_id(std::string_view text) {
  if (text.size() != kIdLen) return false;
  for (char c : text)
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  return true;
}

}  // namespace wire
