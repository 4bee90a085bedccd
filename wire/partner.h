// The partner's binary protocol as both ends see it: groups and ports, the
// 16-byte header, command IDs and the byte layout of every request and reply.
// Multi-byte integers are big-endian, except the tracking operation field,
// which the partner's tool sends little-endian. Texts are fixed 32-byte
// fields, NUL-padded; a full 32-character text has no NUL.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "wire/text.h"

namespace wire::partner {

// Requests go to the request group; the camera answers on both reply groups,
// from its own address and port kPort.
inline constexpr const char* kRequestGroup = "236.5.7.1";
inline constexpr const char* kReplyGroups[2] = {"236.5.7.2", "236.5.7.3"};
inline constexpr int kPort = 8000;
// Tracking-sensitivity requests: unicast to the camera, answered to the sender.
inline constexpr int kParamPort = 8001;
// The camera reads at most this much of a request; the rest is lost.
inline constexpr size_t kDatagramMax = 512;

inline constexpr size_t kHeaderLen = 16;
inline constexpr size_t kTextLen = 32;
inline constexpr uint8_t kReplyGroupCode = 0x80;
inline constexpr uint8_t kRequestGroupCode = 0x00;  // the camera only prints it

enum command : uint8_t {
  CMD_NET_SET = 0x01,
  CMD_NET_QUERY = 0x02,
  CMD_SEARCH_CAMERA = 0x60,
  CMD_CTRL_TRACK_SENSITIVITY = 0x61,
  REPLY_NET = 0x81,  // answers both CMD_NET_SET and CMD_NET_QUERY
  REPLY_SEARCH = 0xE0,
  REPLY_TRACK_SENSITIVITY = 0xE1,
};

// Whole frames, header included.
inline constexpr size_t kSearchRequestLen = kHeaderLen;                // 16
inline constexpr size_t kNetQueryLen = kHeaderLen + kTextLen;          // 48
inline constexpr size_t kNetSetLen = kHeaderLen + kTextLen + 32 + 64;  // 144
inline constexpr size_t kSearchReplyLen = 168;
inline constexpr size_t kNetReplyLen = 156;
inline constexpr size_t kTrackGetLen = 52;  // serial and operation
inline constexpr size_t kTrackSetLen = 56;  // and the sensitivity
inline constexpr size_t kTrackReplyLen = 56;

// Connection types of the network frames (first byte of a 4-byte field).
inline constexpr uint8_t kConnDhcp = 2;
inline constexpr uint8_t kConnStatic = 3;
// Tracking operations.
inline constexpr uint32_t kTrackGet = 0;
inline constexpr uint32_t kTrackSet = 1;
// The tool's sensitivity scale.
inline constexpr int kSensitivityMax = 15;

// Offset 0 group code, 1 command, 4 total length; the rest of the header is 0.
struct header {
  uint8_t group_code = kRequestGroupCode;
  uint8_t command = 0;
  uint16_t length = 0;
};
void put_header(uint8_t* out, const header& h);
// Nothing when fewer than kHeaderLen bytes arrived.
std::optional<header> parse_header(const uint8_t* buf, size_t len);

// IPv4 addresses as host-order numbers (192.168.77.2 is 0xC0A84D02); on the
// wire they are the four address bytes in network order. A leading zero is
// accepted here ("192.168.077.1" is 77).
using wire::parse_ipv4;
std::string ipv4_text(uint32_t addr);
// "02:00:00:77:00:01" -> six bytes; nothing unless six two-digit hex pairs.
std::optional<std::array<uint8_t, 6>> parse_mac(std::string_view text);

// A fixed text field: at most kTextLen characters up to the first NUL.
std::string get_text(const uint8_t* field);

// ---- search ------------------------------------------------------------------

std::array<uint8_t, kSearchRequestLen> encode_search_request();

// Offsets: 16 ID, 48 port, 50 RTSP port, 52 address, 56 zero, 60 one,
// 64 MAC, 70 zero, 72 name, 104 type code, 136 software version.
struct search_reply {
  std::string device_id;
  uint16_t port = kPort;
  uint16_t rtsp_port = 554;
  uint32_t ip = 0;
  std::array<uint8_t, 6> mac{};
  std::string name;
  std::string type_code;
  std::string version;
};
std::array<uint8_t, kSearchReplyLen> encode_search_reply(const search_reply& r);
// Nothing unless a whole 0xE0 reply is there.
std::optional<search_reply> decode_search_reply(const uint8_t* buf, size_t len);

// ---- network query and setting ------------------------------------------------

std::array<uint8_t, kNetQueryLen> encode_net_query(std::string_view serial);
// The serial of a whole query frame; nothing when the body is short.
std::optional<std::string> decode_net_query(const uint8_t* buf, size_t len);

// The five addresses both network frames carry back to back, 4 bytes each.
struct net_addresses {
  uint32_t ip = 0, netmask = 0, gateway = 0, dns = 0, dns2 = 0;
};

// Body from offset 16: serial, connection type, use-DNS flag, address, mask,
// gateway, primary and secondary DNS, PPPoE flag, user and password.
struct net_set_request {
  std::string serial;
  uint8_t connection_type = kConnStatic;
  uint32_t use_dns = 0;
  net_addresses addr;  // at 56
  uint32_t pppoe_enable = 0;
  std::string pppoe_user, pppoe_password;
};
std::array<uint8_t, kNetSetLen> encode_net_set(const net_set_request& r);
std::optional<net_set_request> decode_net_set(const uint8_t* buf, size_t len);

// Offsets: 16 ID, 48..59 fixed (0, 0.0.0.0, 1, 0, 0.0.0.0), 60 connection
// type, 64 DHCP flag, 68 address, 72 mask, 76 gateway, 80 primary DNS,
// 84 secondary DNS, 88 PPPoE flag (0), 92 and 124 PPPoE texts (zeros).
struct net_reply {
  std::string device_id;
  uint8_t connection_type = kConnStatic;
  uint32_t dhcp = 0;
  net_addresses addr;  // at 68
};
std::array<uint8_t, kNetReplyLen> encode_net_reply(const net_reply& r);
std::optional<net_reply> decode_net_reply(const uint8_t* buf, size_t len);

// ---- tracking sensitivity (port kParamPort) ----------------------------------

// Request (0x61) and reply (0xE1) share one layout: 16 serial or device ID,
// 48 operation (little-endian), 52 sensitivity (0..15; in a reply the
// current value).
struct track_frame {
  std::string serial;
  uint32_t operation = kTrackGet;
  int32_t sensitivity = 0;
};
std::array<uint8_t, kTrackSetLen> encode_track_request(const track_frame& r);
// Needs kTrackGetLen bytes; the sensitivity is read when the frame holds it
// (0 otherwise).
std::optional<track_frame> decode_track_request(const uint8_t* buf, size_t len);
std::array<uint8_t, kTrackReplyLen> encode_track_reply(const track_frame& r);
std::optional<track_frame> decode_track_reply(const uint8_t* buf, size_t len);

}  // namespace wire::partner
