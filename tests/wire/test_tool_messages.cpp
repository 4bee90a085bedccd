// What a tool sends and reads: requests read back the way the camera reads
// them (fixed skips, substring searches), checks on user input, and the
// replies' parsed forms.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "wire/commands.h"
#include "wire/replies.h"

namespace {

const std::string kDev(32, 'd'), kCli(32, 'c');

// The camera's reading of a settings command: everything from 43
// characters after the first "Cli" goes into net.conf.
std::string stored_settings(const std::string& msg) { return msg.substr(msg.find("Cli") + 43); }

TEST(ToolRequests, SettingsLandWhereTheCameraCutsThem) {
  wire::net_settings s{false, "10.0.0.9", "255.255.0.0", "10.0.0.1", "1.1.1.1", "02:00:00:00:00:09"};
  std::string msg = wire::confignet_request(kDev, kCli, s);
  EXPECT_EQ(msg.substr(0, 9), "CONFIGNET");
  EXPECT_EQ(stored_settings(msg),
            "dhcp=0\nipaddr=10.0.0.9\nnetmask=255.255.0.0\ngateway=10.0.0.1\nfdns=1.1.1.1\n"
            "macaddr=02:00:00:00:00:09\n");
  EXPECT_EQ(msg.substr(msg.find("Device ID:") + 10, 32), kDev);
  EXPECT_EQ(msg.substr(msg.find("Client ID:") + 10, 32), kCli);

  // Serial: 53 characters after "Cli", as long as the distance between the
  // two keys less 11; the MAC runs to the end of the datagram.
  std::string lum = wire::lumconfig_request(kDev, kCli, "SN-2026 0042", "02:aa:bb:cc:dd:ee");
  size_t serial_key = lum.find("Serial No:"), mac_key = lum.find("Mac Address:");
  ASSERT_NE(mac_key, std::string::npos);
  EXPECT_EQ(lum.substr(lum.find("Cli") + 53, mac_key - serial_key - 11), "SN-2026 0042");
  EXPECT_EQ(lum.substr(mac_key + 12), "02:aa:bb:cc:dd:ee");
}

TEST(ToolRequests, FieldsOfTheOtherCommands) {
  EXPECT_EQ(wire::flicker_request(kDev, kCli, true),
            "CAMERA_FL\r\nDevice ID:" + kDev + "\r\nClient ID:" + kCli + "\r\nstatus=open");
  wire::board_test_options o{"RQ500T", true, false, true};
  EXPECT_EQ(wire::board_test_request(kDev, kCli, o),
            "BOARD_TES\r\nDevice ID:" + kDev + "\r\nClient ID:" + kCli +
                "\r\nTYPE=RQ500T\r\nUSB_Test=true\r\nSDI_Test=true");
  EXPECT_EQ(wire::query_request({kDev, kCli}, kCli),
            "CAMERA_QU\r\nDevice ID:0002" + kDev + kCli + "\r\nClient ID:" + kCli);
}

TEST(ToolChecks, AddressesMasksMacsSerialsIds) {
  for (const char* ok : {"10.0.0.1", "0.0.0.0", "255.255.255.255"})
    EXPECT_TRUE(wire::is_ipv4(ok)) << ok;
  for (const char* bad : {"192.168.1.256", "1.2.3.4x", "1.2.3", "1.2.3.4.5", " 1.2.3.4", "1..3.4",
                          "1.2.3.1000", "192.168.077.1", ""})
    EXPECT_FALSE(wire::is_ipv4(bad)) << bad;
  for (const char* ok : {"255.255.255.0", "255.255.255.255", "128.0.0.0", "255.255.252.0"})
    EXPECT_TRUE(wire::is_netmask(ok)) << ok;
  for (const char* bad : {"255.0.255.0", "0.0.0.0", "255.255.255.1", "24"})
    EXPECT_FALSE(wire::is_netmask(bad)) << bad;
  EXPECT_EQ(wire::normal_mac("02-AB-cd-00-11-22"), "02:ab:cd:00:11:22");
  for (const char* bad : {"01:00:5e:00:00:01", "ff:ff:ff:ff:ff:ff", "00:00:00:00:00:00",
                          "02:ab:cd:00:11", "02:ab:cd:00:11:2g", "02ab.cd00.1122", "02:ab:cd:00:11:22:"})
    EXPECT_FALSE(wire::normal_mac(bad)) << bad;
  EXPECT_TRUE(wire::is_serial_text(std::string(63, 'S')));
  EXPECT_FALSE(wire::is_serial_text(std::string(64, 'S')));
  EXPECT_FALSE(wire::is_serial_text("a\nb"));
  EXPECT_FALSE(wire::is_serial_text(""));
  EXPECT_TRUE(wire::is_device_id(kDev));
  EXPECT_FALSE(wire::is_device_id(std::string(32, 'D')));
  EXPECT_FALSE(wire::is_device_id(std::string(31, 'd')));
  EXPECT_TRUE(wire::is_board_type("K2/K3"));
  EXPECT_FALSE(wire::is_board_type("K2"));
}

TEST(ToolReplies, SearchAckAndStatus) {
  auto c = wire::parse_search_reply("REPLY OK \r\nVERSION:V2.5.1\r\nClient ID:" + kCli +
                                    "\r\nDevice ID:" + kDev +
                                    "\r\nUptime=3600\r\nDHCP=1\r\nLUM_Serial_No=\r\nIP=10.0.0.9"
                                    "\r\nMASK=255.0.0.0\r\nGATEWAY=\r\nMAC=02:00:00:00:00:09\r\nFDNS=1.1.1.1");
  ASSERT_TRUE(c);
  EXPECT_EQ(c->device_id, kDev);
  EXPECT_EQ(c->model, "") << "no DEVICE_MODEL field";
  EXPECT_TRUE(c->dhcp);
  EXPECT_EQ(c->uptime, 3600u);
  EXPECT_EQ(c->ip, "10.0.0.9");
  EXPECT_FALSE(wire::parse_search_reply("REPLY OK \r\nDevice ID:short"));
  EXPECT_FALSE(wire::parse_search_reply("SEARCH * \r\nSEQ=1\r\nClient ID:" + kCli));

  auto a = wire::parse_upgrade_ack("REPLYU DO\r\nClient ID:" + kCli + "\r\nDevice ID:" + kDev + "\r\nAck:7");
  ASSERT_TRUE(a);
  EXPECT_EQ(a->code, '7');
  EXPECT_EQ(a->client_id, kCli);
  EXPECT_FALSE(wire::parse_upgrade_ack("REPLYU DO\r\nClient ID:" + kCli + "\r\nAck:"));
  EXPECT_FALSE(a->norm_node);
  a = wire::parse_upgrade_ack("REPLYU DO\r\nClient ID:" + kCli + "\r\nAck:0\r\nTransfer:NORM 42");
  ASSERT_TRUE(a);
  EXPECT_EQ(a->code, '0');
  EXPECT_EQ(a->norm_node, 42u);

  auto r = wire::parse_status_report("STATUS * \r\nDevice ID:" + kDev +
                                     "\r\nMAC=02:00:00:00:00:09\r\nVERSION:V3\r\nStatus=1");
  ASSERT_TRUE(r);
  EXPECT_EQ(r->version, "V3");
  EXPECT_EQ(r->model, "");
  // A tool's confirmation heard on the group is not a report.
  EXPECT_FALSE(wire::parse_status_report("STATUS * \r\nDevice ID:" + kDev + "\r\nClient ID:" + kCli +
                                         "\r\nStatus=2"));
}

TEST(ToolReplies, BoardTestAndPartitionTable) {
  auto b = wire::parse_board_test("BOARD_TEST\r\nClient ID:" + kCli + "\r\nDevice ID:" + kDev +
                                  "\r\nIP=10.0.0.9\r\nMAC=02:00:00:00:00:09\r\nV2.5.1=rc1"
                                  "\r\nUSB=0\r\nARM=1\r\nHDMI=1\r\nSTATUS=Test finish");
  ASSERT_TRUE(b);
  EXPECT_EQ(b->version, "V2.5.1=rc1") << "the bare line after MAC, whatever it holds";
  EXPECT_EQ(b->checks, (std::vector<std::pair<std::string, int>>{{"USB", 0}, {"ARM", 1}, {"HDMI", 1}}));
  EXPECT_TRUE(b->finished);
  // The command itself, heard on the group, is not a result.
  EXPECT_FALSE(wire::parse_board_test("BOARD_TES\r\nDevice ID:" + kDev + "\r\nClient ID:" + kCli));

  auto q = wire::parse_id_reply("REPLYQ OK", "REPLYQ OK\r\nClient ID:" + kCli + "\r\nDevice ID:" + kDev +
                                                 "\r\nVersion:V2\r\nMtdInfo:mtd0: 00100000 00010000 "
                                                 "\"boot\"\nmtd1: 00300000 00010000 \"kernel\"\n");
  ASSERT_TRUE(q);
  ASSERT_EQ(q->fields.size(), 2u);
  auto parts = wire::parse_mtd_info(q->fields[1].second);
  ASSERT_EQ(parts.size(), 2u);
  EXPECT_EQ(parts[1].dev, "mtd1");
  EXPECT_EQ(parts[1].name, "kernel");
  EXPECT_EQ(parts[1].size, 0x300000u);
  EXPECT_EQ(parts[1].erasesize, 0x10000u);
}

}  // namespace
