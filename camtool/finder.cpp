#include "camtool/finder.h"

#include <unistd.h>

#include <sstream>

#include "camtool/output.h"
#include "wire/commands.h"
#include "wire/text.h"

namespace camtool {

camera_map search(transport& net, const std::string& client_id, double wait,
                  const std::function<bool(const camera_map&)>& enough) {
  camera_map found;
  const std::string request = wire::search_request(client_id);
  time_point end = after(net.now(), wait);
  while (!interrupted()) {
    net.send(channel::batch, request);
    time_point resend = std::min(end, after(net.now(), kResendInterval));
    while (auto d = net.receive(resend)) {
      if (auto c = wire::parse_search_reply(d->data)) found[c->device_id] = *c;
      if (enough && enough(found)) return found;
    }
    if (net.now() >= end) break;
  }
  return found;
}

void check_camera_argument(const std::string& who) {
  if (!wire::is_device_id(who) && !wire::is_ipv4(who))
    throw tool_error("'" + who + "' is neither a device ID (32 lower-case hex digits) nor an IPv4 address");
}

wire::camera_record resolve(transport& net, const std::string& client_id, const std::string& who,
                            double wait) {
  check_camera_argument(who);
  bool by_id = wire::is_device_id(who);
  auto match = [&](const wire::camera_record& c) { return by_id ? c.device_id == who : c.ip == who; };
  camera_map found = search(net, client_id, wait, [&](const camera_map& m) {
    for (const auto& [id, c] : m)
      if (match(c)) return true;
    return false;
  });
  for (const auto& [id, c] : found)
    if (match(c)) return c;
  throw tool_error("no camera " + who + " answered a search within " + seconds_text(wait) +
                       " (" + std::to_string(found.size()) + " other camera(s) did)",
                   kExitFailed);
}

nlohmann::json camera_json(const wire::camera_record& c) {
  return {{"device_id", c.device_id}, {"ip", c.ip},           {"mac", c.mac},
          {"dhcp", c.dhcp},           {"version", c.version}, {"model", c.model},
          {"serial", c.serial},       {"uptime", c.uptime},   {"netmask", c.netmask},
          {"gateway", c.gateway},     {"dns", c.fdns}};
}

namespace {

std::vector<std::string> camera_row(const wire::camera_record& c) {
  return {c.device_id, c.ip, c.mac, c.dhcp ? "on" : "off", c.version, c.model, c.serial,
          uptime_text(c.uptime)};
}

const std::vector<std::string> kCameraHead = {"DEVICE ID", "IP",     "MAC",    "DHCP",
                                              "VERSION",   "MODEL", "SERIAL", "UPTIME"};

// Everything but the uptime, which changes with every reply.
bool same_camera(const wire::camera_record& a, const wire::camera_record& b) {
  nlohmann::json ja = camera_json(a), jb = camera_json(b);
  ja.erase("uptime");
  jb.erase("uptime");
  return ja == jb;
}

int watch(transport& net, const std::string& client_id, const search_options& o, std::ostream& out) {
  struct seen {
    wire::camera_record rec;
    time_point last;
    bool gone = false;
  };
  std::map<std::string, seen> all;
  const bool tty = isatty(STDOUT_FILENO) != 0;
  while (!interrupted()) {
    camera_map round = search(net, client_id, 1.0);
    time_point now = net.now();
    bool changed = false;
    for (const auto& [id, c] : round) {
      auto it = all.find(id);
      bool is_new = it == all.end() || it->second.gone;
      if (is_new || !same_camera(it->second.rec, c)) {
        changed = true;
        if (o.json) out << camera_json(c).dump() << "\n";
      }
      all[id] = {c, now, false};
    }
    for (auto& [id, s] : all) {
      if (!s.gone && between(s.last, now) > o.forget) {
        s.gone = true;
        changed = true;
        if (o.json) out << nlohmann::json{{"device_id", id}, {"gone", true}}.dump() << "\n";
      }
    }
    if (!o.json && (changed || tty)) {
      std::vector<std::vector<std::string>> rows;
      for (const auto& [id, s] : all) {
        auto row = camera_row(s.rec);
        row.push_back(s.gone ? "gone" : clock_text(between(s.last, now)));
        rows.push_back(row);
      }
      auto head = kCameraHead;
      head.push_back("HEARD");
      std::ostringstream table;
      print_table(table, head, rows);
      if (tty) out << "\x1b[H\x1b[2J";
      out << table.str() << (all.size() == 1 ? "1 camera" : std::to_string(all.size()) + " cameras")
          << " (Ctrl-C ends)\n";
      if (!tty) out << "\n";
    }
    out.flush();
  }
  return 0;
}

}  // namespace

void print_cameras(std::ostream& out, const camera_map& cams) {
  std::vector<std::vector<std::string>> rows;
  for (const auto& [id, c] : cams) rows.push_back(camera_row(c));
  print_table(out, kCameraHead, rows);
}

int run_search(transport& net, const std::string& client_id, const search_options& o,
               std::ostream& out) {
  if (o.watch) return watch(net, client_id, o, out);
  camera_map found = search(net, client_id, o.wait);
  if (o.json) {
    for (const auto& [id, c] : found) out << camera_json(c).dump() << "\n";
  } else {
    print_cameras(out, found);
    out << found.size() << (found.size() == 1 ? " camera\n" : " cameras\n");
  }
  return 0;
}

}  // namespace camtool
