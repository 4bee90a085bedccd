// A keyed camera takes changing commands only when a site key signed them
// over its current challenge: each signature works once, and protocols
// that cannot carry one change nothing. Searches and queries stay open.
#include <gtest/gtest.h>

#include "disc_test_util.h"
#include "discovery/broadcast.h"
#include "discovery/commands.h"
#include "wire/broadcast.h"
#include "wire/replies.h"
#include "wire/signature.h"

namespace {

struct KeyedCamera : CameraFixtureBase, ::testing::Test {
  LoopEndpoint loop;
  wire::key_pair site = wire::generate_key_pair();
  KeyedCamera() { cam.write("/customer/keys/site.pub", wire::format_public_key(site.pub)); }
  void receive(const std::string& d) { mcast_receive(&loop.ep, d.data(), d.size()); }
  std::string challenge() {
    receive("SEARCH * " + std::string(19, '-') + kCliId);
    auto r = loop.reply();
    EXPECT_TRUE(r);
    auto rec = wire::parse_search_reply(r ? *r : "");
    EXPECT_TRUE(rec);
    return rec ? rec->challenge : "";
  }
  std::string confignet(const std::string& ip) {
    return "CONFIGNET\r\nDevice ID:" + kDevId + "\r\nClient ID:" + kCliId + "\ndhcp=0\nipaddr=" + ip;
  }
};

TEST_F(KeyedCamera, SignedCommandsRunOnceUnsignedOrForeignNever) {
  const std::string c1 = challenge();
  EXPECT_EQ(c1.size(), wire::kChallengeLen);
  const std::string before = cam.read("/data/net.conf");
  wire::key_pair stranger = wire::generate_key_pair();
  for (const std::string& cmd : {confignet("10.0.0.66"),
                                 wire::sign_command(stranger.sec, confignet("10.0.0.66"), c1),
                                 wire::sign_command(site.sec, confignet("10.0.0.66"), "0" + c1.substr(1)),
                                 wire::sign_command(site.sec, confignet("10.0.0.6"), c1).replace(
                                     confignet("10.0.0.6").size() - 1, 1, "7")}) {
    receive(cmd);
    EXPECT_FALSE(loop.reply(50)) << cmd;
  }
  EXPECT_EQ(cam.read("/data/net.conf"), before);
  EXPECT_EQ(cam.platform().reboots(), 0);

  const std::string good = wire::sign_command(site.sec, confignet("10.0.0.9"), c1);
  receive(good);
  EXPECT_EQ(loop.reply(), "SUCCEED *\r\nClient ID:" + kCliId + "\r\nDevice ID:" + kDevId);
  // The handler saw the command without its signature.
  EXPECT_EQ(cam.read("/data/net.conf"), "dhcp=0\nipaddr=10.0.0.9");
  EXPECT_EQ(cam.platform().reboots(), 1);

  const std::string c2 = challenge();
  EXPECT_NE(c2, c1);
  receive(good);  // replayed
  EXPECT_FALSE(loop.reply(50));
  EXPECT_EQ(cam.platform().reboots(), 1);
}

TEST_F(KeyedCamera, UnsignedProtocolsChangeNothingButStillAnswerDiscovery) {
  reset_production_mode();
  broadcast_ctx ctx;
  sockaddr_in cam_addr{};
  ctx.sock = bound_udp(&cam_addr);
  int tool = bound_udp(&ctx.peer);
  const std::string before = cam.read("/data/net.conf");
  const std::string netconfig = "Camera netconfig\nDevice ID:" + kDevId + "\ndhcp=1";
  EXPECT_EQ(broadcast_receive(&ctx, netconfig.c_str()), 0);
  EXPECT_EQ(cam.read("/data/net.conf"), before);
  const std::string enable =
      wire::broadcast::production_request(kDevId, "action=test enable", "enable=on");
  broadcast_receive(&ctx, enable.c_str());
  EXPECT_EQ(production_mode_enable(), 0);
  EXPECT_GT(broadcast_receive(&ctx, "Discovery camera"), 0);
  close(ctx.sock);
  close(tool);
}

}  // namespace
