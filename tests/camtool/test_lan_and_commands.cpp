// Choosing the interface, finding cameras and what the single-camera
// commands refuse or send.
#include <gtest/gtest.h>

#include "camtool/broadcast.h"
#include "camtool/commands.h"
#include "camtool/fake_lan.h"
#include "camtool/finder.h"

namespace {

using camtool::iface_info;
using camtool_test::fake_lan;

std::string choose(const std::vector<iface_info>& all, const std::string& requested,
                   const std::string& route) {
  try {
    return camtool::choose_interface(all, requested, route).name;
  } catch (const camtool::tool_error& e) {
    return std::string("error: ") + e.what();
  }
}

TEST(Interface, ChoiceAndTheErrorsThatNameTheInterfaces) {
  const iface_info lo{"lo", "127.0.0.1", true, true}, br0{"br0", "192.168.77.1", true, false},
      port{"vc1b1", "", true, false}, eth1{"eth1", "10.0.0.2", true, false},
      down{"eth2", "10.1.0.2", false, false};
  // The LAN namespace: a bridge with an address, its ports without one.
  EXPECT_EQ(choose({lo, br0, port}, "", ""), "br0");
  EXPECT_EQ(choose({lo, br0, eth1}, "", "eth1"), "eth1");
  EXPECT_EQ(choose({lo, br0, eth1}, "br0", "eth1"), "br0");
  EXPECT_EQ(choose({lo, br0, down}, "", ""), "br0");
  EXPECT_EQ(choose({lo, br0, eth1}, "", ""),
            "error: more than one interface could be meant and no default route; choose one with "
            "--iface (interfaces: lo (127.0.0.1), br0 (192.168.77.1), eth1 (10.0.0.2))");
  EXPECT_EQ(choose({lo, port}, "", ""),
            "error: no interface with an IPv4 address and no default route; choose one with "
            "--iface (interfaces: lo (127.0.0.1), vc1b1 (no IPv4))");
  EXPECT_EQ(choose({lo, br0}, "eth9", ""),
            "error: no interface named eth9; interfaces: lo (127.0.0.1), br0 (192.168.77.1)");
  EXPECT_EQ(choose({lo, port}, "vc1b1", ""), "error: interface vc1b1 has no IPv4 address");
  EXPECT_EQ(choose({lo, down}, "eth2", ""), "error: interface eth2 is down");
}

TEST(Search, OneRecordPerCameraAskedOnTheBatchGroupAndResolveByAddress) {
  fake_lan lan({camtool_test::camera('a'), camtool_test::camera('b')});
  camtool::camera_map found = camtool::search(lan, std::string(32, 'c'), 2.0);
  ASSERT_EQ(found.size(), 2u);
  EXPECT_EQ(found[std::string(32, 'b')].ip, "192.168.77.11");
  size_t requests = 0;
  for (const auto& s : lan.sent) requests += s.data.rfind("SEARCH * ", 0) == 0;
  EXPECT_EQ(requests, 4u) << "every half second";

  // Found by its address, at once.
  auto before = lan.now();
  EXPECT_EQ(camtool::resolve(lan, std::string(32, 'c'), "192.168.77.11", 3.0).device_id,
            std::string(32, 'b'));
  EXPECT_LT(camtool::between(before, lan.now()), 0.1);
  EXPECT_THROW(camtool::resolve(lan, std::string(32, 'c'), "192.168.77.99", 1.0), camtool::tool_error);
  EXPECT_THROW(camtool::resolve(lan, std::string(32, 'c'), "cam-1", 1.0), camtool::tool_error);
}

TEST(Confignet, FlagsOverTheCurrentSettings) {
  wire::camera_record now;
  now.dhcp = true;
  now.ip = "192.168.77.10";
  now.netmask = "255.255.255.0";
  now.gateway = "192.168.77.1";
  now.fdns = "8.8.8.8";
  now.mac = "02:00:00:77:00:10";
  camtool::confignet_flags f;
  f.dhcp = "off";
  f.ip = "192.168.77.50";
  f.mac = "02-AA-BB-CC-DD-EE";
  EXPECT_NO_THROW(camtool::check_confignet(f));
  wire::net_settings s = camtool::merge_settings(camtool::settings_of(now), f);
  EXPECT_FALSE(s.dhcp);
  EXPECT_EQ(s.ipaddr, "192.168.77.50");
  EXPECT_EQ(s.netmask, "255.255.255.0");
  EXPECT_EQ(s.gateway, "192.168.77.1");
  EXPECT_EQ(s.macaddr, "02:aa:bb:cc:dd:ee");

}

TEST(Production, ActionsAndTheirValues) {
  struct {
    const char *name, *value, *word, *extra;
  } ok[] = {
      {"test-enable", "on", "action=test enable", "enable=on"},
      {"central-cross", "off", "action=central cross", "enable=off"},
      {"update-model", "PTZ-20 B", "action=update model", "model=PTZ-20 B"},
      {"lens-calibration", "", "action=lens calibration", ""},
      {"restore-factory", "", "action=action=restore factory setting", ""},
  };
  for (const auto& k : ok) {
    auto [action, extra] = camtool::production_of(k.name, k.value);
    EXPECT_STREQ(action.word, k.word) << k.name;
    EXPECT_EQ(extra, k.extra) << k.name;
  }
  std::pair<const char*, const char*> refused[] = {
      {"test-enable", ""}, {"test-enable", "yes"}, {"update-model", ""}, {"update-model", "a\nb"},
      {"zoom-test", "on"}, {"dance", ""},
  };
  for (const auto& [name, value] : refused)
    EXPECT_THROW(camtool::production_of(name, value), camtool::tool_error) << name << " " << value;
}

}  // namespace
