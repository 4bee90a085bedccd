// The multicast text protocol as both ends see it: groups and ports,
// the nine-character keywords, the field keys and the datagram sizes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace wire {

struct group_port {
  const char* group;
  int port;
};

// Commands and replies; each listener replies on the group it heard.
inline constexpr group_port kSearchEndpoint{"239.255.255.251", 8005};
inline constexpr group_port kBatchEndpoint{"239.255.255.252", 8006};
// Post-upgrade "STATUS * " reports and their confirmations.
inline constexpr group_port kStatusEndpoint{"238.255.255.251", 8004};

// Largest datagram each listener reads; the rest of a longer one is lost.
inline constexpr size_t kSearchDatagram = 512;
inline constexpr size_t kBatchDatagram = 5120;

// Keywords: the first nine bytes of a datagram; the index is the command
// code. Entry 12 is empty.
inline constexpr size_t kKeywordLen = 9;
inline constexpr int kKeywordCount = 14;
inline constexpr const char* kKeywords[kKeywordCount] = {
    "SEARCH * ", "REPLY OK ", "CONFIGNET", "SUCCEED *", "FAILED * ", "CAMERA_RE", "LUMCONFIG",
    "CAMERA_FL", "BOARD_TES", "CAMERA_QU", "CAMERA_UP", "PRODUCTIO", "",          "STATUS * "};
enum keyword_code {
  KW_SEARCH = 0, KW_REPLY_OK = 1, KW_CONFIGNET = 2, KW_SUCCEED = 3, KW_FAILED = 4,
  KW_CAMERA_RE = 5, KW_LUMCONFIG = 6, KW_CAMERA_FL = 7, KW_BOARD_TES = 8,
  KW_CAMERA_QU = 9, KW_CAMERA_UP = 10, KW_PRODUCTIO = 11, KW_EMPTY = 12, KW_STATUS = 13,
};

// Reply keywords that are not in the command table.
inline constexpr const char* kReplyQuery = "REPLYQ OK";
inline constexpr const char* kReplyUpgrade = "REPLYU DO";
inline constexpr const char* kReplyBoardTest = "BOARD_TEST";

// Field keys; an ID after its key is exactly kIdLen characters.
inline constexpr size_t kIdLen = 32;
inline constexpr const char* kDeviceIdKey = "Device ID:";
inline constexpr const char* kClientIdKey = "Client ID:";
inline constexpr const char* kFieldSep = "\r\n";

// "SEARCH * " carries the requester's ID at a fixed place, not after a key.
inline constexpr size_t kSearchClientIdAt = 28;

// The local control service of the camera (reboot notice, LED, USB status).
inline constexpr int kLocalControlPort = 1259;

// A "SEARCH * " request whose bytes 28..59 hold the client ID.
std::string search_request(std::string_view client_id);

// The fields of a reply after its keyword: "\r\n"-separated "Key:value" or
// "KEY=value" texts, split at the first ':' or '=' of each, in order.
std::vector<std::pair<std::string, std::string>> reply_fields(std::string_view text);

// "a.b.c.d" as a host-order number (192.168.77.2 is 0xC0A84D02); nothing
// unless four decimal numbers of at most three digits, each up to 255.
// With refuse_leading_zero, "077" is refused too: inet_aton reads it as octal.
std::optional<uint32_t> parse_ipv4(std::string_view text, bool refuse_leading_zero = false);

}  // namespace wire
