#include "partner/param_mira.h"

#include "partner_test_util.h"

namespace {

using B = std::vector<uint8_t>;

// A reading of the tracking service carrying `v` at both used places.
B reading(uint8_t v) { return B{0xBB, 0xD1, v, v, 0, 0, 0}; }

struct Relay : PartnerCamera {
  int sock = -1, tool = -1;
  sockaddr_in tool_addr{};
  Relay() {
    sock = bound_udp(nullptr);
    tool = bound_udp(&tool_addr);
  }
  ~Relay() override {
    close_socket(sock);
    close_socket(tool);
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
    requests.clear();
    answer(B{0xBB, 0xE1, 1});
    EXPECT_EQ(set_tracking_sensitivity(c.type, c.tool), 1);
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0], (B{0xBB, 0xE1, 0x04, static_cast<uint8_t>(c.raw), 0, 0, 0}))
        << c.type << " " << c.tool;
    answer(reading(static_cast<uint8_t>(c.raw)));
    EXPECT_EQ(get_tracking_sensitivity(c.type), c.back) << c.type << " raw " << c.raw;
    EXPECT_EQ(requests[1], (B{0xBB, 0xD1, 0x00}));
    EXPECT_EQ(cam.platform().events().back(), "sleep:300000");  // between request and answer
  }
}

TEST_F(Relay, ShortOrMissingAnswersReadAsZero) {
  answer(B{0xBB, 0xD1, 0x00});  // no byte 3
  EXPECT_EQ(get_tracking_sensitivity(TRACK_HKW7), 0);
  answer(B{0xBB, 0xE1});  // no byte 2: not a success
  EXPECT_EQ(set_tracking_sensitivity(TRACK_HKW7, 5), 0);
  answer(std::nullopt);
  EXPECT_EQ(get_tracking_sensitivity(TRACK_DKW7), 0);
}

TEST_F(Relay, GetAnswersTheRequester) {
  model("K1.T\n");
  answer(reading(2));
  request(wp::kTrackGet, 0, wp::kTrackGetLen);
  auto r = reply();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->serial, kDevId);
  EXPECT_EQ(r->operation, wp::kTrackGet);
  EXPECT_EQ(r->sensitivity, 7);
  EXPECT_EQ(requests.size(), 1u);
}

TEST_F(Relay, SetIsFollowedByAFreshGet) {
  model("S2\n");  // DKW7: raw 0..8
  answer(B{0xBB, 0xE1, 1});
  answer(reading(4));
  request(wp::kTrackSet, 8);
  ASSERT_EQ(requests.size(), 2u);
  EXPECT_EQ(requests[0][3], 4);  // 8 * 8 / 15 + 0.5
  EXPECT_EQ(requests[1], (B{0xBB, 0xD1, 0x00}));
  auto r = reply();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->operation, wp::kTrackSet);
  EXPECT_EQ(r->sensitivity, 7);
}

TEST_F(Relay, UnknownOperationOrTypeStillAnswersWithoutSetting) {
  model("T\n");
  answer(reading(3));
  auto f = wp::encode_track_request({kDevId, 0, 0});
  f[51] = 1;  // operation 1 written big-endian
  param_receive_mira(sock, tool_addr, f.data(), f.size());
  ASSERT_EQ(requests.size(), 1u);  // the get only
  auto r = reply();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->operation, 0x01000000u);
  EXPECT_EQ(r->sensitivity, 11);

  // No type code known: no set, and the raw value is reported.
  requests.clear();
  cam.platform().on("cat /home/device_model_file", "");
  set_device_type_code("");
  answer(reading(3));
  request(wp::kTrackSet, 9);
  ASSERT_EQ(requests.size(), 1u);
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
  EXPECT_TRUE(requests.empty());
}

}  // namespace
