// The commands for one camera named by its device ID or address:
// confignet, reboot, flicker, board-test, query, production, lumconfig.
// Each checks its input before anything is sent, waits for the camera's
// reply with a timeout and says plainly when none came.
#pragma once

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "camtool/net.h"
#include "wire/commands.h"
#include "wire/replies.h"

namespace camtool {

struct command_context {
  lazy_lan& lan;
  std::string client_id;
  std::ostream& out;
  std::ostream& err;
  bool json = false;
  double timeout = 3.0;      // for the reply: how long a camera that answers nothing is waited for
  double search_wait = 3.0;  // for finding the camera
  double back_wait = 60.0;   // for a camera that went silent without confirming a settings command
  // Signs a changing command for a keyed camera (its search reply carried a
  // challenge); unset: commands go out as they are.
  std::function<std::string(const wire::camera_record&, const std::string&)> sign;
  std::string signed_request(const wire::camera_record& c, const std::string& request) const {
    return sign ? sign(c, request) : request;
  }
};

struct confignet_flags {
  std::optional<std::string> dhcp, ip, mask, gateway, dns, mac;
};
// Throws tool_error for a malformed value or when nothing is to be set.
void check_confignet(const confignet_flags& f);
// The settings to send: the flags over the camera's current ones.
wire::net_settings merge_settings(const wire::net_settings& now, const confignet_flags& f);
wire::net_settings settings_of(const wire::camera_record& c);
nlohmann::json settings_json(const wire::net_settings& s);
// "dhcp=0 ipaddr=... macaddr=...", shown before a settings command is sent.
std::string settings_text(const wire::net_settings& s);
// The settings a camera shows that differ from those sent, as "key=shown"
// texts ("" when it shows them all; address settings not with DHCP).
std::string settings_differ(const wire::net_settings& sent, const wire::net_settings& now);

// A camera that took a reboot command answers nothing after it this long.
inline constexpr double kRebootSilence = 2.0;

int cmd_confignet(command_context& ctx, const std::string& who, const confignet_flags& f);
int cmd_reboot(command_context& ctx, const std::string& who, bool wait);
int cmd_flicker(command_context& ctx, const std::string& who, const std::string& state);
int cmd_board_test(command_context& ctx, const std::string& who, wire::board_test_options o);
int cmd_query(command_context& ctx, const std::vector<std::string>& who);
int cmd_production(command_context& ctx, const std::string& who);
int cmd_lumconfig(command_context& ctx, const std::string& who, const std::optional<std::string>& serial,
                  const std::optional<std::string>& mac);

// A batch command names its cameras in one list, and a camera reads at most
// a batch datagram: `build` makes the command for some of `ids`; as many as
// fit go into each datagram.
std::vector<std::string> split_batch(
    const std::vector<std::string>& ids,
    const std::function<std::string(const std::vector<std::string>&)>& build);

// The firmware query, asked of many cameras in batch commands and again of
// those that have not answered; by device ID.
struct query_answer {
  std::string version;
  std::vector<wire::partition> partitions;
};
std::map<std::string, query_answer> query_cameras(transport& net, const std::string& client_id,
                                                  const std::vector<std::string>& ids, double timeout);

// Waits for the first datagram `match` accepts, calling `send` first and
// again every `resend` seconds (0: once).
std::optional<datagram> exchange(transport& net, const std::function<void()>& send, double timeout,
                                 double resend, const std::function<bool(const datagram&)>& match);
// The same with `request` sent to the channel's group.
std::optional<datagram> exchange(transport& net, channel ch, const std::string& request,
                                 double timeout, double resend,
                                 const std::function<bool(const datagram&)>& match);

}  // namespace camtool
