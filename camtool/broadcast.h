// Broadcast commissioning from the tool's side: "Discovery camera" to the
// broadcast address (or one address) on UDP 12811, the network settings of
// one camera, and the production-mode actions. Cameras answer straight to
// the tool's address.
#pragma once

#include <functional>
#include <map>
#include <string>

#include "camtool/commands.h"
#include "wire/broadcast.h"

namespace camtool {

inline constexpr const char* kBroadcastAll = "255.255.255.255";

struct discovered {
  wire::broadcast::net_params p;
  std::string from;  // the reply's source address
};
using discovery_map = std::map<std::string, discovered>;  // by device ID

// "Discovery camera" to `dest`, resent while waiting, for `wait` seconds or
// until `enough` says so.
discovery_map discover(transport& net, const std::string& dest, double wait,
                       const std::function<bool(const discovery_map&)>& enough = {});

// A production-mode action as the technician names it, and what it sends.
struct production_action {
  const char* name;  // "test-enable"
  const char* word;  // "action=test enable"
  enum { none, on_off, model } takes;
};
// Throws tool_error for an unknown action or a missing or malformed value.
// Returns the action and its extra field ("enable=on", "model=...", or "").
std::pair<production_action, std::string> production_of(const std::string& name,
                                                         const std::string& value);
std::string production_names();  // "test-enable, central-cross, ..."

int cmd_broadcast_discover(command_context& ctx, const std::string& dest, double wait);
int cmd_broadcast_netconfig(command_context& ctx, const std::string& who, const confignet_flags& f);
int cmd_broadcast_production(command_context& ctx, const std::string& who, const std::string& action,
                             const std::string& value);

}  // namespace camtool
