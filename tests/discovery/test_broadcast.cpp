#include "discovery/broadcast.h"

#include <gtest/gtest.h>

#include "disc_test_util.h"
#include "wire/broadcast.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

struct Broadcast : CameraFixtureBase, ::testing::Test {
  broadcast_ctx ctx;
  int tool = -1;
  sockaddr_in cam_addr{};
  Broadcast() {
    ctx.sock = bound_udp(&cam_addr);
    tool = bound_udp(&ctx.peer);
  }
  ~Broadcast() override {
    close_socket(ctx.sock);
    close_socket(tool);
  }
  int receive(const std::string& msg) { return broadcast_receive(&ctx, msg.c_str()); }
  // Replies are sent before broadcast_receive returns.
  std::optional<std::string> reply() { return recv_text(tool, 0); }
  // Console lines of one production-mode command.
  std::string production(const std::string& action, const std::string& extra = "") {
    CaptureStdout();
    receive(wire::broadcast::production_request(kDevId, action, extra));
    return GetCapturedStdout();
  }
};

const std::string kNetParams =
    "Network parameter\r\nDevice ID:" + kDevId +
    "\r\ndhcp=0\r\nipaddr=192.168.77.2\r\nnetmask=255.255.255.0\r\ngateway=192.168.77.1"
    "\r\nfdns=8.8.8.8\r\nmacaddr=02:00:00:00:00:01";

TEST_F(Broadcast, DiscoveryWinsOverNetconfigAndAnswersTheSender) {
  EXPECT_GT(receive("Camera netconfig\nDevice ID:" + kDevId + "\nDiscovery camera"), 0);
  EXPECT_EQ(reply(), kNetParams);
  EXPECT_EQ(cam.read("/data/net.conf").rfind("dhcp=0\nipaddr=192.168.77.2", 0), 0u);
  EXPECT_EQ(receive("discovery camera"), 0);
  EXPECT_FALSE(reply());
}

// The switch's course is followed on the LAN by the sandbox test; here the
// refusals and the actions that only log.
TEST_F(Broadcast, ProductionModeRefusalsAndLoggedActions) {
  receive(wire::broadcast::production_request(std::string(32, '1'), "action=test enable",
                                              "enable=on"));
  EXPECT_EQ(production_mode_enable(), 0);
  EXPECT_NE(production("action=central cross", "enable=on").find("production_mode_enable == 0"),
            std::string::npos);
  production("action=test enable", "enable=on");
  EXPECT_EQ(production_mode_enable(), 1);
  EXPECT_NE(production("action=central cross", "enable=off").find("central cross enable = off"),
            std::string::npos);
  EXPECT_NE(production("action=update model").find("not found model="), std::string::npos);
  EXPECT_FALSE(reply());
}

TEST_F(Broadcast, ReadsAtMost512BytesAndTerminatesThem) {
  int sender = bound_udp(nullptr);
  send_text(sender, cam_addr, "Discovery camera" + std::string(512 - 16, 'x'));
  EXPECT_GT(broadcast_serve_once(&ctx), 0);
  // The reply goes to whoever sent the datagram.
  EXPECT_EQ(recv_text(sender, 0), kNetParams);

  send_text(sender, cam_addr, std::string(512, 'x') + "Discovery camera");
  EXPECT_EQ(broadcast_serve_once(&ctx), 0);
  EXPECT_FALSE(recv_text(sender, 0));
  close_socket(sender);
}

}  // namespace
