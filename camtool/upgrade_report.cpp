#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "camtool/output.h"
#include "camtool/upgrade_camera.h"

namespace camtool {

namespace {

using nlohmann::json;

// Per round, as the ACKS column shows them: "0 6 / 0 5 7".
std::string rounds_text(const std::vector<std::string>& per_round, bool spaced) {
  std::string out;
  for (const auto& r : per_round) {
    if (!out.empty()) out += " / ";
    std::string cell;
    if (spaced)
      for (char code : r) cell += std::string(cell.empty() ? "" : " ") + code;
    else
      cell = r;
    out += cell.empty() ? "-" : cell;
  }
  return out;
}

// The bytes its transfers put on the wire for each byte of the file.
double wire_ratio(const camera_state& c, uint64_t file_size) {
  return static_cast<double>(c.wire_bytes) / static_cast<double>(std::max<uint64_t>(1, file_size));
}

std::string wire_text(const camera_state& c, uint64_t file_size) {
  if (c.wire_bytes == 0) return "-";
  char buf[32];
  snprintf(buf, sizeof(buf), "%.2fx", wire_ratio(c, file_size));
  std::string out = buf;
  if (c.norm_acked) out += *c.norm_acked ? " acked" : " no ack";
  return out;
}

}  // namespace

std::string camera_state::outcome() const {
  if (!refused.empty()) return refused;
  if (ready == 0) return "no answer to the announcement";
  if (ready == wire::ACK_NO_SPACE) return "not enough space in /dev";
  if (ready == wire::ACK_BUSY) return "busy with another upgrade";
  if (verdict == 0 && !transfer_failed.empty()) return transfer_failed;
  if (verdict == 0) return "no md5 answer after the transfer";
  if (norm_failed()) return "NORM transfer failed (" + norm_gave_up + ")" + (back ? "" : ", not back");
  if (verdict == wire::ACK_WRITE_FAILED) return "could not store the file";
  if (verdict == wire::ACK_MD5_BAD && signature_refused)
    return "signature refused (the camera has site keys: --key or --signature)";
  if (verdict == wire::ACK_MD5_BAD) return back ? "md5 failed" : "md5 failed, not back";
  if (result == 0) return back ? "back after its reboot, its installation's answer not heard"
                                : "no answer from the installation";
  if (result == wire::ACK_ARM_FAILED) return "controller programming failed";
  if (result == wire::ACK_WRITE_FAILED) return "installation failed";
  return back ? "upgraded" : "installed, not back";
}

void print_upgrade_report(std::ostream& out, const std::vector<camera_state>& cams, bool as_json,
                          uint64_t file_size) {
  std::vector<std::vector<std::string>> rows;
  for (const auto& c : cams) {
    std::string version = c.version_before.empty() ? "?" : c.version_before;
    if (c.back) version += " -> " + (c.version_after.empty() ? "?" : c.version_after);
    if (as_json) {
      out << json{{"device_id", c.id},
                  {"ip", c.ip},
                  {"model", c.model},
                  {"rounds", c.acks.size()},
                  {"acks", c.acks},
                  {"transfer", c.transfers.empty() ? "" : c.transfers.back()},
                  {"transfers", c.transfers},
                  {"wire_bytes", c.wire_bytes},
                  {"wire_ratio", std::round(wire_ratio(c, file_size) * 1000) / 1000},
                  {"norm_acked", c.norm_acked ? json(*c.norm_acked) : json(nullptr)},
                  {"ready", std::string(c.ready ? 1 : 0, c.ready)},
                  {"md5_ok", c.verdict == wire::ACK_MD5_OK},
                  {"result", std::string(c.result ? 1 : 0, c.result)},
                  {"rebooted", c.rebooted},
                  {"back", c.back},
                  {"version_before", c.version_before},
                  {"version_after", c.version_after},
                  {"reported", c.reported},
                  {"confirmed", c.confirmed},
                  {"outcome", c.outcome()},
                  {"ok", c.ok()}}
                 .dump()
          << "\n";
    }
    rows.push_back({c.id, c.ip.empty() ? "?" : c.ip, rounds_text(c.acks, true),
                    rounds_text(c.transfers, false), wire_text(c, file_size), c.rebooted ? "yes" : "no",
                    c.back ? "yes" : "no", version, c.confirmed ? "confirmed" : c.reported ? "seen" : "-",
                    c.outcome()});
  }
  if (as_json) return;
  print_table(out,
              {"DEVICE ID", "IP", "ACKS", "TRANSFER", "WIRE", "REBOOT", "BACK", "VERSION", "REPORT",
               "RESULT"},
              rows);
  size_t ok = static_cast<size_t>(std::count_if(cams.begin(), cams.end(),
                                                [](const camera_state& c) { return c.ok(); }));
  out << ok << " of " << cams.size() << " camera(s) upgraded\n";
}

}  // namespace camtool
