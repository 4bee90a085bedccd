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

TEST_F(Identity, CheckUuidMatchesWholeIdAndTakesClientId) {
  std::string ok = "CONFIGNET\r\nDevice ID:" + kDevId + "\r\nClient ID:" + kCliId + "\r\n";
  EXPECT_EQ(check_uuid(ok.c_str()), 0);
  char cli[33];
  get_client_id(cli);
  EXPECT_EQ(kCliId, cli);

  std::string upper = kDevId;
  for (char& c : upper) c = static_cast<char>(toupper(c));
  EXPECT_EQ(check_uuid(("X\r\nDevice ID:" + upper + "\r\nClient ID:" + kCliId).c_str()), -1);
  EXPECT_EQ(check_uuid(("X\r\nDevice ID:" + kDevId + "\r\n").c_str()), -1);  // no client key
  EXPECT_EQ(check_uuid("X\r\nClient ID:abc"), -1);
  EXPECT_EQ(check_uuid(""), -1);
  // An ID cut short by the end of the message does not match.
  EXPECT_EQ(check_uuid(("X\r\nDevice ID:" + kDevId.substr(0, 31)).c_str()), -1);
  // The client ID at the very end of the message: whatever is there is taken.
  EXPECT_EQ(check_uuid(("X\r\nDevice ID:" + kDevId + "Client ID:ab").c_str()), 0);
  get_client_id(cli);
  EXPECT_STREQ(cli, "ab");

  EXPECT_EQ(check_uuid_only_deviceid(("X Device ID:" + kDevId).c_str()), 0);
  EXPECT_EQ(check_uuid_only_deviceid("X Device ID:0000"), -1);
  EXPECT_EQ(check_uuid_only_deviceid("X"), -1);
}

TEST_F(Identity, BatchCheckHonoursCountAndDatagramEnd) {
  std::string other1(32, 'a'), other2(32, 'b');
  auto msg = [&](const std::string& count, const std::string& ids) {
    return "CAMERA_QU\r\nDevice ID:" + count + ids + "\r\nClient ID:" + kCliId;
  };
  EXPECT_EQ(check_uuid_bat(msg("0002", other1 + kDevId).c_str()), 0);
  EXPECT_EQ(check_uuid_bat(msg("0002", other1 + other2 + kDevId).c_str()), -1);
  EXPECT_EQ(check_uuid_bat(msg("0001", kDevId).c_str()), 0);
  EXPECT_EQ(check_uuid_bat(msg("0000", kDevId).c_str()), -1);
  EXPECT_EQ(check_uuid_bat(msg("-001", kDevId).c_str()), -1);
  // A count promising 99 IDs where two stand: the search stops at the end.
  std::string big = "CAMERA_QU\r\nDevice ID:0099" + other1 + other2;
  EXPECT_EQ(check_uuid_bat(big.c_str()), -1);
  std::string at_end = "CAMERA_QU\r\nDevice ID:0099" + other1 + kDevId;
  EXPECT_EQ(check_uuid_bat(at_end.c_str()), -1);  // matched, but no client key
  EXPECT_EQ(check_uuid_bat("CAMERA_QU\r\nDevice ID:00"), -1);
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

// The answering counters and mounted disk: Commands.ProductionCounters and
// Commands.BoardTestFields.
TEST_F(Identity, MissingCountersAndUsbDisk) {
  cam.platform().popen_fails("cat /data/curve_times.dat");
  cam.platform().on("cat /data/boot_times.dat", "");
  cam.platform().on("mount | grep /mnt/usb", "");
  EXPECT_EQ(read_curve_times(), 0);
  EXPECT_EQ(read_boot_times(), 0);
  EXPECT_EQ(check_usb_disk_mount(), -1);
}

}  // namespace
