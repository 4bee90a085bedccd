#include <sys/reboot.h>

#include "partner_test_util.h"
#include "wire/signature.h"

namespace {

using Search = PartnerCamera;

std::vector<uint8_t> search_frame() { return vec(wp::encode_search_request()); }

void receive(const std::vector<uint8_t>& f) { mcast_receive_mira(f.size(), f.data()); }

TEST_F(Search, AnswersOnBothGroupsFromTheCamerasAddressAndPort) {
  model("S2T\n");
  receive(search_frame());
  ASSERT_EQ(sent().size(), 2u);
  EXPECT_EQ(sent()[0].dst, "236.5.7.2");
  EXPECT_EQ(sent()[1].dst, "236.5.7.3");
  for (const auto& s : sent()) {
    EXPECT_EQ(s.src, "192.168.77.2");
    EXPECT_EQ(s.src_port, 8000);
    EXPECT_EQ(s.dst_port, 8000);
    EXPECT_EQ(s.payload, sent()[0].payload);
  }
  auto r = wp::decode_search_reply(sent()[0].payload.data(), sent()[0].payload.size());
  ASSERT_TRUE(r);
  EXPECT_EQ(r->device_id, kDevId);
  EXPECT_EQ(r->ip, 0xC0A84D02u);
  EXPECT_EQ(r->mac, (std::array<uint8_t, 6>{2, 0, 0, 0, 0, 1}));
  EXPECT_EQ(r->name, "ORN Camera");
  EXPECT_EQ(r->type_code, "DKW7");  // "S2" is tested before the single 'T'
  EXPECT_EQ(r->version, "V2.5.1");
}

TEST_F(Search, OddFramesAndForeignCommands) {
  auto f = search_frame();
  // The length field is not trusted either way; the bytes received count.
  f[4] = 0xff;
  receive(f);
  f.resize(512, 0xAA);
  receive(f);
  EXPECT_EQ(sent().size(), 4u);
  clear_sent();

  mcast_receive_mira(15, search_frame().data());  // shorter than the header
  auto other = search_frame();
  other[1] = 0x03;
  receive(other);
  EXPECT_TRUE(sent().empty());
}

// "S2" is looked for before a single 'T'; a file that gives nothing keeps
// the code. The start-up model names the kind after its first '.'.
TEST(DeviceType, ModelTextsGiveTypeCodes) {
  FakeCamera cam;
  set_device_type_code("");
  const std::pair<const char*, const char*> rows[] = {
      {"S2T", "DKW7"}, {"T2S2", "HKW7"}, {"XT", "HKW7"}, {"", "HKW7"}, {"S", "DKW7"}, {"abc\n", "DKW7"}};
  for (const auto& [text, code] : rows) {
    cam.platform().on("cat /home/device_model_file", text);
    EXPECT_EQ(get_device_type_info(), *text ? 0 : -1) << text;
    char got[kTypeCodeLen];
    get_device_type_code(got);
    EXPECT_STREQ(got, code) << text;
  }
  for (auto [model, code] : {std::pair<const char*, const char*>{"K1.T", "HKW7"}, {"K1.T2", "HKW7"},
                             {"K1.S2", "DKW7"}, {"K1.TX", "DKW7"}, {"K1T", nullptr}})
    EXPECT_STREQ(type_code_of_model(model), code) << model;
}

TEST_F(Search, QueryAnswersOnlyAWholeFrameWithItsSerial) {
  receive(vec(wp::encode_net_query(kDevId.substr(0, 31))));
  auto cut = vec(wp::encode_net_query(kDevId));
  cut.resize(47);
  receive(cut);
  EXPECT_TRUE(sent().empty());

  receive(vec(wp::encode_net_query(kDevId)));
  ASSERT_EQ(sent().size(), 2u);
  auto r = wp::decode_net_reply(sent()[1].payload.data(), sent()[1].payload.size());
  ASSERT_TRUE(r);
  EXPECT_EQ(r->connection_type, wp::kConnStatic);
  EXPECT_EQ(wp::ipv4_text(r->addr.gateway), "192.168.77.1");
  EXPECT_EQ(r->addr.dns2, r->addr.dns);
}

wp::net_set_request dhcp_set(const std::string& serial) {
  wp::net_set_request s;
  s.serial = serial;
  s.connection_type = wp::kConnDhcp;
  s.addr = {0x0A000009, 0xFF000000, 0x0A000001, 0x09090909, 0x01010101};
  return s;
}

TEST_F(Search, SetRewritesNetConfAnswersAndReboots) {
  receive(vec(wp::encode_net_set(dhcp_set(kDevId))));
  ASSERT_EQ(sent().size(), 2u);
  auto r = wp::decode_net_reply(sent()[0].payload.data(), sent()[0].payload.size());
  ASSERT_TRUE(r);
  EXPECT_EQ(r->connection_type, wp::kConnDhcp);
  EXPECT_EQ(r->dhcp, 1u);
  EXPECT_EQ(r->addr.ip, 0x0A000009u);
  EXPECT_EQ(r->addr.dns2, 0x09090909u);  // the primary DNS in both places

  EXPECT_EQ(cam.read("/data/net.conf"),
            "dhcp=1\nipaddr=10.0.0.9\nnetmask=255.0.0.0\ngateway=10.0.0.1\nfdns=9.9.9.9\n"
            "macaddr=02:00:00:00:00:01\n");
  EXPECT_EQ(cam.read("/etc/resolv.conf"), "nameserver 9.9.9.9\n");
  EXPECT_EQ(recv_text(control, 0), std::string("\x88\x0b\x01\xaa\xff"));
  EXPECT_EQ(last_events(cam, 4),
            (std::vector<std::string>{"sync", "sleep:2000000", "sleep:5000000", "reboot"}));
}

// A keyed camera: the partner's frames carry no signature, so a set changes
// nothing (searches and queries stay open).
TEST_F(Search, KeyedCameraRefusesSetsItCannotAuthenticate) {
  cam.write("/customer/keys/site.pub", wire::format_public_key(wire::generate_key_pair().pub));
  const std::string before = cam.read("/data/net.conf");
  receive(vec(wp::encode_net_set(dhcp_set(kDevId))));
  EXPECT_TRUE(sent().empty());
  EXPECT_EQ(cam.read("/data/net.conf"), before);
  EXPECT_EQ(cam.platform().reboots(), 0);
}

TEST_F(Search, SetRefusedForOtherCamerasShortFramesAndUnknownTypes) {
  const std::string before = cam.read("/data/net.conf");
  receive(vec(wp::encode_net_set(dhcp_set(std::string(32, '0')))));
  auto cut = vec(wp::encode_net_set(dhcp_set(kDevId)));
  cut.resize(143);
  receive(cut);
  auto pppoe = dhcp_set(kDevId);
  pppoe.connection_type = 1;
  receive(vec(wp::encode_net_set(pppoe)));
  EXPECT_TRUE(sent().empty());
  EXPECT_EQ(cam.read("/data/net.conf"), before);
  EXPECT_EQ(cam.platform().reboots(), 0);
}

TEST_F(Search, ServesWhatArrivesCutAt512Bytes) {
  sockaddr_in cam_addr;
  int sock = bound_udp(&cam_addr);
  int tool = bound_udp(nullptr);
  auto f = search_frame();
  f.resize(600, 0x55);
  send_text(tool, cam_addr, std::string(f.begin(), f.end()));
  EXPECT_EQ(search_mira_serve_once(sock), 512);
  EXPECT_EQ(sent().size(), 2u);
  EXPECT_EQ(cam.platform().events().back(), "sleep:300000");
  close_socket(sock);
  close_socket(tool);
}

}  // namespace
