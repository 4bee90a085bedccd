// The multicast upgrade's announcement and packet handling, on a fake
// camera: acknowledgements as a tool on the group reads them, the stored
// file, and what the handler runs.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "disc_test_util.h"
#include "discovery/commands.h"
#include "wire/upgrade.h"

namespace {

const std::string kSession(32, 's');
const std::string kOther(32, 'o');
const std::string kDigest = "0123456789abcdef0123456789abcdef";

struct McastUpgrade : CameraFixtureBase, ::testing::Test {
  LoopEndpoint loop;
  McastUpgrade() {
    daemon_state.work_mode = WORK_DEBUG;
    cam.platform().on("/usr/bin/md5sum", kDigest + "  file\n");
  }
  ~McastUpgrade() override { set_mcast_upgrade_in_progress(0); }

  void receive(const std::string& d) { mcast_receive(&loop.ep, d.data(), d.size()); }
  std::string announcement(const std::string& name, const std::string& session = kSession,
                           const std::string& client = kCliId, int mode = 1) {
    wire::announcement a;
    a.device_ids = {std::string(32, '1'), kDevId};
    a.client_id = client;
    a.session = session;
    a.file_name = name;
    a.md5 = kDigest;
    a.file_size = 1000;
    a.mode = mode;
    return wire::build_announcement(a);
  }
  void packet(char kind, const std::string& data, const std::string& session = kSession) {
    receive(wire::build_packet(kind, session, data.data(), data.size()));
  }
  // The next acknowledgement: "<client ID> <code>", or "" when none came.
  std::string ack(int timeout_ms = 300) {
    auto r = loop.reply(timeout_ms);
    if (!r) return "";
    std::string head = "REPLYU DO\r\nClient ID:";
    EXPECT_EQ(r->rfind(head, 0), 0u) << *r;
    EXPECT_NE(r->find("\r\nDevice ID:" + kDevId + "\r\nAck:"), std::string::npos) << *r;
    return r->substr(head.size(), 32) + " " + r->back();
  }
};

TEST_F(McastUpgrade, AcceptedTransferIsStoredAndVerifiedOtherSessionsAreNot) {
  receive(announcement("pkg.zip"));
  EXPECT_EQ(ack(), kSession + " 0");
  EXPECT_EQ(mcast_upgrade_in_progress(), 1);
  // /dev is cleared of logs, recordings and images before the file comes.
  for (const char* cmd : {"rm -rf /dev/*.log", "echo  > /dev/video4.mp4", "rm -rf /dev/*.img"})
    EXPECT_TRUE(cam.platform().ran(cmd)) << cmd;

  // Another tool's announcement gets '9' under its own client ID; another
  // session's packets, short datagrams and unknown kinds are not stored.
  receive(announcement("other.zip", kOther, std::string(32, 'c')));
  EXPECT_EQ(ack(), std::string(32, 'c') + " 9");
  packet('b', "AAA");
  packet('t', "XXX", kOther);
  packet('t', "BBB");
  packet('o', "ZZZ", kOther);
  receive("CAMERA_UPt");  // shorter than a packet header
  packet('x', "???");
  packet('o', "CC");
  EXPECT_EQ(cam.read("/dev/pkg.zip"), "AAABBBCC");
  EXPECT_EQ(ack(), kSession + " 5");
  EXPECT_EQ(mcast_upgrade_in_progress(), 0);
  EXPECT_TRUE(cam.platform().ran("/usr/bin/md5sum '/dev/pkg.zip'"));
  // Debugging: nothing installed, no reboot.
  EXPECT_EQ(cam.platform().reboots(), 0);
  for (const auto& e : cam.platform().events()) EXPECT_NE(e, "fork");
  EXPECT_EQ(ack(100), "");
}

TEST_F(McastUpgrade, FailedWritesAnswerTwoAndAClosedFileStaysClosed) {
  // The first packet cannot be written whole.
  std::filesystem::create_symlink("/dev/full", cam.path("/dev/full.bin"));
  receive(announcement("full.bin"));
  EXPECT_EQ(ack(), kSession + " 0");
  packet('b', "A");
  EXPECT_EQ(ack(), kSession + " 2");

  // A middle packet that does not fit closes the file without a reply; the
  // last one then fails on the closed file: '2', and no md5 check.
  receive(announcement("pkg.zip"));
  EXPECT_EQ(ack(), kSession + " 0");
  struct rlimit old;
  getrlimit(RLIMIT_FSIZE, &old);
  struct rlimit small = old;
  small.rlim_cur = 6;
  sighandler_t prev = signal(SIGXFSZ, SIG_IGN);
  setrlimit(RLIMIT_FSIZE, &small);
  packet('b', "AAAA");
  packet('t', "BBBB");
  packet('t', "CCCC");
  setrlimit(RLIMIT_FSIZE, &old);
  signal(SIGXFSZ, prev);
  EXPECT_EQ(ack(50), "");
  packet('o', "D");
  EXPECT_EQ(cam.read("/dev/pkg.zip"), "AAAABB");
  EXPECT_EQ(ack(), kSession + " 2");
  EXPECT_EQ(ack(50), "");
  for (const auto& c : cam.platform().commands()) EXPECT_EQ(c.find("md5sum"), std::string::npos);
}

TEST_F(McastUpgrade, AnnouncementWithoutModeKeepsThePreviousOne) {
  daemon_state.work_mode = WORK_NORMAL;
  cam.platform().fork_result = 4242;  // the parent's side of every fork
  receive(announcement("ctl.bin", kSession, kCliId, 2));
  EXPECT_EQ(ack(), kSession + " 0");
  set_mcast_upgrade_in_progress(0);  // as if the transfer had ended
  std::string again = announcement("ctl.bin", kOther);
  again.erase(again.find("\r\nUpgrade Mode:"));
  receive(again);
  EXPECT_EQ(ack(), kOther + " 0");
  testing::internal::CaptureStdout();
  packet('b', "A", kOther);
  packet('o', "B", kOther);
  std::string out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(ack(), kOther + " 5");
  EXPECT_NE(out.find("current upgrade: arm upgrade"), std::string::npos);
}

}  // namespace
