// One camera as an upgrade follows it: what it answered in each round, how
// the file reached it, whether it rebooted and came back; its outcome in
// words, and the table (or JSON) that reports every camera at the end.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "camtool/common.h"
#include "wire/upgrade.h"

namespace camtool {

inline constexpr const char* kTransferNormWord = "norm";
inline constexpr const char* kTransferStreamWord = "stream";

struct camera_state {
  std::string id, ip, model, version_before, version_after;
  bool found = false;  // answered the search before the upgrade
  std::string refused;  // why the file is not for this camera
  std::vector<std::string> acks;       // per round
  std::vector<std::string> transfers;  // per round: "norm", "stream" or "" (the file never went)
  uint64_t wire_bytes = 0;  // of the transfers that carried the file to it, every round
  std::optional<bool> norm_acked;  // its last NORM session: did it acknowledge the whole file
  bool stream_only = false;  // its NORM transfer failed once: offered NORM no more
  // This round.
  char ready = 0, verdict = 0, result = 0;
  std::optional<uint32_t> norm_node;  // its '0' took the NORM offer
  std::string transfer_failed;        // the NORM session meant for it did not start
  std::string norm_gave_up;           // it answered '2' with this reason instead of its verdict
  time_point verdict_at{}, ended{}, last_answer{}, back_at{};
  bool in_round = false, expect_reboot = false, went_down = false;
  bool rebooted = false, back = false, settled = false;
  uint64_t uptime = 0;  // as last heard, and when
  time_point uptime_at{};
  bool reported = false, confirmed = false;
  bool signature_refused = false;  // a keyed camera's '6': another round would not help

  void new_round() {
    acks.emplace_back();
    transfers.emplace_back();
    ready = verdict = result = 0;
    norm_node.reset();
    transfer_failed.clear();
    norm_gave_up.clear();
    in_round = true;
    expect_reboot = went_down = rebooted = back = settled = reported = confirmed = false;
  }
  bool ok() const { return result == wire::ACK_INSTALLED && back; }
  // The camera gave up its NORM transfer and reboots (another round may
  // send it the stream).
  bool norm_failed() const { return !norm_gave_up.empty(); }
  std::string outcome() const;
};

// The table, then "N of M camera(s) upgraded"; or one JSON object per camera.
void print_upgrade_report(std::ostream& out, const std::vector<camera_state>& cams, bool as_json,
                          uint64_t file_size);

}  // namespace camtool
