#include <gtest/gtest.h>

#include <cctype>

#include "disc_test_util.h"
#include "discovery/identity.h"

namespace {

struct Identity : CameraFixtureBase, ::testing::Test {};

TEST_F(Identity, ShortUuidFileIsReportedAndKept) {
  cam.write("/data/uuid_file", "abc123");
  testing::internal::CaptureStderr();
  read_uuid();
  EXPECT_NE(testing::internal::GetCapturedStderr().find("read /data/uuid_file failed"),
            std::string::npos);
  char id[33];
  get_device_id(id);
  EXPECT_STREQ(id, "abc123");
  EXPECT_EQ(cam.read("/data/uuid_file"), "abc123");  // never regenerated
}

// Whole-ID matches only (case, cut short, missing keys); the client ID is
// whatever follows its key, even at the very end of the message.
TEST_F(Identity, CheckUuidMatchesWholeIdAndTakesClientId) {
  std::string upper = kDevId;
  for (char& c : upper) c = static_cast<char>(toupper(c));
  const struct {
    std::string msg;
    int rc;
    const char* client;  // taken on a match
  } rows[] = {
      {"CONFIGNET\r\nDevice ID:" + kDevId + "\r\nClient ID:" + kCliId + "\r\n", 0, kCliId.c_str()},
      {"X\r\nDevice ID:" + kDevId + "Client ID:ab", 0, "ab"},
      {"X\r\nDevice ID:" + upper + "\r\nClient ID:" + kCliId, -1, nullptr},
      {"X\r\nDevice ID:" + kDevId + "\r\n", -1, nullptr},  // no client key
      {"X\r\nClient ID:abc", -1, nullptr},
      {"", -1, nullptr},
      {"X\r\nDevice ID:" + kDevId.substr(0, 31), -1, nullptr},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(check_uuid(r.msg.c_str()), r.rc) << r.msg;
    char cli[33];
    get_client_id(cli);
    if (r.client != nullptr) {
      EXPECT_STREQ(cli, r.client) << r.msg;
    }
  }
  EXPECT_EQ(check_uuid_only_deviceid(("X Device ID:" + kDevId).c_str()), 0);
  EXPECT_EQ(check_uuid_only_deviceid("X Device ID:0000"), -1);
  EXPECT_EQ(check_uuid_only_deviceid("X"), -1);
}

// The batch form: a four-digit count, then the IDs; the search stops at the
// count and at the end of the datagram, and a match still needs a client key.
TEST_F(Identity, BatchCheckHonoursCountAndDatagramEnd) {
  const std::string a(32, 'a'), b(32, 'b'), cli = "\r\nClient ID:" + kCliId;
  const std::pair<std::string, int> rows[] = {
      {"0002" + a + kDevId + cli, 0},     {"0002" + a + b + kDevId + cli, -1},
      {"0001" + kDevId + cli, 0},         {"0000" + kDevId + cli, -1},
      {"-001" + kDevId + cli, -1},        {"0099" + a + b, -1},
      {"0099" + a + kDevId, -1},          {"00", -1},
  };
  for (const auto& [ids, rc] : rows)
    EXPECT_EQ(check_uuid_bat(("CAMERA_QU\r\nDevice ID:" + ids).c_str()), rc) << ids;
  EXPECT_EQ(check_uuid_bat("CAMERA_QU"), -1);
}

TEST_F(Identity, FormatCheckers) {
  for (const char* ok : {"10.0.0.1", "255.255.255.255"}) EXPECT_EQ(check_ipv4_format(ok), 0) << ok;
  for (const char* bad : {"192.168.1.256", "1.2.3.4x", "1.2.3", "-1.2.3.4"})
    EXPECT_EQ(check_ipv4_format(bad), -1) << bad;
  EXPECT_EQ(check_mac_format("02.00.00.00.00.01"), 0);
  for (const char* bad : {"02:00:00:00:00:01", "02.00.00.00.00.01x", "02.00"})
    EXPECT_EQ(check_mac_format(bad), -1) << bad;
}

TEST_F(Identity, SockaddrToString) {
  char out[64];
  sockaddr_in a = loopback_addr(8005);
  EXPECT_EQ(sockaddr_to_string(reinterpret_cast<sockaddr*>(&a), out, sizeof(out)), 0);
  EXPECT_STREQ(out, "127.0.0.1:8005");
  a.sin_port = 0;
  sockaddr_to_string(reinterpret_cast<sockaddr*>(&a), out, sizeof(out));
  EXPECT_STREQ(out, "127.0.0.1");
  char small[8];
  a.sin_port = htons(65535);
  sockaddr_to_string(reinterpret_cast<sockaddr*>(&a), small, sizeof(small));
  EXPECT_STREQ(small, "127.0.0");
}

TEST_F(Identity, UpgradeAckUsesRequesterOrUpgradeClient) {
  set_client_id(kCliId.c_str());
  set_upgrade_client_id(std::string(32, 'c').c_str());
  set_mcast_upgrade_in_progress(1);
  char buf[256];
  build_upgrade_ack(buf, '9');
  EXPECT_EQ(std::string(buf),
            "REPLYU DO\r\nClient ID:" + kCliId + "\r\nDevice ID:" + kDevId + "\r\nAck:9");
  EXPECT_EQ(mcast_upgrade_in_progress(), 1);
  build_upgrade_ack(buf, '0');
  EXPECT_EQ(std::string(buf), "REPLYU DO\r\nClient ID:" + std::string(32, 'c') +
                                  "\r\nDevice ID:" + kDevId + "\r\nAck:0");
  EXPECT_EQ(mcast_upgrade_in_progress(), 0);
}

}  // namespace
