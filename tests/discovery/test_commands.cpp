#include <gtest/gtest.h>

#include <regex>
#include <thread>

#include "disc_test_util.h"
#include "discovery/commands.h"
#include "discovery/oem_serial.h"
#include "video_out/sii9022.h"

namespace {

struct Commands : CameraFixtureBase, ::testing::Test {
  LoopEndpoint loop;
  int control = -1;  // the local control service
  Commands() {
    control = local_control_service(lan);
    cam.write("/customer/version_file", "v1.2.3\n");
    cam.write("/customer/device_model_file", "PTZ-X20\n");
  }
  ~Commands() override { close_socket(control); }
  void receive(const std::string& d) { mcast_receive(&loop.ep, d.data(), d.size()); }
  std::optional<std::string> reply() { return loop.reply(); }
  std::optional<std::string> control_msg() { return recv_text(control, 100); }
  std::string addressed(const std::string& kw, const std::string& rest = "") {
    return kw + "\r\nDevice ID:" + kDevId + "\r\nClient ID:" + kCliId + rest;
  }
  std::string ids() const { return "\r\nClient ID:" + kCliId + "\r\nDevice ID:" + kDevId; }
};

std::string search_msg() { return "SEARCH * " + std::string(19, '-') + kCliId; }

TEST_F(Commands, SearchReplyFieldsInOrder) {
  oem_serial_write("SN-42");
  receive(search_msg());
  auto r = reply();
  ASSERT_TRUE(r);
  std::string fixed = std::regex_replace(*r, std::regex("Uptime=[0-9]+"), "Uptime=N");
  EXPECT_EQ(fixed, "REPLY OK \r\nVERSION:v1.2.3\r\nDEVICE_MODEL:PTZ-X20" + ids() +
                       "\r\nUptime=N\r\nDHCP=0\r\nLUM_Serial_No=SN-42\r\nIP=192.168.77.2"
                       "\r\nMASK=255.255.255.0\r\nGATEWAY=192.168.77.1"
                       "\r\nMAC=02:00:00:00:00:01\r\nFDNS=8.8.8.8");
}

TEST_F(Commands, SearchWithoutModelOrVersionAndShortDatagrams) {
  remove(cam.path("/customer/device_model_file").c_str());
  remove(cam.path("/customer/version_file").c_str());
  cam.write("/data/net.conf", "dhcp=1\n");
  receive("SEARCH * \r\nClient ID:abc");  // shorter than the requester's offset
  auto r = reply();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->find("VERSION"), std::string::npos);
  EXPECT_EQ(r->find("DEVICE_MODEL"), std::string::npos);
  EXPECT_EQ(r->rfind("REPLY OK \r\nClient ID:\r\nDevice ID:" + kDevId, 0), 0u);
  EXPECT_NE(r->find("\r\nDHCP=1\r\n"), std::string::npos);

  receive("SEARCH *");  // no ninth blank
  receive(std::string("SEARCH *\0", 9));
  receive("search * ");
  EXPECT_FALSE(reply());
}

// Replies heard on the group, unknown keywords and commands naming another
// camera: no answer, no notice, no shell, no reboot, net.conf untouched.
TEST_F(Commands, RepliesUnknownKeywordsAndOtherCamerasAreSilent) {
  for (const char* w :
       {"REPLY OK ", "SUCCEED *", "FAILED * ", "STATUS * ", "XXXXXXXXX", "", "CAMERA_UP"})
    receive(addressed(w));
  const std::string wrong = "\r\nDevice ID:" + std::string(32, '0') + "\r\nClient ID:" + kCliId +
                            "\r\nstatus=open\nSerial No:1\nMac Address:2";
  for (const char* kw : {"CONFIGNET", "CAMERA_RE", "LUMCONFIG", "CAMERA_FL", "BOARD_TES",
                         "PRODUCTIO", "CAMERA_QU"})
    receive(kw + wrong);
  EXPECT_FALSE(reply());
  EXPECT_FALSE(control_msg());
  EXPECT_TRUE(cam.platform().events().empty());
  EXPECT_EQ(cam.read("/data/net.conf"), "dhcp=0\nipaddr=192.168.77.2\nmacaddr=02:00:00:00:00:01\n");
}

TEST_F(Commands, ConfignetWritesRepliesAndReboots) {
  receive(addressed("CONFIGNET", "\ndhcp=0\nipaddr=10.1.1.9\nfdns=9.9.9.9"));
  EXPECT_EQ(reply(), "SUCCEED *" + ids());
  EXPECT_EQ(cam.read("/data/net.conf"), "dhcp=0\nipaddr=10.1.1.9\nfdns=9.9.9.9");
  EXPECT_EQ(cam.read("/etc/resolv.conf"), "nameserver 9.9.9.9\n");
  EXPECT_EQ(control_msg(), std::string("\x88\x0B\x01\xAA\xFF", 5));
  EXPECT_EQ(last_events(cam, 4),
            (std::vector<std::string>{"sync", "sleep:2000000", "sleep:5000000", "reboot"}));
}

TEST_F(Commands, LedFlicker) {
  receive(addressed("CAMERA_FL", "\r\nstatus=close\r\nstatus=open"));
  EXPECT_EQ(control_msg(), std::string("\x81\x0A\x02\x01\x02\xFF", 6));
  receive(addressed("CAMERA_FL", "\r\nstatus=close"));
  EXPECT_EQ(control_msg(), std::string("\x81\x0A\x02\x01\x03\xFF", 6));
  receive(addressed("CAMERA_FL", "\r\nstatus=blink"));
  EXPECT_FALSE(control_msg());
  EXPECT_FALSE(reply());
}

class NoHdmi : public I2cPort {
  int open_bus(const char*) override {
    errno = ENOENT;
    return -1;
  }
};

TEST_F(Commands, BoardTestFields) {
  NoHdmi no_hdmi;
  I2cPort* prev = set_i2c_port(&no_hdmi);
  daemon_state.pid_num = 1;
  strcpy(daemon_state.pid_list[0], "camera_app");
  get_net_info();
  cam.platform().clear();
  cam.platform().on("mount | grep /mnt/usb", "/dev/sda1 on /mnt/usb\n");
  receive(addressed("BOARD_TES", "\r\nTYPE=RQ500T\r\nUSB_Test=true\r\nHDMI_Test=true"));
  // The controller probe is not answering here: "ARM=0"; no HDMI bus: no field.
  EXPECT_EQ(reply(), "BOARD_TEST" + ids() +
                         "\r\nIP=192.168.77.2\r\nMAC=02:00:00:00:00:01\r\nv1.2.3"
                         "\r\nUSB=1\r\nARM=0\r\nSTATUS=Test finish");
  auto cmds = cam.platform().commands();
  ASSERT_GE(cmds.size(), 2u);
  EXPECT_EQ(cmds[0], "killall -2 camera_app");
  EXPECT_EQ(cmds[1], "killall -9 autofocus");

  // Type 8: ARM, then SDI (its pin set-up around the probe: the sandbox's
  // board test). Type 4 (K5): SDI only; unknown type: no probe fields; no
  // disk mounted: "USB=0".
  cam.platform().on("mount | grep /mnt/usb", "");
  const std::pair<const char*, const char*> rows[] = {
      {"\r\nTYPE=R300I\r\nSDI_Test=true", "\r\nARM=0\r\nSDI=0\r\nSTATUS=Test finish"},
      {"\r\nTYPE=K5\r\nSDI_Test=true\r\nHDMI_Test=true", "v1.2.3\r\nSDI=0\r\nSTATUS=Test finish"},
      {"\r\nUSB_Test=false", "v1.2.3\r\nSTATUS=Test finish"},
      {"\r\nUSB_Test=true", "v1.2.3\r\nUSB=0\r\nSTATUS=Test finish"}};
  for (const auto& [body, tail] : rows) {
    receive(addressed("BOARD_TES", body));
    auto r = reply();
    ASSERT_TRUE(r) << body;
    EXPECT_NE(r->find(tail), std::string::npos) << body << " -> " << *r;
  }
  set_i2c_port(prev);
}

TEST_F(Commands, CameraQueryBatchAndUpgradeInProgress) {
  strcpy(daemon_state.mtd_summary, "mtd0: 00080000 00010000 \"boot\"\n");
  std::string q =
      "CAMERA_QU\r\nDevice ID:0002" + std::string(32, 'a') + kDevId + "\r\nClient ID:" + kCliId;
  receive(q);
  EXPECT_EQ(reply(), "REPLYQ OK" + ids() +
                         "\r\nVersion:v1.2.3\r\nMtdInfo:mtd0: 00080000 00010000 \"boot\"\n");
  set_mcast_upgrade_in_progress(1);
  receive(q);
  EXPECT_FALSE(reply());
}

// Counters as the shell prints them; an empty or unreadable counter is 0.
TEST_F(Commands, ProductionCounters) {
  cam.platform().on("cat /data/boot_times.dat", "12\n");
  cam.platform().popen_fails("cat /data/curve_times.dat");
  receive(addressed("PRODUCTIO"));
  EXPECT_EQ(reply(), "PRODUCTIO" + ids() + "\r\nboot_times:12\r\ncurve_times:0");
  cam.platform().on("cat /data/boot_times.dat", "");
  receive(addressed("PRODUCTIO"));
  EXPECT_EQ(reply(), "PRODUCTIO" + ids() + "\r\nboot_times:0\r\ncurve_times:0");
}

// Both listeners run handlers at once: the shared records stay whole (the
// thread sanitizer run checks the locking).
TEST_F(Commands, ConcurrentHandlersOnBothEndpoints) {
  LoopEndpoint batch;
  auto worker = [&](mcast_endpoint* ep, const std::string& d) {
    for (int i = 0; i < 40; ++i) mcast_receive(ep, d.data(), d.size());
  };
  std::string query = "CAMERA_QU\r\nDevice ID:0001" + kDevId + "\r\nClient ID:" + kCliId;
  std::thread a(worker, &loop.ep, search_msg());
  std::thread b(worker, &batch.ep, query);
  a.join();
  b.join();
  int searches = 0, queries = 0;
  while (auto r = loop.reply(50)) searches += r->rfind("REPLY OK ", 0) == 0;
  while (auto r = batch.reply(50)) queries += r->rfind("REPLYQ OK", 0) == 0;
  EXPECT_EQ(searches, 40);
  EXPECT_EQ(queries, 40);
}

}  // namespace
