#include "partner/param_mira.h"

#include "partner_test_util.h"

namespace {

using B = std::vector<uint8_t>;

// An answer of the tracking service carrying `v` at both used places.
B answer(uint8_t v) { return B{0xBB, 0xD1, v, v, 0, 0, 0}; }

struct Relay : PartnerCamera {
  int sock = -1, tool = -1;
  sockaddr_in tool_addr{};
  Relay() {
    sock = bound_udp(nullptr);
    tool = bound_udp(&tool_addr);
  }
  ~Relay() override {
    close(sock);
    close(tool);
  }
  void request(uint32_t op, int32_t value, size_t len = wp::kTrackSetLen,
               const std::string& serial = kDevId) {
    auto f = wp::encode_track_request({serial, op, value});
    param_receive_mira(sock, tool_addr, f.data(), len);
  }
  // The reply is sent before param_receive_mira returns.
  std::optional<wp::track_frame> reply() {
    auto r = recv_text(tool, 0);
    if (!r) return std::nullopt;
    EXPECT_EQ(r->size(), wp::kTrackReplyLen);
    return wp::decode_track_reply(reinterpret_cast<const uint8_t*>(r->data()), r->size());
  }
};

TEST_F(Relay, ScaleConversionsPerDeviceType) {
  struct Case {
    int type, tool, raw, back;
  };
  // tool value -> raw sent; raw read back -> tool value
  for (auto c : {Case{TRACK_HKW7, 15, 4, 15}, Case{TRACK_HKW7, 7, 2, 7}, Case{TRACK_HKW7, -3, 0, 0},
                 Case{TRACK_DKW7, 20, 8, 15}, Case{TRACK_DKW7, 7, 4, 7},
                 Case{TRACK_OTHER, 20, 20, 20}}) {
    net.exchanges.clear();
    net.answer(B{0xBB, 0xE1, 1});
    EXPECT_EQ(set_tracking_sensitivity(c.type, c.tool), 1);
    ASSERT_EQ(net.exchanges.size(), 1u);
    EXPECT_EQ(net.exchanges[0].request, (B{0xBB, 0xE1, 0x04, static_cast<uint8_t>(c.raw), 0, 0, 0}))
        << c.type << " " << c.tool;
    net.answer(answer(static_cast<uint8_t>(c.raw)));
    EXPECT_EQ(get_tracking_sensitivity(c.type), c.back) << c.type << " raw " << c.raw;
    EXPECT_EQ(net.exchanges[1].request, (B{0xBB, 0xD1, 0x00}));
    EXPECT_EQ(net.exchanges[1].pause_us, 300000u);
  }
}

TEST_F(Relay, ShortOrMissingAnswersReadAsZero) {
  net.answer(B{0xBB, 0xD1, 0x00});  // no byte 3
  EXPECT_EQ(get_tracking_sensitivity(TRACK_HKW7), 0);
  net.answer(B{0xBB, 0xE1});  // no byte 2: not a success
  EXPECT_EQ(set_tracking_sensitivity(TRACK_HKW7, 5), 0);
  net.answer(std::nullopt);
  EXPECT_EQ(get_tracking_sensitivity(TRACK_DKW7), 0);
}

TEST_F(Relay, GetAnswersTheRequester) {
  model("K1.T\n");
  net.answer(answer(2));
  request(wp::kTrackGet, 0, wp::kTrackGetLen);
  auto r = reply();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->serial, kDevId);
  EXPECT_EQ(r->operation, wp::kTrackGet);
  EXPECT_EQ(r->sensitivity, 7);
  EXPECT_EQ(net.exchanges.size(), 1u);
}

TEST_F(Relay, SetIsFollowedByAFreshGet) {
  model("S2\n");  // DKW7: raw 0..8
  net.answer(B{0xBB, 0xE1, 1});
  net.answer(answer(4));
  request(wp::kTrackSet, 8);
  ASSERT_EQ(net.exchanges.size(), 2u);
  EXPECT_EQ(net.exchanges[0].request[3], 4);  // 8 * 8 / 15 + 0.5
  EXPECT_EQ(net.exchanges[1].request, (B{0xBB, 0xD1, 0x00}));
  auto r = reply();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->operation, wp::kTrackSet);
  EXPECT_EQ(r->sensitivity, 7);
}

TEST_F(Relay, UnknownOperationOrTypeStillAnswersWithoutSetting) {
  model("T\n");
  net.answer(answer(3));
  auto f = wp::encode_track_request({kDevId, 0, 0});
  f[51] = 1;  // operation 1 written big-endian
  param_receive_mira(sock, tool_addr, f.data(), f.size());
  ASSERT_EQ(net.exchanges.size(), 1u);  // the get only
  auto r = reply();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->operation, 0x01000000u);
  EXPECT_EQ(r->sensitivity, 11);

  // No type code known: no set, and the raw value is reported.
  net.exchanges.clear();
  cam.platform().on("cat /home/device_model_file", "");
  set_device_type_code("");
  net.answer(answer(3));
  request(wp::kTrackSet, 9);
  ASSERT_EQ(net.exchanges.size(), 1u);
  EXPECT_EQ(reply()->sensitivity, 3);
}

TEST_F(Relay, OtherCamerasOtherCommandsAndShortFramesAreSilent) {
  model("T\n");
  request(wp::kTrackGet, 0, wp::kTrackSetLen, std::string(32, 'a'));
  request(wp::kTrackSet, 5, wp::kTrackSetLen - 1);  // a set without its value
  request(wp::kTrackGet, 0, wp::kTrackGetLen - 1);
  request(wp::kTrackGet, 0, wp::kHeaderLen - 1);
  auto search = wp::encode_search_request();
  param_receive_mira(sock, tool_addr, search.data(), search.size());
  EXPECT_FALSE(reply());
  EXPECT_TRUE(net.exchanges.empty());
}

}  // namespace
