#include "camtool/commands.h"

#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>

#include "camtool/delivery.h"
#include "camtool/finder.h"
#include "camtool/output.h"
#include "wire/replies.h"
#include "wire/text.h"

namespace camtool {

namespace {

using nlohmann::json;

std::string camera_name(const wire::camera_record& c) {
  return c.device_id + (c.ip.empty() ? "" : " (" + c.ip + ")");
}

// A reply to this tool's command from this camera.
std::function<bool(const datagram&)> reply_from(const char* keyword, const std::string& device_id,
                                                const std::string& client_id) {
  return [=](const datagram& d) {
    auto r = wire::parse_id_reply(keyword, d.data);
    return r && r->device_id == device_id && r->client_id == client_id;
  };
}

std::string field(const wire::id_reply& r, const std::string& key) {
  for (const auto& [k, v] : r.fields)
    if (k == key) return v;
  return "";
}

const char* kKeyedHint =
    " (a keyed camera takes only a command signed by one of its keys over its current challenge)";

// `outcome`: "take it" for a command that makes the camera go silent (it
// cannot have taken one it read and went on answering after), "answer it"
// for one whose answer may also have been lost on its way.
[[noreturn]] void not_taken(const wire::camera_record& c, const char* what, const delivery& d,
                            const char* outcome = "take it") {
  throw tool_error(camera_name(c) + " read the " + what + " " + std::to_string(d.copies) +
                       (d.copies == 1 ? " time" : " times") + " and did not " + outcome +
                       (c.challenge.empty() ? "" : kKeyedHint),
                   kExitFailed);
}

[[noreturn]] void silent(const wire::camera_record& c, const char* what, double silence) {
  throw tool_error("no " + std::string(what) + " from " + camera_name(c) + ": it has answered nothing for " +
                       seconds_text(silence) +
                       " since the request (busy with an earlier command, or down; --timeout waits longer)",
                   kExitFailed);
}

// Sends a command that makes the camera store settings and reboot, and
// waits for its "SUCCEED *". When that never comes and the camera goes
// silent (as one that took the command does: it waits, then reboots), it is
// followed until it answers again, and its search record says whether it
// restarted with the settings: `differs` names the settings it does not show.
int settings_command(command_context& ctx, const wire::camera_record& c, time_point known_at,
                     const std::string& request, json settings,
                     const std::function<std::string(const wire::camera_record&)>& differs) {
  transport& net = ctx.lan();
  auto is_reply = reply_from(wire::kKeywords[wire::KW_SUCCEED], c.device_id, ctx.client_id);
  delivery_options o;
  o.silence = ctx.timeout;
  delivery d = deliver(net, c.device_id, ctx.signed_request(c, request), is_reply, o);
  if (d.end == delivery_end::ignored) not_taken(c, "command", d);
  bool back = false;
  if (d.end == delivery_end::silent) {
    if (!ctx.json)
      ctx.err << camera_name(c) << ": no confirmation yet, and it has answered nothing since the command"
              << " (a camera that took it waits, then reboots): waiting up to " << seconds_text(ctx.back_wait)
              << " for it to come back\n";
    comeback cb = await_comeback(net, ctx.client_id, c, known_at, ctx.back_wait, is_reply);
    if (!cb.late_reply) {
      if (!cb.record)
        throw tool_error(camera_name(c) + " sent no confirmation, went silent after the command as a camera that "
                             "takes it does, and was not back within " + seconds_text(ctx.back_wait) +
                             ": 'camtool search' shows whether it took the settings",
                         kExitFailed);
      if (!cb.rebooted)
        throw tool_error(camera_name(c) + " answered again without rebooting and without a confirmation: it did "
                             "not take the command",
                         kExitFailed);
      std::string diff = differs(*cb.record);
      if (!diff.empty())
        throw tool_error(camera_name(c) + " rebooted, but came back without the settings sent (" + diff + ")",
                         kExitFailed);
      back = true;
    }
  }
  if (ctx.json) {
    json j{{"device_id", c.device_id}, {"ip", c.ip}, {"accepted", true}, {"settings", settings}};
    if (back) j["confirmed_by"] = "its return with the settings";
    ctx.out << j.dump() << "\n";
  } else if (back) {
    ctx.out << camera_name(c) << ": accepted; its confirmation was lost, but it came back after its reboot with"
            << " the settings\n";
  } else {
    ctx.out << camera_name(c) << ": accepted; the camera reboots to apply it (about 7 s)\n";
  }
  return 0;
}

}  // namespace

std::optional<datagram> exchange(transport& net, channel ch, const std::string& request,
                                 double timeout, double resend,
                                 const std::function<bool(const datagram&)>& match) {
  return exchange(net, [&] { net.send(ch, request); }, timeout, resend, match);
}

std::optional<datagram> exchange(transport& net, const std::function<void()>& send, double timeout,
                                 double resend, const std::function<bool(const datagram&)>& match) {
  time_point end = after(net.now(), timeout);
  while (!interrupted()) {
    send();
    time_point until = resend > 0 ? std::min(end, after(net.now(), resend)) : end;
    while (auto d = net.receive(until))
      if (match(*d)) return d;
    if (net.now() >= end) break;
  }
  return std::nullopt;
}

void check_confignet(const confignet_flags& f) {
  if (!f.dhcp && !f.ip && !f.mask && !f.gateway && !f.dns && !f.mac)
    throw tool_error("nothing to set: give at least one of --dhcp, --ip, --mask, --gateway, --dns, --mac");
  if (f.dhcp && *f.dhcp != "on" && *f.dhcp != "off")
    throw tool_error("--dhcp takes on or off, not '" + *f.dhcp + "'");
  for (const auto& [flag, value] : {std::pair{"--ip", f.ip}, {"--gateway", f.gateway}, {"--dns", f.dns}})
    if (value && !wire::is_ipv4(*value))
      throw tool_error(std::string(flag) + " '" + *value + "' is not an IPv4 address");
  if (f.mask && !wire::is_netmask(*f.mask))
    throw tool_error("--mask '" + *f.mask + "' is not a netmask (such as 255.255.255.0)");
  if (f.mac && !wire::normal_mac(*f.mac))
    throw tool_error("--mac '" + *f.mac + "' is not a unicast MAC address (such as 02:12:34:56:78:9a)");
}

wire::net_settings merge_settings(const wire::net_settings& now, const confignet_flags& f) {
  wire::net_settings s;
  s.dhcp = f.dhcp ? *f.dhcp == "on" : now.dhcp;
  s.ipaddr = f.ip.value_or(now.ipaddr);
  s.netmask = f.mask.value_or(now.netmask);
  s.gateway = f.gateway.value_or(now.gateway);
  s.fdns = f.dns.value_or(now.fdns);
  s.macaddr = f.mac ? *wire::normal_mac(*f.mac) : now.macaddr;
  return s;
}

wire::net_settings settings_of(const wire::camera_record& c) {
  return {c.dhcp, c.ip, c.netmask, c.gateway, c.fdns, c.mac};
}

json settings_json(const wire::net_settings& s) {
  return {{"dhcp", s.dhcp},       {"ipaddr", s.ipaddr}, {"netmask", s.netmask},
          {"gateway", s.gateway}, {"fdns", s.fdns},     {"macaddr", s.macaddr}};
}

std::string settings_text(const wire::net_settings& s) {
  return std::string("dhcp=") + (s.dhcp ? "1" : "0") + " ipaddr=" + s.ipaddr + " netmask=" +
         s.netmask + " gateway=" + s.gateway + " fdns=" + s.fdns + " macaddr=" + s.macaddr;
}

std::string settings_differ(const wire::net_settings& sent, const wire::net_settings& now) {
  std::vector<std::string> diff;
  auto check = [&](const char* key, const std::string& want, const std::string& got) {
    if (want != got) diff.push_back(std::string(key) + "=" + got);
  };
  check("dhcp", sent.dhcp ? "1" : "0", now.dhcp ? "1" : "0");
  if (!sent.dhcp) {  // with DHCP the server chooses these
    check("ipaddr", sent.ipaddr, now.ipaddr);
    check("netmask", sent.netmask, now.netmask);
    check("gateway", sent.gateway, now.gateway);
    check("fdns", sent.fdns, now.fdns);
  }
  check("macaddr", sent.macaddr, now.macaddr);
  std::string out;
  for (const auto& d : diff) out += (out.empty() ? "" : " ") + d;
  return out;
}

int cmd_confignet(command_context& ctx, const std::string& who, const confignet_flags& f) {
  check_confignet(f);
  check_camera_argument(who);
  wire::camera_record c = resolve(ctx.lan(), ctx.client_id, who, ctx.search_wait);
  time_point known_at = ctx.lan().now();
  wire::net_settings s = merge_settings(settings_of(c), f);
  if (!ctx.json) ctx.err << camera_name(c) << ": " << settings_text(s) << "\n";
  return settings_command(ctx, c, known_at, wire::confignet_request(c.device_id, ctx.client_id, s),
                          settings_json(s), [s](const wire::camera_record& now) {
                            return settings_differ(s, settings_of(now));
                          });
}

int cmd_lumconfig(command_context& ctx, const std::string& who, const std::optional<std::string>& serial,
                  const std::optional<std::string>& mac) {
  if (!serial && !mac) throw tool_error("nothing to set: give --serial, --mac or both");
  if (serial && (!wire::is_serial_text(*serial) || serial->find("Mac Address:") != std::string::npos))
    throw tool_error("--serial takes 1 to " + std::to_string(wire::kSerialMax) +
                     " printable characters");
  if (mac && !wire::normal_mac(*mac))
    throw tool_error("--mac '" + *mac + "' is not a unicast MAC address (such as 02:12:34:56:78:9a)");
  check_camera_argument(who);
  wire::camera_record c = resolve(ctx.lan(), ctx.client_id, who, ctx.search_wait);
  time_point known_at = ctx.lan().now();
  // Both travel in every command: keep the camera's own for the one not given.
  std::string s = serial.value_or(c.serial);
  std::string m = mac ? *wire::normal_mac(*mac) : c.mac;
  return settings_command(ctx, c, known_at, wire::lumconfig_request(c.device_id, ctx.client_id, s, m),
                          json{{"serial", s}, {"mac", m}}, [s, m](const wire::camera_record& now) {
                            std::string diff;
                            if (now.serial != s) diff = "serial " + now.serial;
                            if (now.mac != m) diff += (diff.empty() ? "" : ", ") + std::string("MAC ") + now.mac;
                            return diff;
                          });
}

int cmd_reboot(command_context& ctx, const std::string& who, bool wait) {
  check_camera_argument(who);
  transport& net = ctx.lan();
  wire::camera_record c = resolve(net, ctx.client_id, who, ctx.search_wait);
  const std::string request = ctx.signed_request(
      c, wire::addressed_request(wire::KW_CAMERA_RE, c.device_id, ctx.client_id));
  if (!wait) {
    net.send(channel::batch, request);
    ctx.out << camera_name(c) << ": reboot sent (the camera does not answer this command)\n";
    return 0;
  }
  // The camera does not answer it: once it has read the command it answers
  // nothing more on this group (it waits 5 s, then reboots); a camera that
  // still answers the query behind it did not get it or did not take it.
  delivery_options o;
  o.answered = false;
  o.silence = kRebootSilence;
  delivery d = deliver(net, c.device_id, request, {}, o);
  if (d.end != delivery_end::silent) not_taken(c, "reboot command", d);
  ctx.out << camera_name(c) << ": rebooting (it has answered nothing since the command)\n";
  return 0;
}

int cmd_flicker(command_context& ctx, const std::string& who, const std::string& state) {
  if (state != "on" && state != "off") throw tool_error("flicker takes on or off, not '" + state + "'");
  check_camera_argument(who);
  wire::camera_record c = resolve(ctx.lan(), ctx.client_id, who, ctx.search_wait);
  ctx.lan().send(channel::batch,
                 ctx.signed_request(c, wire::flicker_request(c.device_id, ctx.client_id, state == "on")));
  ctx.out << camera_name(c) << ": LED flicker " << state
          << " sent (the camera does not answer this command)\n";
  return 0;
}

int cmd_board_test(command_context& ctx, const std::string& who, wire::board_test_options o) {
  if (!o.type.empty() && !wire::is_board_type(o.type))
    throw tool_error("--type '" + o.type + "' is not a board type");
  check_camera_argument(who);
  wire::camera_record c = resolve(ctx.lan(), ctx.client_id, who, ctx.search_wait);
  if (o.type.empty()) {
    o.type = c.model.substr(0, c.model.find('.'));
    if (!wire::is_board_type(o.type))
      throw tool_error("the camera's model '" + c.model + "' names no board type: give --type");
  }
  ctx.err << camera_name(c) << ": board test, type " << o.type
          << " (it stops the camera's main application: reboot the camera afterwards)\n";
  delivery_options opts;
  opts.silence = ctx.timeout;
  opts.copies = 2;  // a second run only when the first was lost or its result was
  delivery d = deliver(ctx.lan(), c.device_id,
                       ctx.signed_request(c, wire::board_test_request(c.device_id, ctx.client_id, o)),
                       [&](const datagram& g) {
                         auto r = wire::parse_board_test(g.data);
                         return r && r->device_id == c.device_id && r->client_id == ctx.client_id;
                       },
                       opts);
  if (d.end == delivery_end::ignored) not_taken(c, "board test command", d, "answer it");
  if (d.end == delivery_end::silent) silent(c, "board test result", ctx.timeout);
  wire::board_test_result r = *wire::parse_board_test(d.reply->data);
  bool passed = r.finished;
  json checks = json::object();
  std::vector<std::vector<std::string>> rows;
  for (const auto& [name, ok] : r.checks) {
    checks[name] = ok == 1;
    passed = passed && ok == 1;
    rows.push_back({name, ok == 1 ? "pass" : "FAIL"});
  }
  if (ctx.json) {
    ctx.out << json{{"device_id", r.device_id}, {"ip", r.ip},          {"mac", r.mac},
                    {"version", r.version},     {"type", o.type},      {"checks", checks},
                    {"finished", r.finished},   {"passed", passed}}
                   .dump()
            << "\n";
  } else {
    ctx.out << camera_name(c) << "  type " << o.type << "  firmware " << r.version << "  MAC "
            << r.mac << "\n";
    print_table(ctx.out, {"CHECK", "RESULT"}, rows);
    ctx.out << (r.finished ? "test finished" : "test did not report its end")
            << (passed ? ", passed\n" : ", FAILED\n");
  }
  return passed ? 0 : kExitFailed;
}

std::vector<std::string> split_batch(
    const std::vector<std::string>& ids,
    const std::function<std::string(const std::vector<std::string>&)>& build) {
  const size_t room = wire::kBatchDatagram - std::min(wire::kBatchDatagram, build({}).size());
  const size_t per = std::max<size_t>(1, room / wire::kIdLen);
  std::vector<std::string> out;
  for (size_t i = 0; i < ids.size(); i += per)
    out.push_back(build({ids.begin() + static_cast<long>(i),
                         ids.begin() + static_cast<long>(std::min(ids.size(), i + per))}));
  return out;
}

std::map<std::string, query_answer> query_cameras(transport& net, const std::string& client_id,
                                                  const std::vector<std::string>& ids, double timeout) {
  std::map<std::string, query_answer> got;
  time_point end = after(net.now(), timeout);
  while (got.size() < ids.size() && net.now() < end && !interrupted()) {
    std::vector<std::string> ask;
    for (const auto& id : ids)
      if (!got.count(id)) ask.push_back(id);
    // Asked again each second, only the cameras that have not answered.
    auto requests = split_batch(ask, [&](const auto& some) { return wire::query_request(some, client_id); });
    exchange(net, [&] { for (const auto& r : requests) net.send(channel::batch, r); },
             std::min(1.0, between(net.now(), end)), 0, [&](const datagram& d) {
               auto r = wire::parse_id_reply(wire::kReplyQuery, d.data);
               if (r && r->client_id == client_id &&
                   std::find(ids.begin(), ids.end(), r->device_id) != ids.end())
                 got[r->device_id] = {field(*r, "Version"), wire::parse_mtd_info(field(*r, "MtdInfo"))};
               return got.size() == ids.size();
             });
  }
  return got;
}

int cmd_query(command_context& ctx, const std::vector<std::string>& who) {
  for (const std::string& w : who) check_camera_argument(w);
  transport& net = ctx.lan();
  std::vector<wire::camera_record> cams;
  for (const std::string& w : who) {
    if (wire::is_device_id(w)) {
      wire::camera_record c;
      c.device_id = w;
      cams.push_back(c);
    } else {
      cams.push_back(resolve(net, ctx.client_id, w, ctx.search_wait));
    }
  }
  std::vector<std::string> ids;
  for (const auto& c : cams) ids.push_back(c.device_id);
  std::map<std::string, query_answer> got = query_cameras(net, ctx.client_id, ids, ctx.timeout);
  int status = 0;
  for (const auto& c : cams) {
    auto it = got.find(c.device_id);
    if (it == got.end()) {
      ctx.err << "camtool: no query reply from " << camera_name(c) << " within "
              << seconds_text(ctx.timeout) << "\n";
      status = kExitFailed;
      continue;
    }
    const auto& parts = it->second.partitions;
    json jparts = json::array();
    std::vector<std::vector<std::string>> rows;
    for (size_t i = 0; i < parts.size(); ++i) {
      int mode = static_cast<int>(i) + 5;  // single-partition upgrade modes
      std::string mode_text = mode <= 9 ? std::to_string(mode) : "-";
      jparts.push_back({{"dev", parts[i].dev},
                        {"name", parts[i].name},
                        {"size", parts[i].size},
                        {"erasesize", parts[i].erasesize},
                        {"mode", mode <= 9 ? json(mode) : json(nullptr)}});
      rows.push_back({parts[i].dev, parts[i].name, human_bytes(parts[i].size),
                      human_bytes(parts[i].erasesize), mode_text});
    }
    if (ctx.json) {
      ctx.out << json{{"device_id", c.device_id}, {"version", it->second.version},
                      {"partitions", jparts}}
                     .dump()
              << "\n";
    } else {
      ctx.out << c.device_id << "  firmware " << it->second.version << "\n";
      print_table(ctx.out, {"DEV", "NAME", "SIZE", "ERASE", "UPGRADE MODE"}, rows);
    }
  }
  return status;
}

int cmd_production(command_context& ctx, const std::string& who) {
  check_camera_argument(who);
  wire::camera_record c = resolve(ctx.lan(), ctx.client_id, who, ctx.search_wait);
  delivery_options o;
  o.silence = ctx.timeout;
  delivery d = deliver(ctx.lan(), c.device_id,
                       wire::addressed_request(wire::KW_PRODUCTIO, c.device_id, ctx.client_id),
                       reply_from(wire::kKeywords[wire::KW_PRODUCTIO], c.device_id, ctx.client_id), o);
  if (d.end == delivery_end::ignored) not_taken(c, "request", d, "answer it");
  if (d.end == delivery_end::silent) silent(c, "production counters", ctx.timeout);
  auto r = *wire::parse_id_reply(wire::kKeywords[wire::KW_PRODUCTIO], d.reply->data);
  std::string boots = field(r, "boot_times"), curves = field(r, "curve_times");
  if (ctx.json)
    ctx.out << json{{"device_id", c.device_id}, {"boot_times", strtoll(boots.c_str(), nullptr, 10)},
                    {"curve_times", strtoll(curves.c_str(), nullptr, 10)}}
                   .dump()
            << "\n";
  else
    ctx.out << camera_name(c) << "  boot_times " << boots << "  curve_times " << curves << "\n";
  return 0;
}

}  // namespace camtool
