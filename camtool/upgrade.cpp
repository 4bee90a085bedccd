#include "camtool/upgrade.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "camtool/commands.h"
#include "camtool/finder.h"
#include "camtool/output.h"
#include "camtool/transfer.h"
#include "camtool/upgrade_camera.h"
#include "wire/commands.h"
#include "wire/replies.h"
#include "wire/upgrade.h"

namespace camtool {

namespace {

// After its terminal acknowledgement a camera answers searches until it
// reboots; silence this long is reported as going down. Only its uptime
// starting again, or its post-upgrade report, shows that it rebooted.
constexpr double kDownGap = 2.0;
// A camera still answering with its old uptime this long after a bad md5
// did not reboot (a camera started in debug mode keeps running).
constexpr double kRebootGrace = 15.0;
// The announcement goes out twice at first (a lost one would cost a
// camera the resend wait; the copy is answered '9' after the '0'), then
// again to the silent cameras every kAnnounceResend.
constexpr double kAnnounceResend = 7.0;
// A camera back after its installation whose report was not heard this
// long is confirmed unasked (its report goes out once, right at its start).
constexpr double kReportGrace = 2.0;
constexpr double kAnnounceCopyGap = 0.05;
// The longest wait for the other cameras' answers once one camera took the
// NORM offer: well inside the time it waits for NORM data (30 s by default).
constexpr double kNormAnswerGrace = 10.0;

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

class upgrade_run {
 public:
  upgrade_run(transport& net, std::string client_id, file_source& file, const upgrade_options& o,
              std::ostream& err, norm_sender* norm)
      : net_(net), client_(std::move(client_id)), file_(file), o_(o), err_(err),
        norm_(o.transfer == transfer_mode::automatic ? norm : nullptr) {}

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
        err_ << "round " << round << ": again for " << names.size()
             << " camera(s) whose md5 or NORM transfer failed\n";
      one_round(round, names);
      names.clear();
      for (auto& c : cams_)
        if (c.in_round && c.back &&
            ((c.verdict == wire::ACK_MD5_BAD && !c.signature_refused) || c.norm_failed()))
          names.push_back(&c);
    }
    print_upgrade_report(out, cams_, o_.json, file_.size());
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
      // A camera in a NORM session sends each answer three times; no answer
      // follows itself otherwise.
      if (!c->acks.back().empty() && c->acks.back().back() == a->code) return;
      c->acks.back() += a->code;
      const bool signature = a->code == wire::ACK_MD5_BAD && a->reason == wire::kReasonSignature;
      // A '2' instead of the verdict from a camera taking NORM: it gave the
      // session up, and reboots.
      const bool norm_gave_up = a->code == wire::ACK_WRITE_FAILED && c->verdict == 0 && c->norm_node;
      err_ << "  " << c->id << ": "
           << (signature ? "signature refused, the camera reboots"
               : norm_gave_up ? "NORM transfer given up (" + a->reason + "), the camera reboots"
                              : ack_words(a->code))
           << " (" << a->code << ")";
      if (norm_ != nullptr && a->code == wire::ACK_READY && a->norm_node)
        err_ << ", takes NORM (node " << *a->norm_node << ")";
      err_ << "\n";
      // A verdict or an installation's answer from a camera whose '0' (or
      // '5') was lost on the way: it took the file (and it matched).
      const bool after_file = a->code == wire::ACK_MD5_OK || a->code == wire::ACK_MD5_BAD ||
                              a->code == wire::ACK_INSTALLED || a->code == wire::ACK_ARM_FAILED;
      if (after_file) c->ready = wire::ACK_READY;
      if ((a->code == wire::ACK_INSTALLED || a->code == wire::ACK_ARM_FAILED) && c->verdict == 0)
        c->verdict = wire::ACK_MD5_OK;
      switch (a->code) {
        case wire::ACK_READY:
          c->ready = a->code;
          if (norm_ != nullptr) c->norm_node = a->norm_node;
          if (c->norm_node && first_norm_ready_ == time_point{}) first_norm_ready_ = now;
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
          if (norm_gave_up) {
            c->verdict = a->code;
            c->norm_gave_up = a->reason.empty() ? "no reason given" : a->reason;
            c->stream_only = true;  // the next round sends it the stream
            end_of_round(*c, now);
          } else if (c->verdict == 0) {
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
      if (restarted) installation_answer_lost(*c, now);
      if (!c->expect_reboot || now <= c->ended) return;
      if (restarted && !c->rebooted) {
        c->rebooted = true;
        came_back(*c, now, r->version);
      } else if (!c->back && (c->verdict == wire::ACK_MD5_BAD || c->norm_failed()) &&
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
      installation_answer_lost(*c, now);
      if (!c->expect_reboot) return;
      c->reported = c->confirmed = true;
      if (!c->rebooted) {
        c->rebooted = true;  // the report is sent once, at start-up
        came_back(*c, now, s->version);
      }
    }
  }

  // A camera back from its installation sends its report once and waits
  // for the confirmation without end; a report lost on the way is
  // confirmed unasked (three copies) a moment after the camera is back.
  void confirm_unheard_report(camera_state& c, time_point now) {
    if (c.result != wire::ACK_INSTALLED || !c.back || c.reported || c.confirmed ||
        between(c.back_at, now) < std::min(o_.report_wait, kReportGrace))
      return;
    for (int i = 0; i < 3; ++i) net_.send(channel::status, wire::status_confirmation(c.id, client_));
    c.confirmed = true;
    err_ << "  " << c.id << ": no post-upgrade report heard; confirmed unasked\n";
  }

  // A camera that restarted after its '5' without an installation answer
  // heard: the answer was lost (every installation ends in a reboot).
  void installation_answer_lost(camera_state& c, time_point now) {
    if (c.expect_reboot || c.verdict != wire::ACK_MD5_OK || c.result != 0) return;
    err_ << "  " << c.id << ": restarted, its installation's answer was not heard\n";
    end_of_round(c, now - std::chrono::seconds(1));
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
    first_norm_ready_ = time_point{};
    // A camera that took NORM gives up when no NORM data comes for a while
    // after its '0': once one did, the others have kNormAnswerGrace to answer.
    auto deadline = [&] {
      return first_norm_ready_ == time_point{} ? end
                                               : std::min(end, after(first_norm_ready_, kNormAnswerGrace));
    };
    while (!interrupted()) {
      std::vector<std::string> silent;
      for (camera_state* c : names)
        if (c->ready == 0) silent.push_back(c->id);
      if (silent.empty() || net_.now() >= deadline()) break;
      // The offer goes to every camera but those whose NORM transfer failed before.
      std::vector<std::string> offered, not_offered;
      for (const std::string& id : silent) (camera(id)->stream_only ? not_offered : offered).push_back(id);
      const int copies = net_.now() == start ? 2 : 1;
      for (int copy = 0; copy < copies; ++copy) {
        if (copy > 0) wait_until(after(net_.now(), kAnnounceCopyGap));
        for (bool offer : {true, false})
          for (const std::string& a : split_batch(offer ? offered : not_offered, [&](const auto& ids) {
                 return announcement(ids, offer);
               }))
            net_.send(channel::batch, a);
      }
      time_point next = std::min(deadline(), after(net_.now(), kAnnounceResend));
      while (net_.now() < next) {
        auto d = net_.receive(next);
        if (!d) break;
        handle(*d);
        if (std::all_of(names.begin(), names.end(), [](camera_state* c) { return c->ready != 0; }))
          break;
        next = std::min(next, deadline());
      }
    }
    std::vector<camera_state*> ready;
    for (camera_state* c : names) {
      if (c->ready == wire::ACK_READY) ready.push_back(c);
      if (c->ready == 0) err_ << "  " << c->id << ": no answer to the announcement\n";
    }
    if (ready.empty()) return;
    transfer(round, ready);
    follow(ready);
  }

  // NORM first (its cameras give up when no NORM data comes for a while
  // after their '0'), then the stream for the rest (the NORM cameras ignore
  // its packets).
  void transfer(int round, const std::vector<camera_state*>& ready) {
    std::vector<camera_state*> by_norm, by_stream;
    for (camera_state* c : ready) (c->norm_node ? by_norm : by_stream).push_back(c);
    transfer_context t{net_, file_, session_, o_, err_, round, [this](time_point at) { wait_until(at); }};
    if (!by_norm.empty()) {
      std::vector<uint32_t> nodes;
      for (camera_state* c : by_norm) nodes.push_back(*c->norm_node);
      try {
        norm_outcome n = norm_file(t, *norm_, nodes, [&](uint32_t node) {
          return std::any_of(by_norm.begin(), by_norm.end(),
                             [&](camera_state* c) { return *c->norm_node == node && c->verdict != 0; });
        });
        for (camera_state* c : by_norm) {
          c->transfers.back() = kTransferNormWord;
          c->wire_bytes += n.wire_bytes;
          c->norm_acked = std::find(n.acked.begin(), n.acked.end(), *c->norm_node) != n.acked.end();
        }
      } catch (const tool_error& e) {
        err_ << "round " << round << ": the NORM session did not start: " << e.what() << "\n";
        for (camera_state* c : by_norm) c->transfer_failed = std::string("NORM failed: ") + e.what();
      }
    }
    if (!by_stream.empty()) {
      uint64_t bytes = stream_file(t, by_stream.size());
      for (camera_state* c : by_stream) {
        c->transfers.back() = kTransferStreamWord;
        c->wire_bytes += bytes;
      }
    }
    stream_end_ = net_.now();
  }

  // One datagram; a long list of cameras takes several (split_batch).
  std::string announcement(const std::vector<std::string>& ids, bool offer) const {
    wire::announcement a;
    a.device_ids = ids;
    a.client_id = client_;
    a.session = session_;
    a.file_name = o_.file_name;
    a.md5 = md5_;
    a.file_size = file_.size();
    a.mode = o_.mode;
    std::string text = wire::build_announcement(a);
    if (offer && norm_ != nullptr) text += wire::transfer_offer_field(o_.norm_group);
    return text;
  }

  bool settled(camera_state& c, time_point now) {
    if (c.verdict == 0 && !c.transfer_failed.empty()) return true;
    if (c.verdict == 0) return between(stream_end_, now) > o_.verdict_wait;
    if (c.verdict == wire::ACK_WRITE_FAILED && !c.norm_failed()) return true;
    if (c.verdict == wire::ACK_MD5_OK && c.result == 0 && !c.back)
      return between(c.verdict_at, now) > o_.install_wait;
    if (!c.back) return between(c.ended, now) > o_.back_wait;
    if (c.result == wire::ACK_INSTALLED && !c.reported && !c.confirmed)
      return between(c.back_at, now) > o_.report_wait;
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
        confirm_unheard_report(*c, now);
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

  transport& net_;
  std::string client_;
  file_source& file_;
  const upgrade_options& o_;
  std::ostream& err_;
  norm_sender* norm_;  // nullptr: no camera is offered NORM
  std::string md5_, session_;
  std::vector<camera_state> cams_;
  time_point stream_end_{}, first_norm_ready_{};
};

}  // namespace

int run_upgrade(transport& net, const std::string& client_id, file_source& file,
                const upgrade_options& o, std::ostream& out, std::ostream& err, norm_sender* norm) {
  check_upgrade(o, file.size());
  return upgrade_run(net, client_id, file, o, err, norm).run(out);
}

}  // namespace camtool
