// Replies and reports as a tool reads them: the search reply, the upgrade
// acknowledgement, the post-upgrade report and the addressed commands'
// answers. Each parser returns nothing for a datagram of another kind.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace wire {

// "REPLY OK " (fields absent from the reply stay empty).
struct camera_record {
  std::string device_id, client_id, ip, netmask, gateway, mac, fdns, version, model, serial;
  std::string challenge;  // "CHALLENGE=": a keyed camera's (commands to it are signed over it)
  bool dhcp = false;
  uint64_t uptime = 0;
};
std::optional<camera_record> parse_search_reply(std::string_view text);

// "REPLYU DO": the client ID is the upgrade's session (the asking
// command's client ID for '9').
struct upgrade_ack {
  std::string client_id, device_id;
  char code = 0;
  std::string reason;  // "Reason:" after a '6' from a keyed camera ("signature")
  // A '0' that took the NORM offer: the camera's NORM node ID.
  std::optional<uint32_t> norm_node;
};
std::optional<upgrade_ack> parse_upgrade_ack(std::string_view text);

// "STATUS * " with "Status=1": a camera back from an upgrade. A tool's
// confirmation ("Status=2") is not a report.
struct status_report {
  std::string device_id, mac, version, model;
};
std::optional<status_report> parse_status_report(std::string_view text);

// A reply keyword followed by "Client ID:" and "Device ID:" (SUCCEED *,
// PRODUCTIO, REPLYQ OK, BOARD_TEST); the other fields in their order.
struct id_reply {
  std::string client_id, device_id;
  std::vector<std::pair<std::string, std::string>> fields;
};
std::optional<id_reply> parse_id_reply(std::string_view keyword, std::string_view text);

// "BOARD_TEST": the firmware version stands alone on the line after MAC;
// each check is 1 (passed) or 0 (failed); a check the camera could not
// decide or was not asked for is absent.
struct board_test_result {
  std::string client_id, device_id, ip, mac, version;
  std::vector<std::pair<std::string, int>> checks;  // USB, ARM, HDMI, SDI
  bool finished = false;                            // "STATUS=Test finish"
};
std::optional<board_test_result> parse_board_test(std::string_view text);

// One line of the query's "MtdInfo:" text: mtd0: 00100000 00010000 "boot".
struct partition {
  std::string dev, name;
  uint64_t size = 0, erasesize = 0;
};
std::vector<partition> parse_mtd_info(std::string_view text);

}  // namespace wire
