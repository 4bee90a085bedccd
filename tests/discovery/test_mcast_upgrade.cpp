// The multicast upgrade's announcement and packet handling, on a fake
// camera: acknowledgements as a tool on the group reads them, the stored
// file, and what the handler runs.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "disc_test_util.h"
#include "discovery/commands.h"
#include "wire/signature.h"
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
                           const std::string& client = kCliId, int mode = 1, int size = 1000) {
    wire::announcement a;
    a.device_ids = {std::string(32, '1'), kDevId};
    a.client_id = client;
    a.session = session;
    a.file_name = name;
    a.md5 = kDigest;
    a.file_size = static_cast<uint64_t>(size);
    a.mode = mode;
    return wire::build_announcement(a);
  }
  // A whole transfer of `data` announced as `name` by `mode`.
  void transfer(const std::string& name, int mode, const std::string& data = "AB") {
    receive(announcement(name, kSession, kCliId, mode));
    EXPECT_EQ(ack(), kSession + " 0");
    packet('b', data.substr(0, 1));
    packet('o', data.substr(1));
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
  // Nothing past the announced size is stored: a first packet that does not
  // fit fails as a short write does.
  receive(announcement("big.bin", kSession, kCliId, 1, 3));
  EXPECT_EQ(ack(), kSession + " 0");
  packet('b', "AAAA");
  EXPECT_EQ(ack(), kSession + " 2");

  // A middle packet that does not fit closes the file without a reply; the
  // last one then fails on the closed file: '2', and no md5 check.
  receive(announcement("pkg.zip", kSession, kCliId, 1, 6));
  EXPECT_EQ(ack(), kSession + " 0");
  packet('b', "AAAA");
  packet('t', "BBBB");
  packet('t', "CCCC");
  EXPECT_EQ(ack(50), "");
  packet('o', "D");
  EXPECT_EQ(cam.read("/dev/pkg.zip"), "AAAABB");
  EXPECT_EQ(ack(), kSession + " 2");
  EXPECT_EQ(ack(50), "");
  for (const auto& c : cam.platform().commands()) EXPECT_EQ(c.find("md5sum"), std::string::npos);

  // A negative size is no size: refused as lack of space.
  std::string negative = announcement("neg.bin", kOther);
  negative.replace(negative.find("File size:1000"), 14, "File size:-5");
  receive(negative);
  EXPECT_EQ(ack(), kOther + " 1");
  EXPECT_EQ(mcast_upgrade_in_progress(), 0);
}

// Names that are not plain new files in /dev: an existing device node, link,
// folder or pipe, one of the daemon's own files, or a way out of /dev. They
// get '6' under the previous requester's ID (the new session is not taken)
// and, even while debugging, nothing is opened or stored under them.
TEST_F(McastUpgrade, NamesOfDevicesLinksAndTheDaemonsOwnFilesAreRefused) {
  cam.write("/dev/fw_setenv", "tool");
  cam.write("/elsewhere/target", "keep");
  std::filesystem::create_symlink(cam.path("/elsewhere/target"), cam.path("/dev/link.bin"));
  std::filesystem::create_directories(cam.path("/dev/sub.img"));
  ASSERT_EQ(mkfifo(cam.path("/dev/watchdog").c_str(), 0600), 0);

  transfer("first.zip", 1);  // a requester before: its session is the ID
  EXPECT_EQ(ack(), kSession + " 5");
  for (const char* name : {"fw_setenv", "mtd_upgrade", "dhcp_ok", "link.bin", "sub.img",
                           "watchdog", "../data/x", "a\tb"}) {
    receive(announcement(name, kOther));
    EXPECT_EQ(ack(), kSession + " 6") << name;
    EXPECT_EQ(ack(50), "") << name;  // no '0': the announcement went no further
  }
  EXPECT_EQ(cam.read("/dev/fw_setenv"), "tool");
  EXPECT_EQ(cam.read("/elsewhere/target"), "keep");
  struct stat st;
  ASSERT_EQ(lstat(cam.path("/dev/watchdog").c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_EQ(cam.platform().reboots(), 0);

  // Not debugging: the same refusal reboots the camera.
  daemon_state.work_mode = WORK_NORMAL;
  receive(announcement("link.bin", kOther));
  EXPECT_EQ(ack(), kSession + " 6");
  EXPECT_EQ(cam.platform().reboots(), 1);
}

// A name refused only for what a shell would do with it: '6', and while
// debugging the announcement goes on and the file is stored under the name
// (every shell line quotes it).
TEST_F(McastUpgrade, DebuggingGoesOnAfterANameRefusedForShellCharacters) {
  receive(announcement("a;b.zip", kOther));
  auto refused = loop.reply();
  ASSERT_TRUE(refused);
  EXPECT_NE(refused->find("Client ID:\r\nDevice ID:"), std::string::npos) << *refused;
  EXPECT_EQ(refused->back(), '6');
  EXPECT_EQ(ack(), kOther + " 0");
  packet('b', "X", kOther);
  packet('o', "Y", kOther);
  EXPECT_EQ(ack(), kOther + " 5");
  EXPECT_EQ(cam.read("/dev/a;b.zip"), "XY");
  EXPECT_TRUE(cam.platform().ran("/usr/bin/md5sum '/dev/a;b.zip'"));
}

// Modes below 1 store and verify the file but install nothing: no '7', no
// reboot, and the camera takes the next announcement.
TEST_F(McastUpgrade, ModeZeroIsATransferOnly) {
  daemon_state.work_mode = WORK_NORMAL;
  transfer("probe.bin", 0);
  EXPECT_EQ(ack(), kSession + " 5");
  EXPECT_EQ(ack(50), "");
  EXPECT_EQ(cam.platform().reboots(), 0);
  EXPECT_EQ(cam.read("/dev/probe.bin"), "AB");
  receive(announcement("next.bin", kOther));
  EXPECT_EQ(ack(), kOther + " 0");
}

// The mark of the last confirmed report goes as soon as the md5 matched,
// whatever the installation then does: a failed controller programming
// ('8') reports too once the camera is back.
TEST_F(McastUpgrade, ReportMarkIsRemovedBeforeTheInstallationRuns) {
  daemon_state.work_mode = WORK_NORMAL;
  cam.write("/customer/upgrade_finish_flag", "");
  cam.platform().on("/customer/arm_upgrade", "", 1);
  bool mark_gone_at_programmer = false;
  cam.platform().on_command([&](const std::string& cmd) {
    if (cmd.find("/customer/arm_upgrade") != std::string::npos)
      mark_gone_at_programmer = !cam.exists("/customer/upgrade_finish_flag");
  });
  transfer("X_ARM_V1.bin", 2);
  EXPECT_EQ(ack(), kSession + " 5");
  EXPECT_EQ(ack(), kSession + " 8");
  EXPECT_TRUE(mark_gone_at_programmer);
}

// While an installation runs, another announcement on the other listener is
// answered '9' at once under its own ID, and packets are dropped: neither
// listener waits for the installation.
TEST_F(McastUpgrade, AnnouncementDuringTheInstallationIsAnsweredBusyAtOnce) {
  daemon_state.work_mode = WORK_NORMAL;
  LoopEndpoint other;
  std::string during;
  cam.platform().on_command([&](const std::string& cmd) {
    if (cmd.find("/customer/arm_upgrade") == std::string::npos) return;
    // The other listener's thread (a handler that waited for the
    // installation would never return here).
    std::thread listener([&] {
      const std::string a = announcement("again.zip", kOther, std::string(32, 'c'));
      mcast_receive(&other.ep, a.data(), a.size());
      const std::string p = wire::build_packet('b', kSession, "Z", 1);
      mcast_receive(&other.ep, p.data(), p.size());
    });
    listener.join();
    auto r = other.reply();
    during = r ? *r : "none";
  });
  transfer("X_ARM_V1.bin", 2);
  EXPECT_EQ(ack(), kSession + " 5");
  EXPECT_EQ(ack(), kSession + " 7");
  ASSERT_NE(during, "none");
  EXPECT_EQ(during.substr(during.find("Client ID:") + 10, 32), std::string(32, 'c'));
  EXPECT_EQ(during.back(), '9');
  EXPECT_EQ(cam.read("/dev/X_ARM_V1.bin"), "AB");
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

// A keyed camera: a file without a good signature is answered '6' with the
// reason, the camera reboots and nothing is installed or cut; a signed one
// loses its signature trailer before '5'.
TEST_F(McastUpgrade, KeyedCameraTakesOnlyWhatASiteKeySigned) {
  daemon_state.work_mode = WORK_NORMAL;
  wire::key_pair site = wire::generate_key_pair(), stranger = wire::generate_key_pair();
  cam.write("/customer/keys/site.pub", wire::format_public_key(site.pub));
  const std::string payload = "PK\x03\x04 package bytes";
  auto signed_by = [&](const wire::key_pair& k) {
    wire::prehash h;
    h.update(payload.data(), payload.size());
    return payload + wire::build_trailer(wire::format_signature(
                         wire::sign_prehashed(k.sec, h.final(), "file:pkg.zip")));
  };
  int reboots = 0;
  for (const std::string& data : {payload, signed_by(stranger)}) {
    transfer("pkg.zip", 1, data);
    auto r = loop.reply(300);
    ASSERT_TRUE(r);
    EXPECT_NE(r->find("\r\nAck:6\r\nReason:signature"), std::string::npos) << *r;
    EXPECT_EQ(cam.platform().reboots(), ++reboots);
    EXPECT_EQ(cam.read("/dev/pkg.zip"), data);
  }
  for (const std::string& ev : cam.platform().events()) EXPECT_EQ(ev.find("unzip"), std::string::npos) << ev;

  transfer("pkg.zip", 0, signed_by(site));
  EXPECT_EQ(ack(), kSession + " 5");
  EXPECT_EQ(cam.read("/dev/pkg.zip"), payload);
  EXPECT_EQ(cam.platform().reboots(), reboots);
}
