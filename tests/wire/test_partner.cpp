// The partner frames byte by byte, and what both ends make of short or odd
// frames.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "wire/broadcast.h"
#include "wire/partner.h"

namespace wp = wire::partner;

namespace {

const std::string kId = "0123456789abcdef0123456789abcdef";

std::vector<uint8_t> bytes(const uint8_t* p, size_t from, size_t n) {
  return std::vector<uint8_t>(p + from, p + from + n);
}
using B = std::vector<uint8_t>;

TEST(WirePartner, SearchReplyLayout) {
  wp::search_reply r;
  r.device_id = kId;
  r.ip = 0xC0A84D0A;  // 192.168.77.10
  r.mac = {0x02, 0x00, 0x00, 0x77, 0x00, 0x01};
  r.name = "ORN Camera";
  r.type_code = "DKW7";
  r.version = "V2.5.1";
  auto f = wp::encode_search_reply(r);
  const uint8_t* p = f.data();
  EXPECT_EQ(bytes(p, 0, 16), (B{0x80, 0xE0, 0, 0, 0, 168, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  // A 32-character ID fills its field: no NUL.
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(p + 16), 32), kId);
  EXPECT_EQ(bytes(p, 48, 24), (B{0x1F, 0x40, 0x02, 0x2A, 192, 168, 77, 10, 0, 0, 0, 0, 0, 0, 0, 1,
                                 0x02, 0x00, 0x00, 0x77, 0x00, 0x01, 0, 0}));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(p + 72)), "ORN Camera");
  EXPECT_EQ(bytes(p, 72 + 10, 22), B(22, 0));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(p + 104)), "DKW7");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(p + 136), 6), "V2.5.1");
  EXPECT_EQ(p[167], 0);

  auto back = wp::decode_search_reply(p, f.size());
  ASSERT_TRUE(back);
  EXPECT_EQ(back->device_id, kId);
  EXPECT_EQ(back->ip, r.ip);
  EXPECT_EQ(back->mac, r.mac);
  EXPECT_EQ(back->version, "V2.5.1");
  EXPECT_FALSE(wp::decode_search_reply(p, f.size() - 1));
}

TEST(WirePartner, NetReplyLayoutWithItsFixedBytes) {
  wp::net_reply r;
  r.device_id = kId;
  r.connection_type = wp::kConnDhcp;
  r.dhcp = 1;
  r.addr = {0x0A000002, 0xFFFFFF00, 0x0A000001, 0x08080808, 0x01010101};
  auto f = wp::encode_net_reply(r);
  const uint8_t* p = f.data();
  EXPECT_EQ(bytes(p, 0, 6), (B{0x80, 0x81, 0, 0, 0, 156}));
  EXPECT_EQ(bytes(p, 48, 44), (B{0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0,  // fixed
                                 2, 0, 0, 0, 0, 0, 0, 1,              // type, DHCP flag
                                 10, 0, 0, 2, 255, 255, 255, 0, 10, 0, 0, 1, 8, 8, 8, 8, 1, 1, 1, 1,
                                 0, 0, 0, 0}));
  EXPECT_EQ(bytes(p, 92, 64), B(64, 0));
  auto back = wp::decode_net_reply(p, f.size());
  ASSERT_TRUE(back);
  EXPECT_EQ(back->connection_type, wp::kConnDhcp);
  EXPECT_EQ(back->addr.dns2, 0x01010101u);
}

TEST(WirePartner, NetSetBodyAndShortFrames) {
  wp::net_set_request r;
  r.serial = kId;
  r.connection_type = wp::kConnStatic;
  r.use_dns = 1;
  r.addr = {0xC0A80105, 0xFFFF0000, 0xC0A80101, 0x01020304, 0x05060708};
  r.pppoe_user = "user";
  auto f = wp::encode_net_set(r);
  ASSERT_EQ(f.size(), 144u);
  EXPECT_EQ(bytes(f.data(), 0, 2), (B{0x00, 0x01}));
  EXPECT_EQ(bytes(f.data(), 48, 32), (B{3, 0, 0, 0, 0, 0, 0, 1, 192, 168, 1, 5, 255, 255, 0, 0, 192,
                                        168, 1, 1, 1, 2, 3, 4, 5, 6, 7, 8, 0, 0, 0, 0}));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(f.data() + 80)), "user");

  // Only the first byte of the connection type counts.
  f[49] = 0x7f;
  f[51] = 0x01;
  auto back = wp::decode_net_set(f.data(), f.size());
  ASSERT_TRUE(back);
  EXPECT_EQ(back->connection_type, wp::kConnStatic);
  EXPECT_EQ(back->addr.ip, r.addr.ip);
  EXPECT_EQ(back->addr.dns2, r.addr.dns2);
  EXPECT_EQ(back->pppoe_user, "user");

  EXPECT_FALSE(wp::decode_net_set(f.data(), 143));
  auto q = wp::encode_net_query(kId);
  EXPECT_EQ(wp::decode_net_query(q.data(), q.size()), kId);
  EXPECT_FALSE(wp::decode_net_query(q.data(), 47));
  EXPECT_FALSE(wp::decode_net_set(q.data(), q.size()));  // a query is not a set
  EXPECT_FALSE(wp::parse_header(q.data(), 15));
  // The length field is reported as sent, whatever arrived.
  q[4] = 0x12;
  q[5] = 0x34;
  EXPECT_EQ(wp::parse_header(q.data(), 16)->length, 0x1234);
}

TEST(WirePartner, TrackingOperationIsLittleEndianSensitivityBigEndian) {
  auto f = wp::encode_track_request({kId, wp::kTrackSet, 9});
  EXPECT_EQ(bytes(f.data(), 0, 6), (B{0x00, 0x61, 0, 0, 0, 56}));
  EXPECT_EQ(bytes(f.data(), 48, 8), (B{1, 0, 0, 0, 0, 0, 0, 9}));
  auto r = wp::decode_track_request(f.data(), f.size());
  ASSERT_TRUE(r);
  EXPECT_EQ(r->operation, 1u);
  EXPECT_EQ(r->sensitivity, 9);

  // A get may stop after the operation; a frame cut inside it is refused.
  auto get = wp::decode_track_request(f.data(), wp::kTrackGetLen);
  ASSERT_TRUE(get);
  EXPECT_EQ(get->sensitivity, 0);
  EXPECT_FALSE(wp::decode_track_request(f.data(), wp::kTrackGetLen - 1));
  // Sent big-endian, the operation reads as a large number.
  f[48] = 0;
  f[51] = 1;
  EXPECT_EQ(wp::decode_track_request(f.data(), f.size())->operation, 0x01000000u);

  auto reply = wp::encode_track_reply({kId, wp::kTrackGet, 15});
  EXPECT_EQ(bytes(reply.data(), 0, 2), (B{0x80, 0xE1}));
  EXPECT_EQ(bytes(reply.data(), 48, 8), (B{0, 0, 0, 0, 0, 0, 0, 15}));
}

TEST(WirePartner, TextsAddressesAndMacs) {
  // A text field holds 32 characters at most and reads back without a NUL.
  auto q = wp::encode_net_query(kId + "overflow");
  EXPECT_EQ(wp::get_text(q.data() + 16), kId);
  EXPECT_EQ(wp::get_text(wp::encode_net_query("ab").data() + 16), "ab");

  EXPECT_EQ(wp::parse_ipv4("10.0.0.1"), 0x0A000001u);
  EXPECT_EQ(wp::parse_ipv4("192.168.077.1"), 0xC0A84D01u);  // decimal, unlike the text commands
  EXPECT_EQ(wp::ipv4_text(0xC0A84D02), "192.168.77.2");
  for (const char* bad : {"", "1.2.3", "1.2.3.4x", "256.1.1.1", "1..2.3", "1.2.3.4.5", "1234.1.1.1"})
    EXPECT_FALSE(wp::parse_ipv4(bad)) << bad;
  EXPECT_EQ(wp::parse_mac("02:0A:ff:77:00:01"), (std::array<uint8_t, 6>{2, 10, 255, 0x77, 0, 1}));
  for (const char* bad : {"", "02:00:00:77:00", "02-00-00-77-00-01", "02:00:00:77:00:0g"})
    EXPECT_FALSE(wp::parse_mac(bad)) << bad;
}

TEST(WireBroadcast, DiscoveryReplyReadsBack) {
  wire::broadcast::net_params p{kId, 1, "10.0.0.9", "255.0.0.0", "10.0.0.1", "9.9.9.9",
                                "02:00:00:77:00:01"};
  auto back = wire::broadcast::parse_discovery_reply(wire::broadcast::discovery_reply(p));
  ASSERT_TRUE(back);
  EXPECT_EQ(back->dhcp, 1);
  EXPECT_EQ(back->macaddr, p.macaddr);  // split at '=', not at the MAC's colons
  EXPECT_FALSE(wire::broadcast::parse_discovery_reply("Network parameter\r\ndhcp=1"));
  EXPECT_FALSE(wire::broadcast::parse_discovery_reply(wire::broadcast::netconfig_reply(kId)));
}

}  // namespace
