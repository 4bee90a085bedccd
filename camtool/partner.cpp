#include "camtool/partner.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "camtool/finder.h"
#include "camtool/output.h"

namespace camtool {

namespace wp = wire::partner;
using nlohmann::json;

namespace {

template <size_t N>
std::string bytes(const std::array<uint8_t, N>& frame) {
  return std::string(reinterpret_cast<const char*>(frame.data()), N);
}

const uint8_t* raw(const datagram& d) { return reinterpret_cast<const uint8_t*>(d.data.data()); }

bool from_partner(const datagram& d) {
  return d.ch == channel::partner || d.ch == channel::partner_alt;
}

std::string camera_name(const wp::search_reply& c) {
  return c.device_id + " (" + wp::ipv4_text(c.ip) + ")";
}

// A CAMERA argument found by a partner search.
wp::search_reply resolve(command_context& ctx, const std::string& who) {
  check_camera_argument(who);
  const bool by_id = wire::is_device_id(who);
  auto match = [&](const wp::search_reply& r) {
    return by_id ? r.device_id == who : wp::ipv4_text(r.ip) == who;
  };
  partner_map found = partner_search(ctx.lan(), ctx.search_wait, [&](const partner_map& m) {
    return std::any_of(m.begin(), m.end(), [&](const auto& kv) { return match(kv.second); });
  });
  for (const auto& [id, r] : found)
    if (match(r)) return r;
  throw tool_error("no camera " + who + " answered a partner search within " +
                       seconds_text(ctx.search_wait) +
                       " (the camera answers only with partner=1 in /customer/upgrade.conf)",
                   kExitFailed);
}

std::optional<wp::net_reply> net_query(command_context& ctx, const wp::search_reply& c) {
  auto got = exchange(ctx.lan(), channel::partner, bytes(wp::encode_net_query(c.device_id)),
                      ctx.timeout, kPartnerResend, [&](const datagram& d) {
                        auto r = from_partner(d) ? wp::decode_net_reply(raw(d), d.data.size())
                                                 : std::nullopt;
                        return r && r->device_id == c.device_id;
                      });
  if (!got) return std::nullopt;
  return wp::decode_net_reply(raw(*got), got->data.size());
}

uint32_t address_of(const std::string& text) { return wp::parse_ipv4(text).value_or(0); }

[[noreturn]] void no_reply(const wp::search_reply& c, const char* what, double timeout) {
  throw tool_error("no " + std::string(what) + " from " + camera_name(c) + " within " +
                       seconds_text(timeout),
                   kExitFailed);
}

}  // namespace

std::string mac_text(const std::array<uint8_t, 6>& mac) {
  char buf[18];
  snprintf(buf, sizeof(buf), "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
           mac[4], mac[5]);
  return buf;
}

partner_map partner_search(transport& net, double wait,
                           const std::function<bool(const partner_map&)>& enough) {
  partner_map found;
  const std::string request = bytes(wp::encode_search_request());
  time_point end = after(net.now(), wait);
  while (!interrupted()) {
    net.send(channel::partner, request);
    time_point resend = std::min(end, after(net.now(), kPartnerResend));
    while (auto d = net.receive(resend)) {
      if (!from_partner(*d)) continue;
      if (auto r = wp::decode_search_reply(raw(*d), d->data.size())) found[r->device_id] = *r;
      if (enough && enough(found)) return found;
    }
    if (net.now() >= end) break;
  }
  return found;
}

wire::net_settings partner_settings(const wp::net_reply& r) {
  wire::net_settings s;
  s.dhcp = r.connection_type == wp::kConnDhcp;
  s.ipaddr = wp::ipv4_text(r.addr.ip);
  s.netmask = wp::ipv4_text(r.addr.netmask);
  s.gateway = wp::ipv4_text(r.addr.gateway);
  s.fdns = wp::ipv4_text(r.addr.dns);
  return s;
}

void check_partner_set(const confignet_flags& f) {
  if (f.mac) throw tool_error("the partner protocol cannot set the MAC address (use confignet)");
  check_confignet(f);
}

void check_sensitivity(int value) {
  if (value < 0 || value > wp::kSensitivityMax)
    throw tool_error("the tracking sensitivity goes from 0 to " +
                     std::to_string(wp::kSensitivityMax) + ", not " + std::to_string(value));
}

int cmd_partner_search(command_context& ctx, double wait) {
  partner_map found = partner_search(ctx.lan(), wait);
  std::vector<std::vector<std::string>> rows;
  for (const auto& [id, r] : found) {
    std::string ip = wp::ipv4_text(r.ip), mac = mac_text(r.mac);
    if (ctx.json)
      ctx.out << json{{"device_id", id},          {"ip", ip},
                      {"mac", mac},               {"name", r.name},
                      {"type", r.type_code},      {"version", r.version},
                      {"port", r.port},           {"rtsp_port", r.rtsp_port}}
                     .dump()
              << "\n";
    rows.push_back({id, ip, mac, r.type_code, r.version, r.name});
  }
  if (!ctx.json) {
    print_table(ctx.out, {"DEVICE ID", "IP", "MAC", "TYPE", "VERSION", "NAME"}, rows);
    ctx.out << found.size() << (found.size() == 1 ? " camera\n" : " cameras\n");
  }
  return 0;
}

int cmd_partner_query(command_context& ctx, const std::string& who) {
  wp::search_reply c = resolve(ctx, who);
  auto r = net_query(ctx, c);
  if (!r) no_reply(c, "network settings", ctx.timeout);
  wire::net_settings s = partner_settings(*r);
  if (ctx.json) {
    ctx.out << json{{"device_id", c.device_id}, {"dhcp", s.dhcp},       {"ip", s.ipaddr},
                    {"netmask", s.netmask},     {"gateway", s.gateway}, {"dns", s.fdns},
                    {"dns2", wp::ipv4_text(r->addr.dns2)}}
                   .dump()
            << "\n";
  } else {
    print_table(ctx.out, {"DEVICE ID", "IP", "DHCP", "NETMASK", "GATEWAY", "DNS"},
                {{c.device_id, s.ipaddr, s.dhcp ? "on" : "off", s.netmask, s.gateway, s.fdns}});
  }
  return 0;
}

int cmd_partner_set(command_context& ctx, const std::string& who, const confignet_flags& f) {
  check_partner_set(f);
  wp::search_reply c = resolve(ctx, who);
  auto now = net_query(ctx, c);
  if (!now) no_reply(c, "network settings", ctx.timeout);
  wire::net_settings s = merge_settings(partner_settings(*now), f);
  s.macaddr = mac_text(c.mac);  // kept by the camera
  wp::net_set_request req;
  req.serial = c.device_id;
  req.connection_type = s.dhcp ? wp::kConnDhcp : wp::kConnStatic;
  req.use_dns = 1;
  uint32_t dns = address_of(s.fdns);
  req.addr = {address_of(s.ipaddr), address_of(s.netmask), address_of(s.gateway), dns, dns};
  if (!ctx.json) ctx.err << camera_name(c) << ": " << settings_text(s) << "\n";
  // Sent once: the camera answers on both groups, then rewrites its
  // settings and reboots. The answer repeats what was set.
  auto got = exchange(ctx.lan(), channel::partner, bytes(wp::encode_net_set(req)), ctx.timeout, 0,
                      [&](const datagram& d) {
                        auto r = from_partner(d) ? wp::decode_net_reply(raw(d), d.data.size())
                                                 : std::nullopt;
                        return r && r->device_id == c.device_id &&
                               r->connection_type == req.connection_type && r->addr.ip == req.addr.ip &&
                               r->addr.netmask == req.addr.netmask &&
                               r->addr.gateway == req.addr.gateway && r->addr.dns == dns;
                      });
  if (!got) no_reply(c, "confirmation", ctx.timeout);
  if (ctx.json)
    ctx.out << json{{"device_id", c.device_id}, {"ip", wp::ipv4_text(c.ip)}, {"accepted", true},
                    {"settings", settings_json(s)}}
                   .dump()
            << "\n";
  else
    ctx.out << camera_name(c) << ": accepted; the camera reboots to apply it (about 7 s)\n";
  return 0;
}

int cmd_partner_track(command_context& ctx, const std::string& who, std::optional<int> value) {
  if (value) check_sensitivity(*value);
  wp::search_reply c = resolve(ctx, who);
  const std::string ip = wp::ipv4_text(c.ip);
  wp::track_frame req{c.device_id, value ? wp::kTrackSet : wp::kTrackGet, value.value_or(0)};
  const std::string frame = bytes(wp::encode_track_request(req));
  // Sent once: the camera relays it to its tracking service and waits for
  // that without a limit, so a second request would only queue behind it.
  auto got = exchange(
      ctx.lan(), [&] { ctx.lan().send_to(channel::direct, ip, wp::kParamPort, frame); },
      ctx.timeout, 0, [&](const datagram& d) {
        auto r = d.ch == channel::direct && d.src == ip ? wp::decode_track_reply(raw(d), d.data.size())
                                                         : std::nullopt;
        return r && r->serial == c.device_id;
      });
  if (!got)
    throw tool_error("no tracking reply from " + camera_name(c) + " within " +
                         seconds_text(ctx.timeout) +
                         " (the camera asks its tracking service, which may not be running)",
                     kExitFailed);
  int now = wp::decode_track_reply(raw(*got), got->data.size())->sensitivity;
  if (ctx.json) {
    json j = {{"device_id", c.device_id}, {"ip", ip}, {"operation", value ? "set" : "get"},
              {"sensitivity", now}};
    if (value) j["requested"] = *value;
    ctx.out << j.dump() << "\n";
  } else if (!value) {
    ctx.out << camera_name(c) << ": tracking sensitivity " << now << " (0-15)\n";
  } else {
    ctx.out << camera_name(c) << ": tracking sensitivity set to " << *value
            << "; the camera reads back " << now
            << (now == *value ? "\n" : " (its tracking service counts in coarser steps)\n");
  }
  return 0;
}

}  // namespace camtool
