#include <gtest/gtest.h>

#include "disc_test_util.h"
#include "discovery/identity.h"
#include "discovery/oem_serial.h"

namespace {

struct NetInfo : CameraFixtureBase, ::testing::Test {};

TEST_F(NetInfo, BusyboxListingFillsTheRecord) {
  ASSERT_EQ(get_net_info(), 0);
  net_info_t ni;
  copy_net_info(&ni);
  EXPECT_EQ(ni.dhcp, 0);
  EXPECT_STREQ(ni.ipaddr, "192.168.77.2");
  EXPECT_STREQ(ni.netmask, "255.255.255.0");
  EXPECT_STREQ(ni.gateway, "192.168.77.1");
  EXPECT_STREQ(ni.fdns, "8.8.8.8");
  EXPECT_STREQ(ni.macaddr, "02:00:00:00:00:01");

  // A "dhcp=" line sets the flag; without one the flag keeps its value.
  for (const char* conf : {"ipaddr=1.2.3.4\ndhcp=1\n", "ipaddr=1.2.3.4\n"}) {
    cam.write("/data/net.conf", conf);
    ASSERT_EQ(get_net_info(), 0);
    copy_net_info(&ni);
    EXPECT_EQ(ni.dhcp, 1) << conf;
  }
}

TEST_F(NetInfo, ListingsThatDoNotFit) {
  // lo listed first, no MAC, cut short, eth0 without an IPv4 address.
  for (const char* listing : {"lo        Link encap:Local Loopback  \n",
                              "eth0      Link encap:Ethernet  \n",
                              "eth0      Link encap:Ethernet  HWaddr 02:00",
                              "eth0      Link encap:Ethernet  HWaddr 02:00:00:00:00:01  \n"
                              "          inet6 addr: fe80::1/64 Scope:Link\n"}) {
    cam.platform().on("ifconfig", listing);
    EXPECT_EQ(get_net_info(), -1) << listing;
  }
  net_info_t ni;
  copy_net_info(&ni);
  EXPECT_STREQ(ni.macaddr, "02:00:00:00:00:01");  // what was found is kept

  // Without net.conf ifconfig is not even run.
  cam.platform().on("ifconfig", kIfconfig);
  cam.platform().clear();
  remove(cam.path("/data/net.conf").c_str());
  testing::internal::CaptureStderr();
  EXPECT_EQ(get_net_info(), -1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("fopen /data/net.conf failed"),
            std::string::npos);
  for (const auto& c : cam.platform().commands()) EXPECT_NE(c, "ifconfig");
}

TEST_F(NetInfo, GatewayAndDns) {
  char out[32];
  cam.platform().on("ip route show", "10.0.0.254\n10.0.0.253\n");
  EXPECT_EQ(get_gateway(out), 0);
  EXPECT_STREQ(out, "10.0.0.254");

  const struct {
    const char* resolv;
    int rc;
    const char* dns;
  } rows[] = {{"# generated\nsearch lan\nnameserver 1.1.1.1\nnameserver 9.9.9.9\n", 0, "1.1.1.1"},
              {"search lan\n", -1, ""},
              {"nameserver", 0, ""}};
  for (const auto& r : rows) {
    cam.write("/etc/resolv.conf", r.resolv);
    EXPECT_EQ(get_dns_server(out), r.rc) << r.resolv;
    EXPECT_STREQ(out, r.dns) << r.resolv;
  }
}

TEST(Gateway, PipeFailure) {
  FakeCamera cam;
  cam.platform().popen_fails("ip route show");
  char out[32] = "x";
  EXPECT_EQ(get_gateway(out), -1);
  EXPECT_STREQ(out, "");
}

// The body after the fixed skip goes to net.conf as it stands; resolv.conf
// is rewritten only when an "fdns=" key is there.
TEST_F(NetInfo, ConfigBodyGoesToNetConfAndDnsOnlyWithFdns) {
  const std::string head = "CONFIGNET\r\nDevice ID:" + kDevId + "\r\nClient ID:" + kCliId;
  const struct {
    std::string msg, net_conf, resolv;
  } rows[] = {
      {head + "\ndhcp=0\nipaddr=10.0.0.5\nfdns=1.0.0.1\n", "dhcp=0\nipaddr=10.0.0.5\nfdns=1.0.0.1\n",
       "nameserver 1.0.0.1\n"},
      // "\r\n" bodies keep their line ends (the skip leaves the "\n" of the
      // separator); the DNS value stops before the "\r".
      {head + "\r\ndhcp=1\r\nfdns=4.4.4.4\r\n", "\ndhcp=1\r\nfdns=4.4.4.4\r\n",
       "nameserver 4.4.4.4\n"},
      {head + "\ndhcp=1\nipaddr=10.0.0.6", "dhcp=1\nipaddr=10.0.0.6", "nameserver 4.4.4.4\n"},
      // Key at the very end, body shorter than the skip, no key at all.
      {head + "\nfdns=", "fdns=", "nameserver \n"},
      {"CONFIGNET Client ID:abc", "", "nameserver \n"},
      {"dhcp=1\n", "dhcp=1\n", "nameserver \n"},
  };
  for (const auto& r : rows) {
    cam.platform().clear();
    read_net_info(r.msg.c_str());
    EXPECT_EQ(cam.read("/data/net.conf"), r.net_conf) << r.msg;
    EXPECT_EQ(cam.read("/etc/resolv.conf"), r.resolv) << r.msg;
    EXPECT_EQ(cam.platform().ran("rm /etc/resolv.conf"), r.msg.find("fdns=") != std::string::npos)
        << r.msg;
  }
  read_net_info_only_deviceid(("X\r\nDevice ID:" + kDevId + "\ndhcp=0\n").c_str());
  EXPECT_EQ(cam.read("/data/net.conf"), "dhcp=0\n");
}

TEST_F(NetInfo, UpdateConfReplacesKeyLinesOnly) {
  cam.write("/data/x.conf", "a=1\nmacaddr=old\nb=2\nmacaddr=old2\n" + std::string(120, 'z') + "\n");
  EXPECT_EQ(update_conf_2("/data/x.conf", "macaddr=", "macaddr=new"), 0);
  EXPECT_EQ(cam.read("/data/x.conf"),
            "a=1\nmacaddr=new\nb=2\nmacaddr=new\n" + std::string(96, 'z') + "\n");
  EXPECT_EQ(update_conf_2("/data/missing", "k", "k=1"), -1);
  // Without the key nothing changes (no line is added).
  cam.write("/etc/resolv.conf", "search lan\n");
  set_resolv_nameserver("fdns=8.8.4.4");
  EXPECT_EQ(cam.read("/etc/resolv.conf"), "search lan\n");
}

// "\n" or "\r\n" separators give the same values; without the MAC key the
// serial is not taken and net.conf is left alone.
TEST_F(NetInfo, SerialAndMacFromTheProductionCommand) {
  const struct {
    std::string msg;
    const char *serial, *mac;
  } rows[] = {
      {"LUMCONFIG\nDevice ID:" + kDevId + "\nClient ID:" + kCliId +
           "\nSerial No:SN-000123\nMac Address:02:11:22:33:44:55",
       "SN-000123", "02:11:22:33:44:55"},
      {"LUMCONFIG\r\nDevice ID:" + kDevId + "\r\nClient ID:" + kCliId +
           "\r\nSerial No:SN-9\r\nMac Address:02:aa:bb:cc:dd:ee\r\n",
       "SN-9", "02:aa:bb:cc:dd:ee"},
      {"LUMCONFIG Serial No:XYZ", "SN-9", "02:aa:bb:cc:dd:ee"},
  };
  for (const auto& r : rows) {
    update_serialNo_and_mac(r.msg.c_str());
    char serial[64];
    ASSERT_EQ(oem_serial_read(serial, sizeof(serial)), 0);
    EXPECT_STREQ(serial, r.serial) << r.msg;
    EXPECT_EQ(cam.read("/data/net.conf"),
              "dhcp=0\nipaddr=192.168.77.2\nmacaddr=" + std::string(r.mac) + "\n")
        << r.msg;
  }
}

TEST_F(NetInfo, OemSerialRecordLayout) {
  char serial[64] = "junk";
  EXPECT_EQ(oem_serial_read(serial, sizeof(serial)), 0);
  EXPECT_STREQ(serial, "");
  std::string rec = cam.read(kOemSerialPath);
  ASSERT_EQ(rec.size(), kOemSerialRecordSize);  // created with defaults
  EXPECT_EQ(rec.substr(0, 8), std::string("FSER\x01\0\0\0", 8));

  std::string longest(100, 'S');
  EXPECT_EQ(oem_serial_write(longest.c_str()), 0);
  oem_serial_read(serial, sizeof(serial));
  EXPECT_EQ(std::string(serial), std::string(63, 'S'));
  char small[5];
  oem_serial_read(small, sizeof(small));
  EXPECT_STREQ(small, "SSSS");

  cam.write(kOemSerialPath, "not a record");
  oem_serial_read(serial, sizeof(serial));
  EXPECT_STREQ(serial, "");
  EXPECT_EQ(cam.read(kOemSerialPath), "not a record");  // foreign data is not overwritten
}

TEST_F(NetInfo, Ipv6Helpers) {
  char out[64] = {};
  EXPECT_EQ(get_ipv6_global_addr("eth0", out, sizeof(out)), 0);
  EXPECT_STREQ(out, "2001:db8:1:2::5");
  EXPECT_EQ(get_ipv6_prefix("eth0", out, sizeof(out)), 0);
  EXPECT_STREQ(out, "/64");
  EXPECT_EQ(get_ipv6_mac("eth0", out, sizeof(out)), 0);
  EXPECT_STREQ(out, "02:00:00:00:00:01");

  // The gateway is the route text only when the prefix's part of the
  // address appears in it ("2001:0db8" does not).
  const char* gw_cases[][3] = {{"2001:db8:1:2::5", "/0", "::"},
                               {"2001:db8:1:2::5", "/60", "::"},
                               {"2001:0db8:0001:0002::5", "/32", "::"},
                               {"2001:db8:1:2::5", "/16", "2001:db8:1:2::/64"}};
  for (const auto& c : gw_cases) {
    char gw[64] = {};
    get_local_gateway_ipv6("eth0", c[0], c[1], gw, sizeof(gw));
    EXPECT_STREQ(gw, c[2]) << c[0] << c[1];
  }

  ASSERT_EQ(get_net_ipv6_info(), 0);
  net_info_ipv6_t v6;
  copy_net_info_ipv6(&v6);
  EXPECT_STREQ(v6.ip, "2001:db8:1:2::5");
  EXPECT_STREQ(v6.prefix, "/64");
  EXPECT_STREQ(v6.fdns, "240c:6666");
  EXPECT_STREQ(v6.mac, "02:00:00:00:00:01");
}

}  // namespace
