// The opt-in transfer on a fake camera: what the '0' says when a tool
// offers NORM, what the receiver is told, and how a whole file, a vanished
// tool or an oversized object go on from there. The receiver is a fake that
// ends when the test says so.
#include <gtest/gtest.h>

#include <condition_variable>
#include <fstream>
#include <mutex>
#include <optional>
#include <string>

#include "disc_test_util.h"
#include "discovery/commands.h"
#include "discovery/norm_receiver.h"
#include "wire/replies.h"
#include "wire/upgrade.h"

namespace {

const std::string kSession(32, 's');
const std::string kDigest = "0123456789abcdef0123456789abcdef";
const wire::norm_offer kOffer{0xeffffffdu, 8010};

// Stands in for libnorm: records the job, says it listens (unless told to
// fail first), then waits for the test's verdict; a complete file is written
// where the job says.
class FakeNorm : public NormReceiver {
 public:
  norm_outcome receive(const norm_job& j, const std::function<bool()>& ready) override {
    std::unique_lock<std::mutex> l(mu_);
    running_ = true;
    job_ = j;
    cv_.notify_all();
    if (fail_to_start) return finish(l, norm_outcome::failed);
    l.unlock();
    const bool listening = ready();
    l.lock();
    if (!listening) return finish(l, norm_outcome::failed);
    cv_.wait(l, [this] { return verdict_.has_value(); });
    if (*verdict_ == norm_outcome::complete) std::ofstream(j.path, std::ios::binary) << data_;
    return finish(l, *verdict_);
  }
  void end(norm_outcome o, const std::string& data = "") {
    std::lock_guard<std::mutex> l(mu_);
    data_ = data;
    verdict_ = o;
    cv_.notify_all();
  }
  // Ends any session still running and waits until its thread let go.
  void drain() {
    end(norm_outcome::failed);
    std::unique_lock<std::mutex> l(mu_);
    cv_.wait(l, [this] { return !running_; });
  }
  std::optional<norm_job> job() {
    std::lock_guard<std::mutex> l(mu_);
    return job_;
  }
  bool fail_to_start = false;

 private:
  norm_outcome finish(std::unique_lock<std::mutex>&, norm_outcome o) {
    running_ = false;
    verdict_.reset();
    cv_.notify_all();
    return o;
  }
  std::mutex mu_;
  std::condition_variable cv_;
  std::optional<norm_job> job_;
  std::optional<norm_outcome> verdict_;
  std::string data_;
  bool running_ = false;
};

struct NormTransfer : CameraFixtureBase, ::testing::Test {
  LoopEndpoint loop;
  FakeNorm norm;
  NormTransfer() {
    daemon_state.work_mode = WORK_DEBUG;
    daemon_state.site = site_conf_t{};
    cam.platform().on("/usr/bin/md5sum", kDigest + "  file\n");
    set_norm_receiver(&norm);
  }
  ~NormTransfer() override {
    norm.drain();
    reset_mcast_upgrade();  // the receiver's thread has ended
    set_norm_receiver(nullptr);
    set_mcast_upgrade_in_progress(0);
  }
  void receive(const std::string& d) { mcast_receive(&loop.ep, d.data(), d.size()); }
  std::string announcement(bool offer, const std::string& session = kSession) {
    wire::announcement a;
    a.device_ids = {kDevId};
    a.client_id = kCliId;
    a.session = session;
    a.file_name = "pkg.zip";
    a.md5 = kDigest;
    a.file_size = 1000;
    a.mode = 1;
    return wire::build_announcement(a) + (offer ? wire::transfer_offer_field(kOffer) : "");
  }
  // The next acknowledgement as a tool reads it, repeats of the one before
  // skipped (a thread's answer may take a moment: the wait ends as soon as
  // it comes).
  std::optional<wire::upgrade_ack> ack(int timeout_ms = 20000) {
    for (;;) {
      auto r = loop.reply(timeout_ms);
      if (!r) return std::nullopt;
      if (*r == last_reply) {
        ++repeats;
        continue;
      }
      last_reply = *r;
      return wire::parse_upgrade_ack(*r);
    }
  }
  int repeats = 0;
  std::string last_reply;
};

TEST_F(NormTransfer, OfferTakenFileHandedToTheMd5CheckPacketsIgnored) {
  receive(announcement(true));
  auto a = ack();
  ASSERT_TRUE(a);
  EXPECT_EQ(a->code, '0');
  EXPECT_EQ(a->client_id, kSession);
  // The node ID is eth0's address (192.168.77.2 on the fake LAN).
  ASSERT_TRUE(a->norm_node) << last_reply;
  auto job = norm.job();
  ASSERT_TRUE(job);
  EXPECT_EQ(*a->norm_node, job->node_id);
  EXPECT_EQ(job->group, kOffer.group);
  EXPECT_EQ(job->port, kOffer.port);
  EXPECT_EQ(job->session, kSession);
  EXPECT_EQ(job->max_size, 1000u);
  EXPECT_EQ(job->silence_ms, 30000);
  EXPECT_EQ(job->path, cam.path("/dev/pkg.zip"));
  EXPECT_EQ(job->iface, "eth0");
  EXPECT_EQ(mcast_upgrade_in_progress(), 1);

  // The session's packets and a second announcement change nothing.
  receive(wire::build_packet('b', kSession, "XX", 2));
  receive(wire::build_packet('o', kSession, "YY", 2));
  receive(announcement(true, std::string(32, 'o')));
  a = ack();
  ASSERT_TRUE(a);
  EXPECT_EQ(a->code, '9');
  EXPECT_FALSE(a->norm_node);

  norm.end(norm_outcome::complete, "AB");
  a = ack();
  ASSERT_TRUE(a);
  EXPECT_EQ(a->code, '5');
  // Each answer of the session came three times ('9' once).
  EXPECT_EQ(loop.reply(), last_reply);
  EXPECT_EQ(loop.reply(), last_reply);
  EXPECT_EQ(repeats, 2);
  EXPECT_EQ(last_reply.find("Transfer"), std::string::npos);
  EXPECT_EQ(cam.read("/dev/pkg.zip"), "AB");
  EXPECT_TRUE(cam.platform().ran("/usr/bin/md5sum '/dev/pkg.zip'"));
  EXPECT_EQ(mcast_upgrade_in_progress(), 0);
  EXPECT_EQ(cam.platform().reboots(), 0);  // debugging: nothing installed
}

// Without an offer, with the site's switch off, or with a receiver that
// cannot start, the '0' is today's and the file comes as packets.
TEST_F(NormTransfer, OtherwiseTodaysZeroAndPackets) {
  std::string today;
  for (int round = 0; round < 3; ++round) {
    SCOPED_TRACE(round);
    reset_mcast_upgrade();
    daemon_state.site.norm_transfer = round == 1 ? 0 : 1;
    norm.fail_to_start = round == 2;
    receive(announcement(round != 0));
    auto a = ack();
    ASSERT_TRUE(a);
    EXPECT_EQ(a->code, '0');
    if (round == 0) today = last_reply;
    EXPECT_EQ(last_reply, today);
    EXPECT_FALSE(loop.reply(50));  // once
    receive(wire::build_packet('b', kSession, "A", 1));
    receive(wire::build_packet('o', kSession, "B", 1));
    a = ack();
    ASSERT_TRUE(a);
    EXPECT_EQ(a->code, '5');
    EXPECT_EQ(cam.read("/dev/pkg.zip"), "AB");
  }
  EXPECT_FALSE(norm.job()->path.empty());  // the failed start was asked
}

// A session that ends without the whole file answers '2' with the reason;
// a running camera reboots (its programs were stopped), a debugging one
// takes the next announcement.
TEST_F(NormTransfer, GivenUpSessionsAnswerTwoWithTheReason) {
  for (auto [outcome, reason] : {std::pair{norm_outcome::silence, "silence"},
                                 std::pair{norm_outcome::too_large, "size"}}) {
    SCOPED_TRACE(reason);
    receive(announcement(true));
    ASSERT_EQ(ack()->code, '0');
    norm.end(outcome);
    auto a = ack();
    ASSERT_TRUE(a);
    EXPECT_EQ(a->code, '2');
    EXPECT_EQ(a->reason, reason);
    EXPECT_EQ(cam.platform().reboots(), 0);
  }
  daemon_state.work_mode = WORK_NORMAL;
  receive(announcement(true));
  ASSERT_EQ(ack()->code, '0');
  norm.end(norm_outcome::silence);
  ASSERT_EQ(ack()->code, '2');
  // The reboot follows the answer on the receiver's thread: once that
  // thread has ended, the camera's last act was a reboot.
  reset_mcast_upgrade();
  EXPECT_GE(cam.platform().reboots(), 1);
  EXPECT_EQ(last_events(cam, 1), std::vector<std::string>{"reboot"});
}

}  // namespace
