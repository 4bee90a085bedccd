#include <gtest/gtest.h>

#include <random>
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
    sockaddr_in a;
    control = bound_udp(&a);
    set_local_control_port(ntohs(a.sin_port));
    cam.write("/customer/version_file", "v1.2.3\n");
    cam.write("/customer/device_model_file", "PTZ-X20\n");
  }
  ~Commands() override {
    set_local_control_port(kLocalControlPort);
    close(control);
  }
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

TEST_F(Commands, RepliesAndUnknownKeywordsAreIgnored) {
  for (const char* w :
       {"REPLY OK ", "SUCCEED *", "FAILED * ", "STATUS * ", "XXXXXXXXX", "", "CAMERA_UP"})
    receive(addressed(w));
  EXPECT_FALSE(reply());
  EXPECT_TRUE(cam.platform().events().empty());
}

TEST_F(Commands, ConfignetWritesRepliesAndReboots) {
  receive(addressed("CONFIGNET", "\ndhcp=0\nipaddr=10.1.1.9\nfdns=9.9.9.9"));
  EXPECT_EQ(reply(), "SUCCEED *" + ids());
  EXPECT_EQ(cam.read("/data/net.conf"), "dhcp=0\nipaddr=10.1.1.9\nfdns=9.9.9.9");
  EXPECT_EQ(cam.read("/etc/resolv.conf"), "nameserver 9.9.9.9\n");
  EXPECT_EQ(control_msg(), std::string("\x88\x0B\x01\xAA\xFF", 5));
  auto ev = cam.platform().events();
  std::vector<std::string> tail(ev.end() - 4, ev.end());
  EXPECT_EQ(tail, (std::vector<std::string>{"sync", "sleep:2000000", "sleep:5000000", "reboot"}));
}

TEST_F(Commands, WrongDeviceIdIsSilent) {
  std::string wrong = "CONFIGNET\r\nDevice ID:" + std::string(32, '0') + "\r\nClient ID:" + kCliId;
  for (const char* kw : {"CONFIGNET", "CAMERA_RE", "LUMCONFIG", "CAMERA_FL", "BOARD_TES",
                         "PRODUCTIO", "CAMERA_QU"}) {
    receive(kw + wrong.substr(9) + "\r\nstatus=open\nSerial No:1\nMac Address:2");
  }
  EXPECT_FALSE(reply());
  EXPECT_FALSE(control_msg());
  EXPECT_EQ(cam.platform().reboots(), 0);
  EXPECT_EQ(cam.read("/data/net.conf"), "dhcp=0\nipaddr=192.168.77.2\nmacaddr=02:00:00:00:00:01\n");
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
  // board test). Type 4 (K5): SDI only; unknown type: no probe fields.
  receive(addressed("BOARD_TES", "\r\nTYPE=R300I\r\nSDI_Test=true"));
  auto r = reply();
  ASSERT_TRUE(r);
  EXPECT_NE(r->find("\r\nARM=0\r\nSDI=0\r\nSTATUS=Test finish"), std::string::npos);
  receive(addressed("BOARD_TES", "\r\nTYPE=K5\r\nSDI_Test=true\r\nHDMI_Test=true"));
  r = reply();
  ASSERT_TRUE(r);
  EXPECT_NE(r->find("v1.2.3\r\nSDI=0\r\nSTATUS=Test finish"), std::string::npos);
  receive(addressed("BOARD_TES", "\r\nUSB_Test=false"));
  r = reply();
  ASSERT_TRUE(r);
  EXPECT_NE(r->find("v1.2.3\r\nSTATUS=Test finish"), std::string::npos);
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

TEST_F(Commands, ProductionCounters) {
  cam.platform().on("cat /data/boot_times.dat", "12\n");
  cam.platform().on("cat /data/curve_times.dat", "");
  receive(addressed("PRODUCTIO"));
  EXPECT_EQ(reply(), "PRODUCTIO" + ids() + "\r\nboot_times:12\r\ncurve_times:0");
}

// Random datagrams built from protocol fragments, NUL bytes and noise: the
// handler must neither crash nor read outside the bytes it was given (the
// sanitizers watch every case). Reboots and sleeps go to the fake.
TEST_F(Commands, RandomDatagramsStayInBounds) {
  NoHdmi no_hdmi;
  I2cPort* prev = set_i2c_port(&no_hdmi);
  // The first nine are keywords: a datagram may start with one.
  const std::vector<std::string> parts = {
      "SEARCH * ", "CONFIGNET", "CAMERA_RE", "LUMCONFIG", "CAMERA_FL", "BOARD_TES", "CAMERA_QU",
      "PRODUCTIO", "CAMERA_UP", "Device ID:", "Client ID:", "Serial No:", "Mac Address:", "fdns=",
      "status=open", "TYPE=K5", "TYPE=R300I", "SDI_Test=true", "HDMI_Test=true", "USB_Test=true",
      "\r\n", "\n", std::string(1, '\0'), "0099", "0002", kDevId, kCliId, kDevId.substr(0, 20),
      "Cli", "Dev"};
  std::mt19937 rng(20261121);
  for (int i = 0; i < 3000; ++i) {
    std::string d;
    int pieces = static_cast<int>(rng() % 8);
    if (rng() % 2) d = parts[rng() % 9];
    for (int k = 0; k < pieces; ++k) {
      if (rng() % 4 == 0) {
        int n = static_cast<int>(rng() % 40);
        for (int j = 0; j < n; ++j) d += static_cast<char>(rng() & 0xFF);
      } else {
        d += parts[rng() % parts.size()];
      }
    }
    if (d.size() > kBatchDatagram) d.resize(kBatchDatagram);
    // An exactly sized heap copy: any read past its end is reported.
    std::vector<char> exact(d.begin(), d.end());
    mcast_receive(&loop.ep, exact.data(), exact.size());
    while (loop.reply(0)) {
    }
    while (recv_text(control, 0)) {
    }
  }
  // Every prefix of real commands: keys and IDs cut at the very end.
  const std::vector<std::string> commands = {
      search_msg(), addressed("CONFIGNET", "\ndhcp=0\nfdns=1.1.1.1"),
      "LUMCONFIG\nDevice ID:" + kDevId + "\nClient ID:" + kCliId + "\nSerial No:S\nMac Address:M",
      addressed("BOARD_TES", "\r\nTYPE=R300I\r\nSDI_Test=true\r\nUSB_Test=true"),
      "CAMERA_QU\r\nDevice ID:0002" + std::string(32, 'a') + kDevId + "\r\nClient ID:" + kCliId};
  for (const auto& c : commands) {
    for (size_t n = 0; n <= c.size(); ++n) {
      std::vector<char> exact(c.begin(), c.begin() + static_cast<std::ptrdiff_t>(n));
      mcast_receive(&loop.ep, exact.data(), exact.size());
    }
  }
  while (loop.reply(0)) {
  }
  set_i2c_port(prev);
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
