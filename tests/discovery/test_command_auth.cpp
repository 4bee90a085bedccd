// A keyed camera takes changing commands only when a site key signed them
// over its current challenge: each signature works once, and protocols
// that cannot carry one change nothing. Searches and queries stay open.
#include <gtest/gtest.h>

#include "disc_test_util.h"
#include "discovery/broadcast.h"
#include "core/site_keys.h"
#include "discovery/command_auth.h"
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
                                 // another challenge (its first digit changed)
                                 wire::sign_command(site.sec, confignet("10.0.0.66"),
                                                    (c1[0] == '0' ? "1" : "0") + c1.substr(1)),
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
  close_socket(ctx.sock);
  close_socket(tool);
}

}  // namespace

namespace {

struct KeyInstall : CameraFixtureBase, ::testing::Test {
  LoopEndpoint loop;
  void receive(const std::string& d) { mcast_receive(&loop.ep, d.data(), d.size()); }
  std::string key_command(const std::string& field) {
    return std::string(kKeyCommand) + "\r\nDevice ID:" + kDevId + "\r\nClient ID:" + kCliId + field;
  }
  std::string result() {
    auto r = loop.reply();
    if (!r) return "";
    return r->substr(r->rfind("Result:") + 7);
  }
  static std::string pub_line(const wire::key_pair& k) {
    std::string f = wire::format_public_key(k.pub);
    return f.substr(f.find('\n') + 1, f.size() - f.find('\n') - 2);
  }
};

// The first key comes from anyone; after that only a key holder adds or
// removes keys (rotation: the old key signs the new one in, the new key
// signs the old one out).
TEST_F(KeyInstall, FirstKeyFreelyThenOnlySignedRotation) {
  wire::key_pair old_key = wire::generate_key_pair(), new_key = wire::generate_key_pair();
  receive(key_command("\r\nAdd:" + pub_line(old_key)));
  EXPECT_EQ(result(), "ok");
  EXPECT_TRUE(camera_is_keyed());
  EXPECT_TRUE(cam.exists("/customer/keys/" + wire::key_id_text(old_key.pub.id) + ".pub"));

  receive(key_command("\r\nAdd:" + pub_line(new_key)));  // unsigned now
  EXPECT_EQ(result(), "refused");
  EXPECT_EQ(load_site_keys().size(), 1u);
  receive(wire::sign_command(old_key.sec, key_command("\r\nAdd:" + pub_line(new_key)),
                             current_challenge()));
  EXPECT_EQ(result(), "ok");
  receive(wire::sign_command(new_key.sec,
                             key_command("\r\nRemove:" + wire::key_id_text(old_key.pub.id)),
                             current_challenge()));
  EXPECT_EQ(result(), "ok");
  std::vector<site_key> keys = load_site_keys();
  ASSERT_EQ(keys.size(), 1u);
  EXPECT_EQ(keys[0].key.pk, new_key.pub.pk);
  // A key it does not hold, or a malformed one, is refused (and answered).
  receive(wire::sign_command(new_key.sec, key_command("\r\nRemove:0000000000000000"),
                             current_challenge()));
  EXPECT_EQ(result(), "refused");
  receive(wire::sign_command(new_key.sec, key_command("\r\nAdd:AAAA"), current_challenge()));
  EXPECT_EQ(result(), "refused");
}

}  // namespace
