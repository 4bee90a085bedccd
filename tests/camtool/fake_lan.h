// A LAN of simulated cameras on a virtual clock, for camtool's tests: the
// cameras answer searches, announcements and transfer packets as the real
// ones do, reboot after their verdict and report when they are back. A
// camera with a NORM node ID takes the NORM offer and then the file from
// `fake_norm` (a NORM session on the same clock) instead of the packets.
#pragma once

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "camtool/net.h"
#include "camtool/norm.h"
#include "camtool/upgrade.h"
#include "wire/replies.h"
#include "wire/text.h"
#include "wire/upgrade.h"

namespace camtool_test {

using camtool::channel;
using camtool::datagram;
using camtool::time_point;

struct fake_camera {
  std::string id, ip;
  std::string version = "V1.0", new_version = "V2.0";
  char ready_code = '0';      // answer to the announcement
  bool ready_lost = false;    // its answer never reaches the tool
  double ready_delay = 6.0;   // it stops its programs first
  int md5_failures = 0;       // rounds whose stored file will not match
  double down_for = 5.0;      // seconds between its reboot and its return
  bool reboots = true;        // false: a camera started in debug mode after a bad md5
  bool reports = true;        // sends its post-upgrade report when back
  uint32_t norm_node = 0;     // takes the NORM offer as this node; 0: never
  bool norm_acks = true;      // acknowledges the NORM file to the sender
  int norm_gives_up = 0;      // NORM sessions it gives up ('2', then it reboots)
  int copies = 1;             // copies of each answer after the announcement's
  bool installed_lost = false;  // its '7' never reaches the tool
  std::string mtd = "mtd0: 00080000 00010000 \"boot\"\nmtd1: 00300000 00010000 \"kernel\"\n";
  // What happened to it.
  std::vector<std::string> announced_sessions;
  std::string stored;
  int reboots_seen = 0;
  bool confirmed = false;
  // Its state.
  std::string session, md5, client;
  bool busy = false, by_norm = false;
  time_point ready_at{}, down_from = time_point::max(), up_at{};
};

// Camera `c`: device ID of 32 c's, address 192.168.77.10 for 'a' and on.
inline fake_camera camera(char c) {
  fake_camera f;
  f.id = std::string(32, c);
  f.ip = "192.168.77." + std::to_string(c - 'a' + 10);
  return f;
}

class fake_lan : public camtool::transport {
 public:
  explicit fake_lan(std::vector<fake_camera> cams) : cams(std::move(cams)) {}

  std::vector<fake_camera> cams;
  struct sent_datagram {
    time_point at;
    std::string data;
  };
  std::vector<sent_datagram> sent;

  time_point now() override { return now_; }

  std::optional<datagram> receive(time_point deadline) override {
    auto first = queue_.begin();
    if (first == queue_.end() || first->first > deadline) {
      now_ = std::max(now_, deadline);
      return std::nullopt;
    }
    now_ = std::max(now_, first->first);
    datagram d = first->second;
    queue_.erase(first);
    return d;
  }

  void send_to(channel, const std::string&, int, std::string_view text) override {
    sent.push_back({now_, std::string(text)});
  }

  void send(channel ch, std::string_view text) override {
    std::string data(text);
    sent.push_back({now_, data});
    for (fake_camera& c : cams)
      if (!down(c)) react(c, ch, data);
  }

  static bool is_packet(const std::string& d) {
    return d.rfind("CAMERA_UP", 0) == 0 && d.find("Device ID:") == std::string::npos;
  }
  // The transfer packets sent, in order.
  std::vector<wire::packet_view> packets() const {
    std::vector<wire::packet_view> out;
    for (const auto& s : sent)
      if (is_packet(s.data)) out.push_back(*wire::parse_packet(s.data.data(), s.data.size()));
    return out;
  }
  // The announcements sent, in order, each once (the tool sends a round's
  // first ones twice and resends to silent cameras); `all` counts every copy.
  std::vector<std::string> announcements(bool all = false) const {
    std::vector<std::string> out;
    for (const auto& s : sent)
      if (s.data.find("File md5:") != std::string::npos &&
          (all || std::find(out.begin(), out.end(), s.data) == out.end()))
        out.push_back(s.data);
    return out;
  }

 private:
  bool down(const fake_camera& c) const { return now_ >= c.down_from && now_ < c.up_at; }

  void reply(channel ch, const fake_camera& c, double delay, std::string text) {
    queue_.emplace(camtool::after(now_, delay), datagram{ch, c.ip, std::move(text)});
  }

  std::string ack(const fake_camera& c, const std::string& client, char code) {
    return std::string("REPLYU DO\r\nClient ID:") + client + "\r\nDevice ID:" + c.id + "\r\nAck:" + code;
  }

  // Reboot `delay` seconds from now, come back, report.
  void reboot(fake_camera& c, double delay) {
    c.busy = false;
    if (!c.reboots) return;
    c.reboots_seen++;
    c.down_from = camtool::after(now_, delay);
    c.up_at = camtool::after(c.down_from, c.down_for);
    if (c.reports)
      queue_.emplace(c.up_at, datagram{channel::status, c.ip,
                                     "STATUS * \r\nDevice ID:" + c.id + "\r\nMAC=02:00:00:00:00:01" +
                                         "\r\nVERSION:" + c.new_version + "\r\nStatus=1"});
  }

  void react(fake_camera& c, channel ch, const std::string& data) {
    if (data.rfind("SEARCH * ", 0) == 0) {
      bool back = c.up_at > time_point{} && now_ >= c.up_at;
      time_point since = back ? c.up_at : time_point{};
      uint64_t uptime = 100 + static_cast<uint64_t>(camtool::between(since, now_));
      reply(ch, c, 0.001,
            "REPLY OK \r\nVERSION:" + (back ? c.new_version : c.version) + "\r\nDEVICE_MODEL:K1.T" +
                "\r\nClient ID:" + data.substr(wire::kSearchClientIdAt, 32) + "\r\nDevice ID:" + c.id +
                "\r\nUptime=" + std::to_string(uptime) + "\r\nDHCP=0\r\nLUM_Serial_No=\r\nIP=" + c.ip +
                "\r\nMASK=255.255.255.0\r\nGATEWAY=192.168.77.1\r\nMAC=02:00:00:00:00:01\r\nFDNS=8.8.8.8");
    } else if (data.rfind("STATUS * ", 0) == 0) {
      if (data.find(c.id) != std::string::npos && data.find("Status=2") != std::string::npos)
        c.confirmed = true;
    } else if (data.rfind("CAMERA_QU", 0) == 0 && names(data, data.find("Device ID:") + 10, c)) {
      reply(ch, c, 0.01, "REPLYQ OK\r\nClient ID:" + field(data, "Client ID:", 32) + "\r\nDevice ID:" +
                             c.id + "\r\nVersion:" + c.version + "\r\nMtdInfo:" + c.mtd);
    } else if (data.rfind("CAMERA_UP", 0) == 0 && ch == channel::batch) {
      size_t ids = data.find("Device ID:");
      if (ids != std::string::npos) announcement(c, data, ids + 10);
      else packet(c, *wire::parse_packet(data.data(), data.size()));
    }
  }

  static std::string field(const std::string& data, const char* key, size_t len) {
    size_t at = data.find(key);
    return at == std::string::npos ? "" : data.substr(at + strlen(key), len);
  }

  // The batch form at `at`: a four-digit count, then the IDs.
  static bool names(const std::string& data, size_t at, const fake_camera& c) {
    int count = std::stoi(data.substr(at, 4));
    for (int i = 0; i < count; ++i)
      if (data.substr(at + 4 + 32 * static_cast<size_t>(i), 32) == c.id) return true;
    return false;
  }

  void announcement(fake_camera& c, const std::string& data, size_t at) {
    if (!names(data, at, c)) return;
    std::string client = field(data, "Client ID:", 32);
    if (c.busy) {
      // Announcements are handled one after the other: after the '0'.
      double wait = std::max(0.0, camtool::between(now_, c.ready_at)) + 0.01;
      reply(channel::batch, c, wait, ack(c, client, '9'));
      return;
    }
    c.session = field(data, "SESSION:", 32);
    c.md5 = field(data, "File md5:", 32);
    c.announced_sessions.push_back(c.session);
    c.busy = c.ready_code == '0';
    c.by_norm = c.busy && c.norm_node != 0 && wire::read_transfer_offer(data);
    c.ready_at = camtool::after(now_, c.ready_delay);
    if (!c.ready_lost) reply(channel::batch, c, c.ready_delay,
          ack(c, c.session, c.ready_code) + (c.by_norm ? wire::transfer_answer_field(c.norm_node) : ""));
  }

  void packet(fake_camera& c, const wire::packet_view& p) {
    if (!c.busy || c.by_norm || p.session != c.session || now_ < c.ready_at) return;
    if (p.kind == 'b') c.stored.assign(p.data, p.len);
    if (p.kind == 't' || p.kind == 'o') c.stored.append(p.data, p.len);
    if (p.kind == 'o') verdict(c);
  }

 public:
  // A NORM session's file object, whole, to the cameras listening as one
  // of `nodes` for this session (the object's info); true for each that
  // acknowledges it.
  std::vector<uint32_t> norm_object(const std::string& info, const std::string& data,
                                    const std::vector<uint32_t>& nodes) {
    std::vector<uint32_t> acked;
    for (fake_camera& c : cams) {
      if (!c.busy || !c.by_norm || c.session != info || down(c) ||
          std::find(nodes.begin(), nodes.end(), c.norm_node) == nodes.end())
        continue;
      if (c.norm_gives_up > 0) {
        c.norm_gives_up--;
        reply(channel::batch, c, 0.2, ack(c, c.session, '2') + "\r\nReason:silence");
        reboot(c, 1.0);
        continue;
      }
      c.stored = data;
      if (c.norm_acks) acked.push_back(c.norm_node);
      verdict(c);
    }
    return acked;
  }

 private:
  void verdict(fake_camera& c) {
    auto file = camtool::memory_file(c.stored);
    bool good = camtool::file_md5(*file) == c.md5 && c.md5_failures == 0;
    if (!good) {
      if (c.md5_failures > 0) c.md5_failures--;
      reply(channel::batch, c, 0.2, ack(c, c.session, '6'));
      reboot(c, 1.0);
      return;
    }
    for (int k = 0; k < c.copies; ++k) {
      reply(channel::batch, c, 0.2 + 0.02 * k, ack(c, c.session, '5'));
      if (!c.installed_lost) reply(channel::batch, c, 2.0 + 0.02 * k, ack(c, c.session, '7'));
    }
    reboot(c, 3.0);
  }

  time_point now_ = time_point{} + std::chrono::hours(1);
  std::multimap<time_point, datagram> queue_;
};

// A NORM session on the LAN's clock: the file reaches the cameras once its
// bytes have had their time at the rate; the wire carries 5 % more than
// the file (what a real session's headers and a little repair would add).
class fake_norm : public camtool::norm_sender {
 public:
  explicit fake_norm(fake_lan& lan) : lan_(lan) {}

  struct session {
    std::string info;
    std::vector<uint32_t> nodes;
    wire::norm_offer group;
    double rate_bps;
    time_point started, delivered{}, ended{};
    int asked_again = 0;
  };
  std::vector<session> sessions;  // as started
  bool refuse = false;            // start() fails (the interface went away)

  void start(camtool::file_source& file, const std::string& info, const std::vector<uint32_t>& nodes,
             const wire::norm_offer& group, double rate_bps) override {
    if (refuse) throw camtool::tool_error("NORM refused interface eth9", camtool::kExitFailed);
    sessions.push_back({info, nodes, group, rate_bps, lan_.now()});
    data_.assign(file.size(), '\0');
    file.read(0, data_.data(), data_.size());
    done_at_ = camtool::after(lan_.now(), static_cast<double>(data_.size()) * 8 / rate_bps + 0.05);
    acked_.clear();
    over_ = false;
  }
  bool poll() override {
    if (!over_ && lan_.now() >= done_at_) {
      acked_ = lan_.norm_object(sessions.back().info, data_, sessions.back().nodes);
      sessions.back().delivered = lan_.now();
      over_ = true;
    }
    return over_;
  }
  std::vector<uint32_t> acked() override { return acked_; }
  void ask_again() override { sessions.back().asked_again++; }
  camtool::norm_outcome finish() override {
    sessions.back().ended = lan_.now();
    return {static_cast<uint64_t>(static_cast<double>(data_.size()) * 1.05), acked_};
  }

 private:
  fake_lan& lan_;
  std::string data_;
  time_point done_at_{};
  std::vector<uint32_t> acked_;
  bool over_ = false;
};

}  // namespace camtool_test
