// The multicast upgrade on the batch group as both ends see it: the
// announcement's fields, the transfer packets, the acknowledgement codes,
// the modes and the post-upgrade status exchange.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "wire/text.h"

namespace wire {

// Announcement: "CAMERA_UP" with "Device ID:" (batch form: a four-digit
// count, then that many IDs back to back), "Client ID:" and these fields.
inline constexpr const char* kSessionKey = "SESSION:";        // kIdLen characters
inline constexpr const char* kFileNameKey = "File name:";     // up to 128, '*' ends
inline constexpr const char* kFileMd5Key = "File md5:";       // 32 lower-case hex digits
inline constexpr const char* kFileSizeKey = "File size:";     // up to 9 digits, '*' ends
inline constexpr const char* kUpgradeModeKey = "Upgrade Mode:";  // one digit
inline constexpr size_t kFileNameMax = 128;
inline constexpr size_t kMd5Len = 32;
inline constexpr size_t kFileSizeDigits = 9;
inline constexpr char kFieldEnd = '*';
inline constexpr size_t kBatchCountDigits = 4;

// Transfer packet: "CAMERA_UP", the kind, the session ID, then the data.
inline constexpr size_t kPacketKindAt = kKeywordLen;           // 9
inline constexpr size_t kPacketSessionAt = kPacketKindAt + 1;  // 10
inline constexpr size_t kPacketDataAt = kPacketSessionAt + kIdLen;  // 42
inline constexpr size_t kPacketDataMax = kBatchDatagram - kPacketDataAt;  // 5078
inline constexpr char kPacketFirst = 'b';
inline constexpr char kPacketMiddle = 't';
inline constexpr char kPacketLast = 'o';

// The character after "\r\nAck:" in a "REPLYU DO" reply.
inline constexpr const char* kAckKey = "Ack:";
enum ack_code : char {
  ACK_READY = '0',         // announcement accepted, send the file
  ACK_NO_SPACE = '1',      // not enough room in /dev
  ACK_WRITE_FAILED = '2',  // the file could not be stored (or mode 3's image not found)
  ACK_MD5_OK = '5',
  ACK_MD5_BAD = '6',       // also a refused file name; the camera reboots (unless DEBUG)
  ACK_INSTALLED = '7',     // installation done; the camera reboots
  ACK_ARM_FAILED = '8',    // controller programming failed; the camera reboots
  ACK_BUSY = '9',          // another upgrade is in progress
};

// A keyed camera's '6' for a file whose signature it refused carries
// "\r\nReason:signature" after the code (a camera without keys never sends it).
inline constexpr const char* kReasonKey = "Reason:";
inline constexpr const char* kReasonSignature = "signature";

// The opt-in transfer. A tool that can send the file over NORM (RFC 5740)
// adds "\r\nTransfer:NORM <group>:<port>" to its announcement; a camera that
// receives that way answers its '0' with "\r\nTransfer:NORM <node id>" and
// takes the file from that group and port instead of the packets above. A
// tool that does not ask, or a camera that does not answer so, uses the
// packets. The NORM object carries the session ID as its info.
inline constexpr const char* kTransferKey = "Transfer:";
inline constexpr const char* kTransferNorm = "NORM";
struct norm_offer {
  uint32_t group = 0;  // IPv4 multicast group, host order
  uint16_t port = 0;
};
// "\r\nTransfer:NORM 239.255.255.253:8010".
std::string transfer_offer_field(const norm_offer& o);
// The offer in an announcement's text (up to its first NUL): nothing unless
// the first "Transfer:" is followed by "NORM", a space, a dotted IPv4
// multicast group, ':' and a port from 1 to 65535, then the end of the text,
// '\r' or '*'.
std::optional<norm_offer> read_transfer_offer(std::string_view msg);
// "\r\nTransfer:NORM <node id>", appended to the '0'.
std::string transfer_answer_field(uint32_t node_id);
// The node ID in a '0' that accepted the offer (1 to 0xfffffffe); nothing otherwise.
std::optional<uint32_t> read_transfer_answer(std::string_view reply);

// Upgrade modes; 5 and above write partition (mode - 5).
enum upgrade_mode : int {
  MODE_SYSTEM = 1,    // zip package unpacked over /
  MODE_ARM = 2,       // motor-controller image
  MODE_APP_ARM = 3,   // package with u-boot, uImage and controller image
  MODE_ALL_MTD = 4,   // whole-flash image
  MODE_PARTITION = 5, // first single-partition mode (partition 0)
};

struct announcement {
  std::vector<std::string> device_ids;  // each kIdLen characters
  std::string client_id;                // kIdLen characters
  std::string session;                  // kIdLen characters
  std::string file_name;
  std::string md5;
  uint64_t file_size = 0;
  int mode = 0;
};
std::string build_announcement(const announcement& a);

// The announcement's fields as a camera reads them: each from the first
// occurrence of its key in `msg` (the datagram's text up to its first NUL),
// never past its end. A missing key leaves its field empty (0 for the size).
struct announced_fields {
  std::string session;    // the kIdLen characters after kSessionKey
  std::string file_name;  // up to kFileNameMax characters, kFieldEnd ends it
  std::string md5;        // the kMd5Len characters after kFileMd5Key
  int file_size = 0;      // up to kFileSizeDigits characters up to kFieldEnd, as atoi reads them
  // The one character after kUpgradeModeKey as atoi reads it; nothing when
  // the key is missing (the camera then keeps the previous mode).
  std::optional<int> mode;
};
announced_fields read_announcement(std::string_view msg);

// One transfer packet of `kind` carrying [data, data+len) (len <= kPacketDataMax).
std::string build_packet(char kind, std::string_view session, const void* data, size_t len);

struct packet_view {
  char kind;
  std::string_view session;  // kIdLen bytes
  const char* data;
  size_t len;
};
// The header of a "CAMERA_UP" datagram without "Device ID:"; nothing when
// the datagram is shorter than the header.
std::optional<packet_view> parse_packet(const char* buf, size_t len);

// Post-upgrade report ("STATUS * " ... "\r\nStatus=1") and the tool's
// confirmation that ends it.
inline constexpr const char* kStatusReported = "Status=1";
inline constexpr const char* kStatusConfirmed = "Status=2";
std::string status_confirmation(std::string_view device_id, std::string_view client_id);

}  // namespace wire
