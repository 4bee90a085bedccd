// The partner's binary protocol from the tool's side: a search on the
// partner's request group answered on both reply groups, the network query
// and setting of one camera, and its tracking sensitivity, asked by unicast
// on the relay's port.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "camtool/commands.h"
#include "wire/partner.h"

namespace camtool {

using partner_map = std::map<std::string, wire::partner::search_reply>;  // by device ID

// A camera handles one partner request at a time and pauses after each.
inline constexpr double kPartnerResend = 1.0;

// Searches for `wait` seconds, or until `enough` says so.
partner_map partner_search(transport& net, double wait,
                           const std::function<bool(const partner_map&)>& enough = {});
std::string mac_text(const std::array<uint8_t, 6>& mac);

// Settings of a partner network frame: the connection type decides DHCP;
// the frames carry no MAC (the camera keeps its own).
wire::net_settings partner_settings(const wire::partner::net_reply& r);
// Refuses a malformed value (as for confignet) and a tracking value off the
// tool's 0..15 scale.
void check_partner_set(const confignet_flags& f);
void check_sensitivity(int value);

int cmd_partner_search(command_context& ctx, double wait);
int cmd_partner_query(command_context& ctx, const std::string& who);
int cmd_partner_set(command_context& ctx, const std::string& who, const confignet_flags& f);
// Reads the sensitivity, or sets it to `value` and reads it back.
int cmd_partner_track(command_context& ctx, const std::string& who, std::optional<int> value);

}  // namespace camtool
