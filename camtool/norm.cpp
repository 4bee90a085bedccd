// The NORM session's group as the technician gives it (--norm-group).
#include <algorithm>

#include "camtool/common.h"
#include "camtool/norm.h"
#include "wire/text.h"

namespace camtool {

namespace {

// The offer's own reader: what it accepts is what the cameras accept.
std::optional<wire::norm_offer> read_group(const std::string& text) {
  return wire::read_transfer_offer(std::string(wire::kTransferKey) + wire::kTransferNorm + " " + text);
}

}  // namespace

wire::norm_offer parse_norm_group(const std::string& text) {
  const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
    return (c >= '0' && c <= '9') || c == '.' || c == ':';
  });
  auto offer = plain ? read_group(text) : std::nullopt;
  if (!offer)
    throw tool_error("--norm-group " + text + " is not an IPv4 multicast group and port (ADDR:PORT)");
  for (const wire::group_port& g : {wire::kSearchEndpoint, wire::kBatchEndpoint, wire::kStatusEndpoint}) {
    if (read_group(std::string(g.group) + ":" + std::to_string(g.port))->group == offer->group)
      throw tool_error("--norm-group " + text + " is a group of the cameras' text protocol");
  }
  return *offer;
}

}  // namespace camtool
