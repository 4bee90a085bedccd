#include "camtool/broadcast.h"

#include <nlohmann/json.hpp>

#include "camtool/finder.h"
#include "camtool/output.h"

namespace camtool {

namespace wb = wire::broadcast;
using nlohmann::json;

namespace {

constexpr size_t kModelMax = 64;

const production_action kActions[] = {
    {"test-enable", wb::kActionTestEnable, production_action::on_off},
    {"central-cross", wb::kActionCentralCross, production_action::on_off},
    {"update-model", wb::kActionUpdateModel, production_action::model},
    {"lens-calibration", wb::kPlainActions[0], production_action::none},
    {"zoom-test", wb::kPlainActions[1], production_action::none},
    {"focus-test", wb::kPlainActions[2], production_action::none},
    {"ptz-test", wb::kPlainActions[3], production_action::none},
    {"complete-test", wb::kPlainActions[4], production_action::none},
    {"update-number", wb::kPlainActions[5], production_action::none},
    {"restore-factory", wb::kPlainActions[6], production_action::none},
};

std::string camera_name(const discovered& c) { return c.p.device_id + " (" + c.from + ")"; }

struct target {
  discovered camera;
  std::string dest;  // where its commands go: the broadcast address or its own
};

// A device ID is looked for by broadcast (the camera may sit in another
// subnet); an address is asked directly.
target resolve(command_context& ctx, const std::string& who) {
  check_camera_argument(who);
  const bool by_id = wire::is_device_id(who);
  const std::string dest = by_id ? kBroadcastAll : who;
  auto match = [&](const discovered& c) { return by_id ? c.p.device_id == who : c.from == who; };
  discovery_map found = discover(ctx.lan(), dest, ctx.search_wait, [&](const discovery_map& m) {
    for (const auto& [id, c] : m)
      if (match(c)) return true;
    return false;
  });
  for (const auto& [id, c] : found)
    if (match(c)) return {c, dest};
  throw tool_error("no camera " + who + " answered a discovery within " +
                       seconds_text(ctx.search_wait) +
                       " (the camera answers only with broadcast=1 in /customer/upgrade.conf)",
                   kExitFailed);
}

void send(command_context& ctx, const target& t, const std::string& text) {
  ctx.lan().send_to(channel::direct, t.dest, wb::kPort, text);
}

bool printable(const std::string& s) {
  for (char ch : s)
    if (ch < ' ' || ch > '~') return false;
  return true;
}

}  // namespace

discovery_map discover(transport& net, const std::string& dest, double wait,
                       const std::function<bool(const discovery_map&)>& enough) {
  discovery_map found;
  const std::string request = wb::discovery_request();
  time_point end = after(net.now(), wait);
  while (!interrupted()) {
    net.send_to(channel::direct, dest, wb::kPort, request);
    time_point resend = std::min(end, after(net.now(), kResendInterval));
    while (auto d = net.receive(resend)) {
      if (d->ch != channel::direct) continue;
      if (auto p = wb::parse_discovery_reply(d->data)) found[p->device_id] = {*p, d->src};
      if (enough && enough(found)) return found;
    }
    if (net.now() >= end) break;
  }
  return found;
}

std::string production_names() {
  std::string out;
  for (const auto& a : kActions) out += std::string(out.empty() ? "" : ", ") + a.name;
  return out;
}

std::pair<production_action, std::string> production_of(const std::string& name,
                                                         const std::string& value) {
  for (const auto& a : kActions) {
    if (name != a.name) continue;
    switch (a.takes) {
      case production_action::on_off:
        if (value != "on" && value != "off")
          throw tool_error(name + " takes on or off" + (value.empty() ? "" : ", not '" + value + "'"));
        return {a, value == "on" ? wb::kEnableOn : wb::kEnableOff};
      case production_action::model:
        if (value.empty() || value.size() > kModelMax || !printable(value))
          throw tool_error(name + " takes the model name: 1 to " + std::to_string(kModelMax) +
                           " printable characters");
        return {a, wb::kModelKey + value};
      case production_action::none:
        if (!value.empty()) throw tool_error(name + " takes no value");
        return {a, ""};
    }
  }
  throw tool_error("no production action '" + name + "' (actions: " + production_names() + ")");
}

int cmd_broadcast_discover(command_context& ctx, const std::string& dest, double wait) {
  if (dest != kBroadcastAll && !wire::is_ipv4(dest))
    throw tool_error("--to '" + dest + "' is not an IPv4 address");
  discovery_map found = discover(ctx.lan(), dest, wait);
  std::vector<std::vector<std::string>> rows;
  for (const auto& [id, c] : found) {
    const wb::net_params& p = c.p;
    if (ctx.json)
      ctx.out << json{{"device_id", id},        {"from", c.from},       {"ip", p.ipaddr},
                      {"mac", p.macaddr},       {"dhcp", p.dhcp == 1},  {"netmask", p.netmask},
                      {"gateway", p.gateway},   {"dns", p.fdns}}
                     .dump()
              << "\n";
    rows.push_back({id, p.ipaddr, p.macaddr, p.dhcp == 1 ? "on" : "off", p.netmask, p.gateway, p.fdns});
  }
  if (!ctx.json) {
    print_table(ctx.out, {"DEVICE ID", "IP", "MAC", "DHCP", "NETMASK", "GATEWAY", "DNS"}, rows);
    ctx.out << found.size() << (found.size() == 1 ? " camera\n" : " cameras\n");
  }
  return 0;
}

int cmd_broadcast_netconfig(command_context& ctx, const std::string& who, const confignet_flags& f) {
  check_confignet(f);
  target t = resolve(ctx, who);
  const wb::net_params& now = t.camera.p;
  wire::net_settings s = merge_settings(
      {now.dhcp == 1, now.ipaddr, now.netmask, now.gateway, now.fdns, now.macaddr}, f);
  const std::string id = now.device_id;
  if (!ctx.json) ctx.err << camera_name(t.camera) << ": " << settings_text(s) << "\n";
  const std::string request =
      wb::netconfig_request({id, s.dhcp ? 1 : 0, s.ipaddr, s.netmask, s.gateway, s.fdns, s.macaddr});
  const std::string done = wb::netconfig_reply(id);
  auto got = exchange(ctx.lan(), [&] { send(ctx, t, request); }, ctx.timeout, 0,
                      [&](const datagram& d) { return d.ch == channel::direct && d.data == done; });
  if (!got)
    throw tool_error("no confirmation from " + camera_name(t.camera) + " within " +
                         seconds_text(ctx.timeout),
                     kExitFailed);
  if (ctx.json)
    ctx.out << json{{"device_id", id}, {"ip", t.camera.from}, {"accepted", true},
                    {"settings", settings_json(s)}}
                   .dump()
            << "\n";
  else
    ctx.out << camera_name(t.camera)
            << ": stored in /data/net.conf; the camera applies it when its network next starts"
               " (no reboot)\n";
  return 0;
}

int cmd_broadcast_production(command_context& ctx, const std::string& who, const std::string& action,
                             const std::string& value) {
  auto [a, extra] = production_of(action, value);
  target t = resolve(ctx, who);
  const std::string id = t.camera.p.device_id;
  send(ctx, t, wb::production_request(id, a.word, extra));
  // Production-mode commands are never answered. The camera reads its
  // datagrams in order: its answer to a discovery sent now shows that it
  // has read the command.
  discovery_map later = discover(ctx.lan(), t.dest, ctx.timeout,
                                 [&](const discovery_map& m) { return m.count(id) > 0; });
  const bool heard = later.count(id) > 0;
  if (ctx.json) {
    ctx.out << json{{"device_id", id},   {"ip", t.camera.from}, {"action", a.word},
                    {"extra", extra},    {"answered_after", heard}}
                   .dump()
            << "\n";
  } else {
    ctx.out << camera_name(t.camera) << ": '" << a.word << (extra.empty() ? "" : "' '" + extra)
            << "' sent; production-mode commands have no answer"
            << (heard ? " (the camera answered a discovery sent after it)\n" : "\n");
  }
  if (!heard)
    throw tool_error("no discovery answer from " + camera_name(t.camera) + " within " +
                         seconds_text(ctx.timeout) + " after the command",
                     kExitFailed);
  return 0;
}

}  // namespace camtool
