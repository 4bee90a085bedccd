// A site of many cameras on a virtual clock, each with the daemon's two
// listeners: the search group's reads one datagram and then sleeps 300 ms
// (replies heard from the other cameras included), the batch group's reads
// again at once. Every reply goes to the group its command came on, where
// the tool and every other camera hear it. Settings commands and reboots wait
// as the daemon does, then the camera is away for `down_for` seconds and
// comes back with what it stored. `drop` loses datagrams on their way.
#pragma once

#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "camtool/net.h"
#include "wire/commands.h"
#include "wire/text.h"

namespace camtool_test {

using camtool::channel;
using camtool::datagram;
using camtool::time_point;

struct site_camera {
  std::string id, serial;
  wire::net_settings net;  // as its search replies show them
  time_point booted{};
  std::vector<std::string> taken;  // keywords of the commands it carried out
  int reboots = 0;
  struct listener {
    std::deque<std::string> queue;
    time_point free_at{};
    bool woken = false;
  } search, batch;
  time_point down_from = time_point::max(), up_at{};
  wire::net_settings stored_net;
  std::string stored_serial;
};

class fake_site : public camtool::transport {
 public:
  explicit fake_site(int count) {
    for (int k = 0; k < count; ++k) {
      char tail[16];
      snprintf(tail, sizeof(tail), "%04x", static_cast<unsigned>(k) & 0xffffu);
      site_camera c;
      c.id = std::string(28, 'c') + tail;
      c.net = {false, "192.168.77." + std::to_string(10 + k), "255.255.255.0", "192.168.77.1",
               "8.8.8.8", std::string("02:00:00:77:00:") + (tail + 2)};
      c.booted = camtool::after(now_, -100.0);
      c.stored_net = c.net;
      cams.push_back(c);
    }
  }

  std::vector<site_camera> cams;
  double down_for = 20.0;
  // True loses the datagram from `from` to `to` (nullptr: the tool).
  std::function<bool(const site_camera* from, const site_camera* to, const std::string& data)> drop;
  std::vector<std::pair<channel, std::string>> sent;  // by the tool

  time_point now() override { return now_; }
  void send_to(channel ch, const std::string&, int, std::string_view data) override {
    sent.emplace_back(ch, std::string(data));
  }
  void send(channel ch, std::string_view data) override {
    sent.emplace_back(ch, std::string(data));
    other_tool(ch, std::string(data));
  }
  // A datagram from another tool on the group, heard by every camera now.
  void other_tool(channel ch, const std::string& data) {
    for (auto& c : cams) arrive(nullptr, c, ch, data);
  }
  // Camera k's listener on `ch` is busy for `s` seconds (another tool's board test).
  void occupy(size_t k, channel ch, double s) { side(cams[k], ch).free_at = camtool::after(now_, s); }

  std::optional<datagram> receive(time_point deadline) override {
    for (;;) {
      auto first = events_.begin();
      if (first == events_.end() || first->first > deadline) {
        now_ = std::max(now_, deadline);
        return std::nullopt;
      }
      now_ = std::max(now_, first->first);
      event e = first->second;
      events_.erase(first);
      if (e.cam < 0) return e.reply;
      wake(cams[static_cast<size_t>(e.cam)], e.ch);
    }
  }

 private:
  struct event {
    int cam;  // -1: a datagram for the tool
    channel ch;
    std::optional<datagram> reply;
  };

  static site_camera::listener& side(site_camera& c, channel ch) {
    return ch == channel::search ? c.search : c.batch;
  }
  bool down(const site_camera& c) const { return now_ >= c.down_from && now_ < c.up_at; }
  int index(const site_camera& c) const { return static_cast<int>(&c - cams.data()); }

  void schedule(site_camera& c, channel ch) {
    auto& l = side(c, ch);
    if (l.woken) return;
    l.woken = true;
    events_.emplace(std::max(now_, l.free_at), event{index(c), ch, std::nullopt});
  }

  void arrive(const site_camera* from, site_camera& to, channel ch, const std::string& data) {
    if (drop && drop(from, &to, data)) return;
    come_back(to);
    if (down(to)) return;
    side(to, ch).queue.push_back(data);
    schedule(to, ch);
  }

  void come_back(site_camera& c) {
    if (c.down_from == time_point::max() || now_ < c.up_at) return;
    c.down_from = time_point::max();
    c.booted = c.up_at;
    c.net = c.stored_net;
    c.serial = c.stored_serial;
    c.search = {};
    c.batch = {};
  }

  void wake(site_camera& c, channel ch) {
    auto& l = side(c, ch);
    l.woken = false;
    come_back(c);
    if (down(c)) {
      l.queue.clear();
      return;
    }
    if (l.queue.empty()) return;
    if (l.free_at > now_) return schedule(c, ch);
    std::string data = std::move(l.queue.front());
    l.queue.pop_front();
    double busy = handle(c, ch, data);
    l.free_at = camtool::after(now_, busy + (ch == channel::search ? 0.3 : 0.0));
    if (!l.queue.empty()) schedule(c, ch);
  }

  void reply(site_camera& c, channel ch, const std::string& text) {
    if (!(drop && drop(&c, nullptr, text)))
      events_.emplace(now_, event{-1, ch, datagram{ch, c.net.ipaddr, text}});
    for (auto& other : cams)
      if (&other != &c) arrive(&c, other, ch, text);
  }

  void reboot_after(site_camera& c, double s) {
    c.reboots++;
    c.down_from = camtool::after(now_, s);
    c.up_at = camtool::after(c.down_from, down_for);
  }

  static std::string field(const std::string& data, const std::string& key, size_t len) {
    size_t at = data.find(key);
    return at == std::string::npos ? "" : data.substr(at + key.size(), len);
  }
  static std::string line(const std::string& data, const std::string& key) {
    size_t at = data.find(key);
    if (at == std::string::npos) return "";
    at += key.size();
    return data.substr(at, data.find_first_of("\r\n", at) - at);
  }

  // Seconds the listener stays busy after this datagram (besides its pause).
  double handle(site_camera& c, channel ch, const std::string& data) {
    const std::string word = data.substr(0, 9), client = field(data, "Client ID:", 32);
    const bool mine = field(data, "Device ID:", 32) == c.id;
    auto id_reply = [&](const std::string& keyword, const std::string& rest) {
      reply(c, ch, keyword + "\r\nClient ID:" + client + "\r\nDevice ID:" + c.id + rest);
    };
    if (word == "SEARCH * ") {
      const auto& n = c.net;
      reply(c, ch, "REPLY OK \r\nVERSION:V1\r\nDEVICE_MODEL:K1.T\r\nClient ID:" +
                       data.substr(wire::kSearchClientIdAt, 32) + "\r\nDevice ID:" + c.id + "\r\nUptime=" +
                       std::to_string(static_cast<long>(camtool::between(c.booted, now_))) +
                       "\r\nDHCP=" + (n.dhcp ? "1" : "0") + "\r\nLUM_Serial_No=" + c.serial +
                       "\r\nIP=" + n.ipaddr + "\r\nMASK=" + n.netmask + "\r\nGATEWAY=" + n.gateway +
                       "\r\nMAC=" + n.macaddr + "\r\nFDNS=" + n.fdns);
      return 0;
    }
    if (word == "CAMERA_QU") {
      std::string ids = field(data, "Device ID:", 4 + 32 * 200);
      for (size_t at = 4; at + 32 <= ids.size(); at += 32)
        if (ids.substr(at, 32) == c.id) id_reply("REPLYQ OK", "\r\nVersion:V1\r\nMtdInfo:");
      return 0;
    }
    if (!mine) return 0;
    c.taken.push_back(word);
    if (word == "PRODUCTIO") id_reply("PRODUCTIO", "\r\nboot_times:0\r\ncurve_times:0");
    if (word == "CONFIGNET") {
      c.stored_net = {line(data, "dhcp=") == "1", line(data, "ipaddr="), line(data, "netmask="),
                      line(data, "gateway="), line(data, "fdns="), line(data, "macaddr=")};
      c.stored_serial = c.serial;
    }
    if (word == "LUMCONFIG") {
      c.stored_net = c.net;
      c.stored_net.macaddr = line(data, "Mac Address:");
      c.stored_serial = line(data, "Serial No:");
    }
    if (word == "CONFIGNET" || word == "LUMCONFIG") {
      id_reply("SUCCEED *", "");
      reboot_after(c, 7.0);  // 2 s, the reboot notice, 5 s
      return 7.0;
    }
    if (word == "CAMERA_RE") {
      c.stored_net = c.net;
      c.stored_serial = c.serial;
      reboot_after(c, 5.0);
      return 5.0;
    }
    return 0;
  }

  time_point now_ = time_point{} + std::chrono::hours(1);
  std::multimap<time_point, event> events_;
};

}  // namespace camtool_test
