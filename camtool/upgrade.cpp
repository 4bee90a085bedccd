#include "camtool/upgrade.h"

#include <nettle/md5.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>

#include "camtool/commands.h"
#include "camtool/finder.h"
#include "camtool/output.h"
#include "wire/commands.h"
#include "wire/file_name.h"
#include "wire/replies.h"
#include "wire/upgrade.h"

namespace camtool {

namespace {

using nlohmann::json;

class string_file : public file_source {
 public:
  explicit string_file(std::string data) : data_(std::move(data)) {}
  uint64_t size() const override { return data_.size(); }
  void read(uint64_t offset, char* buf, size_t len) override {
    memcpy(buf, data_.data() + offset, len);
  }

 private:
  std::string data_;
};

// After its terminal acknowledgement a camera answers searches until it
// reboots; silence this long is reported as going down. Only its uptime
// starting again, or its post-upgrade report, shows that it rebooted.
constexpr double kDownGap = 2.0;
// A camera still answering with its old uptime this long after a bad md5
// did not reboot (a camera started in debug mode keeps running).
constexpr double kRebootGrace = 15.0;
constexpr double kAnnounceResend = 10.0;

const char* ack_words(char code) {
  switch (code) {
    case wire::ACK_READY: return "ready";
    case wire::ACK_NO_SPACE: return "not enough space in /dev";
    case wire::ACK_WRITE_FAILED: return "write failed";
    case wire::ACK_MD5_OK: return "md5 ok";
    case wire::ACK_MD5_BAD: return "md5 failed, the camera reboots";
    case wire::ACK_INSTALLED: return "installed, the camera reboots";
    case wire::ACK_ARM_FAILED: return "controller programming failed, the camera reboots";
    case wire::ACK_BUSY: return "busy with another upgrade";
  }
  return "unknown acknowledgement";
}

const char* mode_words(int mode) {
  switch (mode) {
    case wire::MODE_SYSTEM: return "system package";
    case wire::MODE_ARM: return "motor-controller image";
    case wire::MODE_APP_ARM: return "application package with controller image";
    case wire::MODE_ALL_MTD: return "whole-flash image";
  }
  return "one partition";
}

struct camera_state {
  std::string id, ip, model, version_before, version_after;
  bool found = false;  // answered the search before the upgrade
  std::string refused;  // why the file is not for this camera
  std::vector<std::string> acks;  // per round
  // This round.
  char ready = 0, verdict = 0, result = 0;
  time_point verdict_at{}, ended{}, last_answer{}, back_at{};
  bool in_round = false, expect_reboot = false, went_down = false;
  bool rebooted = false, back = false, settled = false;
  uint64_t uptime = 0;  // as last heard, and when
  time_point uptime_at{};
  bool reported = false, confirmed = false;
  bool signature_refused = false;  // a keyed camera's '6': another round would not help

  void new_round() {
    acks.emplace_back();
    ready = verdict = result = 0;
    in_round = true;
    expect_reboot = went_down = rebooted = back = settled = reported = confirmed = false;
  }
  bool ok() const { return result == wire::ACK_INSTALLED && back; }
  std::string outcome() const {
    if (!refused.empty()) return refused;
    if (ready == 0) return "no answer to the announcement";
    if (ready == wire::ACK_NO_SPACE) return "not enough space in /dev";
    if (ready == wire::ACK_BUSY) return "busy with another upgrade";
    if (verdict == 0) return "no md5 answer after the transfer";
    if (verdict == wire::ACK_WRITE_FAILED) return "could not store the file";
    if (verdict == wire::ACK_MD5_BAD && signature_refused)
      return "signature refused (the camera has site keys: --key or --signature)";
    if (verdict == wire::ACK_MD5_BAD) return back ? "md5 failed" : "md5 failed, not back";
    if (result == 0) return "no answer from the installation";
    if (result == wire::ACK_ARM_FAILED) return "controller programming failed";
    if (result == wire::ACK_WRITE_FAILED) return "installation failed";
    return back ? "upgraded" : "installed, not back";
  }
};

class upgrade_run {
 public:
  upgrade_run(transport& net, std::string client_id, file_source& file, const upgrade_options& o,
              std::ostream& err)
      : net_(net), client_(std::move(client_id)), file_(file), o_(o), err_(err) {}

  int run(std::ostream& out) {
    md5_ = file_md5(file_);
    err_ << "upgrade: " << o_.file_name << ", " << file_.size() << " bytes, md5 " << md5_
         << ", mode " << o_.mode << " (" << mode_words(o_.mode) << ")\n";
    find_cameras();
    check_flash_layout();
    std::vector<camera_state*> names;
    for (auto& c : cams_)
      if (c.refused.empty()) names.push_back(&c);
    for (int round = 1; !names.empty() && round <= 1 + o_.retries; ++round) {
      if (round > 1)
        err_ << "round " << round << ": again for " << names.size() << " camera(s) whose md5 failed\n";
      one_round(round, names);
      names.clear();
      for (auto& c : cams_)
        if (c.in_round && c.verdict == wire::ACK_MD5_BAD && !c.signature_refused && c.back)
          names.push_back(&c);
    }
    report(out);
    bool all_ok = !cams_.empty();
    for (const auto& c : cams_) all_ok = all_ok && c.ok();
    return all_ok ? 0 : kExitFailed;
  }

 private:
  camera_state* camera(const std::string& id) {
    for (auto& c : cams_)
      if (c.id == id) return &c;
    return nullptr;
  }

  void find_cameras() {
    std::vector<std::string> ids, ips;
    for (const std::string& t : o_.to) (wire::is_device_id(t) ? ids : ips).push_back(t);
    camera_map found = search(net_, client_, o_.search_wait, [&](const camera_map& m) {
      if (o_.all) return false;
      for (const auto& id : ids)
        if (!m.count(id)) return false;
      for (const auto& ip : ips)
        if (std::none_of(m.begin(), m.end(), [&](const auto& kv) { return kv.second.ip == ip; }))
          return false;
      return true;
    });
    auto add = [&](const std::string& id) {
      if (camera(id)) return;
      camera_state c;
      c.id = id;
      auto it = found.find(id);
      if (it != found.end()) {
        c.found = true;
        c.ip = it->second.ip;
        c.model = it->second.model;
        c.version_before = it->second.version;
        // Heard at the latest now: a restart is never seen too early.
        c.uptime = it->second.uptime;
        c.uptime_at = net_.now();
      }
      cams_.push_back(c);
    };
    if (o_.all) {
      for (const auto& [id, c] : found) add(id);
      if (cams_.empty())
        throw tool_error("no camera answered a search within " + seconds_text(o_.search_wait),
                         kExitFailed);
    }
    for (const auto& id : ids) add(id);
    for (const auto& ip : ips) {
      auto it = std::find_if(found.begin(), found.end(), [&](const auto& kv) { return kv.second.ip == ip; });
      if (it == found.end())
        throw tool_error("no camera at " + ip + " answered a search within " +
                             seconds_text(o_.search_wait),
                         kExitFailed);
      add(it->first);
    }
    for (const auto& c : cams_)
      if (!c.found) err_ << "  " << c.id << ": did not answer the search; announcing anyway\n";
  }

  // A whole-flash image must fit the flash, a partition image its
  // partition (the camera writes what it is given); asked of each camera.
  void check_flash_layout() {
    if (o_.mode < wire::MODE_ALL_MTD) return;
    std::vector<std::string> ids;
    for (const auto& c : cams_) ids.push_back(c.id);
    auto tables = query_cameras(net_, client_, ids, 3.0);
    for (auto& c : cams_) {
      auto it = tables.find(c.id);
      if (it == tables.end()) {
        err_ << "  " << c.id << ": no partition table (no answer to the query); announcing anyway\n";
        continue;
      }
      const auto& parts = it->second.partitions;
      uint64_t room = 0;
      std::string what;
      if (o_.mode == wire::MODE_ALL_MTD) {
        for (const auto& p : parts) room += p.size;
        what = "the flash";
      } else if (static_cast<size_t>(o_.mode - wire::MODE_PARTITION) < parts.size()) {
        const auto& p = parts[static_cast<size_t>(o_.mode - wire::MODE_PARTITION)];
        room = p.size;
        what = p.dev + " \"" + p.name + "\"";
      } else {
        c.refused = "no partition for mode " + std::to_string(o_.mode) + " (it has " +
                    std::to_string(parts.size()) + ")";
      }
      if (c.refused.empty() && file_.size() > room)
        c.refused = "the file is larger than " + what + " (" + human_bytes(room) + ")";
      if (!c.refused.empty()) err_ << "  " << c.id << ": refused: " << c.refused << "\n";
      else err_ << "  " << c.id << ": writes " << what << " (" << human_bytes(room) << ")\n";
    }
  }

  // Every datagram heard in any phase goes through here.
  void handle(const datagram& d) {
    time_point now = net_.now();
    if (auto a = wire::parse_upgrade_ack(d.data)) {
      camera_state* c = camera(a->device_id);
      if (c == nullptr || !c->in_round) return;
      bool ours = a->client_id == session_ || (a->code == wire::ACK_BUSY && a->client_id == client_);
      if (!ours) return;
      if (a->code == wire::ACK_BUSY && c->ready == wire::ACK_READY) return;  // a resent announcement
      c->acks.back() += a->code;
      const bool signature = a->code == wire::ACK_MD5_BAD && a->reason == wire::kReasonSignature;
      err_ << "  " << c->id << ": "
           << (signature ? "signature refused, the camera reboots" : ack_words(a->code)) << " ("
           << a->code << ")\n";
      switch (a->code) {
        case wire::ACK_READY:
          c->ready = a->code;
          break;
        case wire::ACK_NO_SPACE:
        case wire::ACK_BUSY:
          if (c->ready == 0) c->ready = a->code;
          break;
        case wire::ACK_MD5_OK:
          c->verdict = a->code;
          c->verdict_at = now;
          break;
        case wire::ACK_MD5_BAD:
          c->verdict = a->code;
          c->signature_refused = signature;
          end_of_round(*c, now);
          break;
        case wire::ACK_WRITE_FAILED:
          if (c->verdict == 0) {
            c->verdict = a->code;  // the file could not be stored; the camera stays up
          } else {
            c->result = a->code;
            end_of_round(*c, now);
          }
          break;
        case wire::ACK_INSTALLED:
        case wire::ACK_ARM_FAILED:
          c->result = a->code;
          end_of_round(*c, now);
          break;
      }
    } else if (auto r = wire::parse_search_reply(d.data)) {
      camera_state* c = camera(r->device_id);
      if (c == nullptr) return;
      c->ip = r->ip;
      c->last_answer = now;
      // An uptime well short of what it would be without a restart.
      bool restarted = c->uptime_at != time_point{} &&
                       static_cast<double>(r->uptime) + 5 <
                           static_cast<double>(c->uptime) + between(c->uptime_at, now);
      c->uptime = r->uptime;
      c->uptime_at = now;
      if (!c->expect_reboot || now <= c->ended) return;
      if (restarted && !c->rebooted) {
        c->rebooted = true;
        came_back(*c, now, r->version);
      } else if (!c->back && c->verdict == wire::ACK_MD5_BAD &&
                 between(c->ended, now) >= kRebootGrace) {
        came_back(*c, now, r->version);
      }
    } else if (auto s = wire::parse_status_report(d.data)) {
      camera_state* c = camera(s->device_id);
      if (c == nullptr) return;
      // Confirmed whenever heard; it counts for this upgrade only after
      // the camera's last acknowledgement.
      net_.send(channel::status, wire::status_confirmation(c->id, client_));
      err_ << "  " << c->id << ": post-upgrade report, version " << s->version << "; confirmed\n";
      if (!c->expect_reboot) return;
      c->reported = c->confirmed = true;
      if (!c->rebooted) {
        c->rebooted = true;  // the report is sent once, at start-up
        came_back(*c, now, s->version);
      }
    }
  }

  void end_of_round(camera_state& c, time_point now) {
    c.expect_reboot = true;
    c.ended = now;
  }

  void came_back(camera_state& c, time_point now, const std::string& version) {
    c.back = true;
    c.back_at = now;
    if (!version.empty()) c.version_after = version;
    err_ << "  " << c.id << ": " << (c.rebooted ? "back after its reboot" : "still up, no reboot seen")
         << ", version " << c.version_after << "\n";
  }

  void wait_until(time_point t) {
    while (auto d = net_.receive(t)) handle(*d);
  }

  void one_round(int round, const std::vector<camera_state*>& names) {
    session_ = random_id();
    for (camera_state* c : names) c->new_round();
    for (auto& c : cams_)
      if (std::find(names.begin(), names.end(), &c) == names.end()) c.in_round = false;

    // Announce, and again to the silent ones: a camera takes several seconds
    // to stop its programs before it answers.
    err_ << "round " << round << ": announcing to " << names.size() << " camera(s), session "
         << session_ << "\n";
    time_point start = net_.now(), end = after(start, o_.answer_wait);
    while (!interrupted()) {
      std::vector<std::string> silent;
      for (camera_state* c : names)
        if (c->ready == 0) silent.push_back(c->id);
      if (silent.empty() || net_.now() >= end) break;
      for (const std::string& a : split_batch(silent, [&](const auto& ids) { return announcement(ids); }))
        net_.send(channel::batch, a);
      time_point next = std::min(end, after(net_.now(), kAnnounceResend));
      while (net_.now() < next) {
        auto d = net_.receive(next);
        if (!d) break;
        handle(*d);
        if (std::all_of(names.begin(), names.end(), [](camera_state* c) { return c->ready != 0; }))
          break;
      }
    }
    std::vector<camera_state*> ready;
    for (camera_state* c : names) {
      if (c->ready == wire::ACK_READY) ready.push_back(c);
      if (c->ready == 0) err_ << "  " << c->id << ": no answer to the announcement\n";
    }
    if (ready.empty()) return;
    stream(round, ready.size());
    follow(ready);
  }

  // One datagram; a long list of cameras takes several (split_batch).
  std::string announcement(const std::vector<std::string>& ids) const {
    wire::announcement a;
    a.device_ids = ids;
    a.client_id = client_;
    a.session = session_;
    a.file_name = o_.file_name;
    a.md5 = md5_;
    a.file_size = file_.size();
    a.mode = o_.mode;
    return wire::build_announcement(a);
  }

  void stream(int round, size_t cameras) {
    const uint64_t size = file_.size();
    // At least two packets: the first opens the file, the last checks it.
    uint64_t count = std::max<uint64_t>(2, (size + wire::kPacketDataMax - 1) / wire::kPacketDataMax);
    uint64_t piece = count == 2 ? (size + 1) / 2 : wire::kPacketDataMax;
    const double bps = o_.rate_mbit * 1e6;
    err_ << "round " << round << ": streaming " << count << " packets";
    if (bps > 0) err_ << " at " << o_.rate_mbit << " Mbit/s";
    err_ << " to " << cameras << " camera(s)\n";

    std::string data(static_cast<size_t>(wire::kPacketDataMax), '\0');
    time_point start = net_.now(), anchor = start, shown = start;
    uint64_t sent_bits = 0, offset = 0;
    int last_quarter = 0;
    for (uint64_t i = 0; i < count; ++i) {
      size_t len = static_cast<size_t>(std::min<uint64_t>(piece, size - offset));
      if (i + 1 == count) len = static_cast<size_t>(size - offset);
      if (bps > 0) {
        time_point due = after(anchor, static_cast<double>(sent_bits) / bps);
        wait_until(due);
        // Late by more than a little (the machine was busy): move the
        // schedule instead of sending a burst the cameras could not take.
        if (between(due, net_.now()) > 0.02) anchor += net_.now() - due;
      } else {
        wait_until(net_.now());
      }
      file_.read(offset, data.data(), len);
      char kind = i == 0 ? wire::kPacketFirst : i + 1 == count ? wire::kPacketLast : wire::kPacketMiddle;
      std::string packet = wire::build_packet(kind, session_, data.data(), len);
      net_.send(channel::batch, packet);
      sent_bits += packet.size() * 8;
      offset += len;
      time_point now = net_.now();
      double took = between(start, now);
      double rate = took > 0 ? static_cast<double>(offset) * 8 / took : 0;
      if (o_.live_progress && (between(shown, now) >= 0.2 || i + 1 == count)) {
        err_ << "\r" << progress_line(offset, size, rate) << "\x1b[K" << std::flush;
        shown = now;
      } else if (!o_.live_progress && size > 0 && static_cast<int>(offset * 4 / size) > last_quarter) {
        last_quarter = static_cast<int>(offset * 4 / size);
        if (last_quarter < 4) err_ << progress_line(offset, size, rate) << "\n";
      }
    }
    if (o_.live_progress) err_ << "\n";
    double took = between(start, net_.now());
    char rate[48] = "";
    if (took > 0) snprintf(rate, sizeof(rate), " (%.1f Mbit/s)", static_cast<double>(sent_bits) / took / 1e6);
    err_ << "round " << round << ": sent " << human_bytes(size) << " in " << seconds_text(took) << rate
         << "\n";
    stream_end_ = net_.now();
  }

  bool settled(camera_state& c, time_point now) {
    if (c.verdict == 0) return between(stream_end_, now) > o_.verdict_wait;
    if (c.verdict == wire::ACK_WRITE_FAILED) return true;
    if (c.verdict == wire::ACK_MD5_OK && c.result == 0)
      return between(c.verdict_at, now) > o_.install_wait;
    if (!c.back) return between(c.ended, now) > o_.back_wait;
    if (c.result == wire::ACK_INSTALLED && !c.reported) return between(c.back_at, now) > o_.report_wait;
    return true;
  }

  // Acknowledgements, reboots, returns and reports, until each camera has
  // come to an end or its wait is over.
  void follow(const std::vector<camera_state*>& ready) {
    const std::string search = wire::search_request(client_);
    while (!interrupted()) {
      time_point now = net_.now();
      bool all = true;
      for (camera_state* c : ready) {
        if (c->expect_reboot && !c->went_down &&
            between(std::max(c->last_answer, c->ended), now) >= kDownGap) {
          c->went_down = true;
          err_ << "  " << c->id << ": went silent (rebooting)\n";
        }
        if (!c->settled && settled(*c, now)) {
          c->settled = true;
          if (!c->back && c->expect_reboot) err_ << "  " << c->id << ": not back within " << seconds_text(o_.back_wait) << "\n";
        }
        all = all && c->settled;
      }
      if (all) return;
      net_.send(channel::batch, search);
      wait_until(after(net_.now(), kResendInterval));
    }
  }

  void report(std::ostream& out) {
    std::vector<std::vector<std::string>> rows;
    for (const auto& c : cams_) {
      std::string acks;
      for (const auto& a : c.acks) {
        if (!acks.empty()) acks += " / ";
        std::string spaced;
        for (char code : a) spaced += std::string(spaced.empty() ? "" : " ") + code;
        acks += spaced.empty() ? "-" : spaced;
      }
      std::string version = c.version_before.empty() ? "?" : c.version_before;
      if (c.back) version += " -> " + (c.version_after.empty() ? "?" : c.version_after);
      if (o_.json) {
        out << json{{"device_id", c.id},
                    {"ip", c.ip},
                    {"model", c.model},
                    {"rounds", c.acks.size()},
                    {"acks", c.acks},
                    {"ready", std::string(c.ready ? 1 : 0, c.ready)},
                    {"md5_ok", c.verdict == wire::ACK_MD5_OK},
                    {"result", std::string(c.result ? 1 : 0, c.result)},
                    {"rebooted", c.rebooted},
                    {"back", c.back},
                    {"version_before", c.version_before},
                    {"version_after", c.version_after},
                    {"reported", c.reported},
                    {"confirmed", c.confirmed},
                    {"outcome", c.outcome()},
                    {"ok", c.ok()}}
                   .dump()
            << "\n";
      }
      rows.push_back({c.id, c.ip.empty() ? "?" : c.ip, acks, c.rebooted ? "yes" : "no",
                      c.back ? "yes" : "no", version,
                      c.confirmed ? "confirmed" : c.reported ? "seen" : "-", c.outcome()});
    }
    if (!o_.json) {
      print_table(out, {"DEVICE ID", "IP", "ACKS", "REBOOT", "BACK", "VERSION", "REPORT", "RESULT"},
                  rows);
      size_t ok = static_cast<size_t>(std::count_if(cams_.begin(), cams_.end(),
                                                    [](const camera_state& c) { return c.ok(); }));
      out << ok << " of " << cams_.size() << " camera(s) upgraded\n";
    }
  }

  transport& net_;
  std::string client_;
  file_source& file_;
  const upgrade_options& o_;
  std::ostream& err_;
  std::string md5_, session_;
  std::vector<camera_state> cams_;
  time_point stream_end_{};
};

}  // namespace

// open_file asks the system: os_*.cpp.

std::unique_ptr<file_source> memory_file(std::string data) {
  return std::make_unique<string_file>(std::move(data));
}

std::string file_md5(file_source& f) {
  md5_ctx ctx;
  md5_init(&ctx);
  std::string buf(1 << 16, '\0');
  for (uint64_t off = 0; off < f.size();) {
    size_t len = static_cast<size_t>(std::min<uint64_t>(buf.size(), f.size() - off));
    f.read(off, buf.data(), len);
    md5_update(&ctx, len, reinterpret_cast<const uint8_t*>(buf.data()));
    off += len;
  }
  uint8_t digest[MD5_DIGEST_SIZE];
  md5_digest(&ctx, sizeof(digest), digest);
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (uint8_t b : digest) {
    out += kHex[b >> 4];
    out += kHex[b & 15];
  }
  return out;
}

void check_upgrade(const upgrade_options& o, uint64_t size) {
  if (!is_safe_file_name(o.file_name.c_str()))
    throw tool_error("the file name '" + o.file_name +
                     "' would be refused by the cameras (use letters, digits, '.', '_', '-', '+')");
  if (is_reserved_dev_name(o.file_name.c_str()))
    throw tool_error("the file name '" + o.file_name +
                     "' is one the cameras keep for their own files in /dev; rename the file");
  if (o.file_name.size() > wire::kFileNameMax)
    throw tool_error("the file name is longer than " + std::to_string(wire::kFileNameMax) + " characters");
  if (size > kUpgradeSizeMax)
    throw tool_error("the file has " + std::to_string(size) + " bytes; the announcement carries at most " +
                     std::to_string(kUpgradeSizeMax));
  if (o.mode < wire::MODE_SYSTEM || o.mode > kUpgradeModeMax)
    throw tool_error("--mode " + std::to_string(o.mode) + " is not an upgrade mode (1 to " +
                     std::to_string(kUpgradeModeMax) + ")");
  if (o.all == !o.to.empty()) throw tool_error("name the cameras with --to ID[,ID...] or give --all");
  for (const std::string& t : o.to) check_camera_argument(t);
  if (o.rate_mbit < 0) throw tool_error("--rate must not be negative");
  if (o.retries < 0) throw tool_error("--retries must not be negative");
}

int run_upgrade(transport& net, const std::string& client_id, file_source& file,
                const upgrade_options& o, std::ostream& out, std::ostream& err) {
  check_upgrade(o, file.size());
  return upgrade_run(net, client_id, file, o, err).run(out);
}

}  // namespace camtool
