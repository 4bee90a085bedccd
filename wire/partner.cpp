#include "wire/partner.h"

#include <cstdio>
#include <cstring>

namespace wire::partner {

namespace {

void put_be16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v >> 8);
  p[1] = static_cast<uint8_t>(v);
}

void put_be32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}

void put_le32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

uint16_t get_be16(const uint8_t* p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }

uint32_t get_be32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
         static_cast<uint32_t>(p[2]) << 8 | p[3];
}

uint32_t get_le32(const uint8_t* p) {
  return static_cast<uint32_t>(p[3]) << 24 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[1]) << 8 | p[0];
}

// At most kTextLen bytes of s; the rest of the field stays zero.
void put_text(uint8_t* field, std::string_view s) {
  memcpy(field, s.data(), s.size() < kTextLen ? s.size() : kTextLen);
}

// A zeroed frame of N bytes with its header filled in.
template <size_t N>
std::array<uint8_t, N> frame(uint8_t group_code, uint8_t command) {
  std::array<uint8_t, N> out{};
  put_header(out.data(), header{group_code, command, static_cast<uint16_t>(N)});
  return out;
}

// The frame carries `command` and at least `need` bytes.
bool holds(const uint8_t* buf, size_t len, uint8_t command, size_t need) {
  return buf != nullptr && len >= need && buf[1] == command;
}

void put_addresses(uint8_t* p, const net_addresses& a) {
  const uint32_t v[5] = {a.ip, a.netmask, a.gateway, a.dns, a.dns2};
  for (int i = 0; i < 5; ++i) put_be32(p + 4 * i, v[i]);
}

net_addresses get_addresses(const uint8_t* p) {
  return net_addresses{get_be32(p), get_be32(p + 4), get_be32(p + 8), get_be32(p + 12),
                       get_be32(p + 16)};
}

void put_track(uint8_t* p, const track_frame& r) {
  put_text(p + 16, r.serial);
  put_le32(p + 48, r.operation);
  put_be32(p + 52, static_cast<uint32_t>(r.sensitivity));
}

track_frame get_track(const uint8_t* buf, size_t len) {
  track_frame r;
  r.serial = get_text(buf + 16);
  r.operation = get_le32(buf + 48);
  if (len >= kTrackSetLen) r.sensitivity = static_cast<int32_t>(get_be32(buf + 52));
  return r;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

void put_header(uint8_t* out, const header& h) {
  memset(out, 0, kHeaderLen);
  out[0] = h.group_code;
  out[1] = h.command;
  put_be16(out + 4, h.length);
}

std::optional<header> parse_header(const uint8_t* buf, size_t len) {
  if (buf == nullptr || len < kHeaderLen) return std::nullopt;
  return header{buf[0], buf[1], get_be16(buf + 4)};
}

std::string ipv4_text(uint32_t addr) {
  char buf[16];
  snprintf(buf, sizeof(buf), "%u.%u.%u.%u", addr >> 24, (addr >> 16) & 0xff, (addr >> 8) & 0xff,
           addr & 0xff);
  return buf;
}

std::optional<std::array<uint8_t, 6>> parse_mac(std::string_view text) {
  if (text.size() != 17) return std::nullopt;
  std::array<uint8_t, 6> out{};
  for (size_t i = 0; i < 6; ++i) {
    int hi = hex_digit(text[3 * i]);
    int lo = hex_digit(text[3 * i + 1]);
    if (hi < 0 || lo < 0 || (i < 5 && text[3 * i + 2] != ':')) return std::nullopt;
    out[i] = static_cast<uint8_t>(hi << 4 | lo);
  }
  return out;
}

std::string get_text(const uint8_t* field) {
  const char* p = reinterpret_cast<const char*>(field);
  return std::string(p, strnlen(p, kTextLen));
}

// ---- search --------------------------------------------------------------------

std::array<uint8_t, kSearchRequestLen> encode_search_request() {
  return frame<kSearchRequestLen>(kRequestGroupCode, CMD_SEARCH_CAMERA);
}

std::array<uint8_t, kSearchReplyLen> encode_search_reply(const search_reply& r) {
  auto out = frame<kSearchReplyLen>(kReplyGroupCode, REPLY_SEARCH);
  uint8_t* p = out.data();
  put_text(p + 16, r.device_id);
  put_be16(p + 48, r.port);
  put_be16(p + 50, r.rtsp_port);
  put_be32(p + 52, r.ip);
  put_be32(p + 60, 1);
  memcpy(p + 64, r.mac.data(), r.mac.size());
  put_text(p + 72, r.name);
  put_text(p + 104, r.type_code);
  put_text(p + 136, r.version);
  return out;
}

std::optional<search_reply> decode_search_reply(const uint8_t* buf, size_t len) {
  if (!holds(buf, len, REPLY_SEARCH, kSearchReplyLen)) return std::nullopt;
  search_reply r;
  r.device_id = get_text(buf + 16);
  r.port = get_be16(buf + 48);
  r.rtsp_port = get_be16(buf + 50);
  r.ip = get_be32(buf + 52);
  memcpy(r.mac.data(), buf + 64, r.mac.size());
  r.name = get_text(buf + 72);
  r.type_code = get_text(buf + 104);
  r.version = get_text(buf + 136);
  return r;
}

// ---- network query and setting ------------------------------------------------------

std::array<uint8_t, kNetQueryLen> encode_net_query(std::string_view serial) {
  auto out = frame<kNetQueryLen>(kRequestGroupCode, CMD_NET_QUERY);
  put_text(out.data() + 16, serial);
  return out;
}

std::optional<std::string> decode_net_query(const uint8_t* buf, size_t len) {
  if (!holds(buf, len, CMD_NET_QUERY, kNetQueryLen)) return std::nullopt;
  return get_text(buf + 16);
}

std::array<uint8_t, kNetSetLen> encode_net_set(const net_set_request& r) {
  auto out = frame<kNetSetLen>(kRequestGroupCode, CMD_NET_SET);
  uint8_t* p = out.data();
  put_text(p + 16, r.serial);
  p[48] = r.connection_type;
  put_be32(p + 52, r.use_dns);
  put_addresses(p + 56, r.addr);
  put_be32(p + 76, r.pppoe_enable);
  put_text(p + 80, r.pppoe_user);
  put_text(p + 112, r.pppoe_password);
  return out;
}

std::optional<net_set_request> decode_net_set(const uint8_t* buf, size_t len) {
  if (!holds(buf, len, CMD_NET_SET, kNetSetLen)) return std::nullopt;
  net_set_request r;
  r.serial = get_text(buf + 16);
  r.connection_type = buf[48];  // the other three bytes of the field do not count
  r.use_dns = get_be32(buf + 52);
  r.addr = get_addresses(buf + 56);
  r.pppoe_enable = get_be32(buf + 76);
  r.pppoe_user = get_text(buf + 80);
  r.pppoe_password = get_text(buf + 112);
  return r;
}

std::array<uint8_t, kNetReplyLen> encode_net_reply(const net_reply& r) {
  auto out = frame<kNetReplyLen>(kReplyGroupCode, REPLY_NET);
  uint8_t* p = out.data();
  put_text(p + 16, r.device_id);
  p[54] = 1;
  p[60] = r.connection_type;
  put_be32(p + 64, r.dhcp);
  put_addresses(p + 68, r.addr);
  return out;
}

std::optional<net_reply> decode_net_reply(const uint8_t* buf, size_t len) {
  if (!holds(buf, len, REPLY_NET, kNetReplyLen)) return std::nullopt;
  net_reply r;
  r.device_id = get_text(buf + 16);
  r.connection_type = buf[60];
  r.dhcp = get_be32(buf + 64);
  r.addr = get_addresses(buf + 68);
  return r;
}

// ---- tracking sensitivity ---------------------------------------------------------

std::array<uint8_t, kTrackSetLen> encode_track_request(const track_frame& r) {
  auto out = frame<kTrackSetLen>(kRequestGroupCode, CMD_CTRL_TRACK_SENSITIVITY);
  put_track(out.data(), r);
  return out;
}

std::optional<track_frame> decode_track_request(const uint8_t* buf, size_t len) {
  if (!holds(buf, len, CMD_CTRL_TRACK_SENSITIVITY, kTrackGetLen)) return std::nullopt;
  return get_track(buf, len);
}

std::array<uint8_t, kTrackReplyLen> encode_track_reply(const track_frame& r) {
  auto out = frame<kTrackReplyLen>(kReplyGroupCode, REPLY_TRACK_SENSITIVITY);
  put_track(out.data(), r);
  return out;
}

std::optional<track_frame> decode_track_reply(const uint8_t* buf, size_t len) {
  if (!holds(buf, len, REPLY_TRACK_SENSITIVITY, kTrackReplyLen)) return std::nullopt;
  return get_track(buf, len);
}

}  // namespace wire::partner
