// The addressed text commands as a tool sends them, and the checks a tool
// makes on what goes into them before anything is sent.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wire {

// "KEYWORD\r\nDevice ID:<id>\r\nClient ID:<client>" followed by `rest`;
// `code` indexes kKeywords.
std::string addressed_request(int code, std::string_view device_id, std::string_view client_id,
                              std::string_view rest = {});

// The settings a CONFIGNET writes whole into the camera's net.conf.
struct net_settings {
  bool dhcp = false;
  std::string ipaddr, netmask, gateway, fdns, macaddr;
};
// The camera stores what stands 43 characters after "Cli" (the key, the ID
// and one separator), so the settings follow the client ID after a single
// '\n', as '\n'-terminated key=value lines.
std::string confignet_request(std::string_view device_id, std::string_view client_id,
                              const net_settings& s);

// LED flicker: "status=open" or "status=close".
std::string flicker_request(std::string_view device_id, std::string_view client_id, bool on);

struct board_test_options {
  std::string type;  // "K1", "K2/K3", "K4", "K5", "RQ500", "RQ500S", "RQ500T", "R300I"
  bool usb = false, hdmi = false, sdi = false;
};
inline constexpr const char* kBoardTypes[] = {"K1",     "K2/K3",  "K4",     "K5",
                                              "RQ500",  "RQ500S", "RQ500T", "R300I"};
bool is_board_type(std::string_view type);
std::string board_test_request(std::string_view device_id, std::string_view client_id,
                               const board_test_options& o);

// Batch form: a four-digit count, then the IDs back to back.
std::string batch_ids(const std::vector<std::string>& device_ids);
std::string query_request(const std::vector<std::string>& device_ids, std::string_view client_id);

// Serial number and MAC address: the camera takes the serial from 53
// characters after "Cli" up to one character before "Mac Address:", and the
// MAC from there to the end of the datagram.
inline constexpr size_t kSerialMax = 63;  // the serial record holds 64 bytes with its NUL
std::string lumconfig_request(std::string_view device_id, std::string_view client_id,
                              std::string_view serial, std::string_view mac);

// Four decimal numbers 0..255 split by dots, no leading zeros, nothing
// before or after.
bool is_ipv4(std::string_view text);
// An IPv4 address whose one bits are contiguous from the top (0.0.0.0 is not a mask).
bool is_netmask(std::string_view text);
// Six pairs of hexadecimal digits split by ':' or '-': the colon form in
// lower case; nothing for anything else, a multicast or an all-zero address.
std::optional<std::string> normal_mac(std::string_view text);
// 1..kSerialMax printable ASCII characters.
bool is_serial_text(std::string_view text);
// kIdLen lower-case hexadecimal characters, as cameras print their IDs.
bool is_device_id(std::string_view text);

}  // namespace wire
