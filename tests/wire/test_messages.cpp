// Messages both ends build and read: byte positions and field forms.
#include <gtest/gtest.h>

#include <string>

#include "wire/text.h"
#include "wire/upgrade.h"

namespace {

const std::string kA(32, 'a'), kB(32, 'b'), kC(32, 'c'), kS(32, '5');

TEST(WireMessages, SearchRequestCarriesTheClientIdAtByte28) {
  std::string req = wire::search_request(kC);
  EXPECT_EQ(req.substr(0, 9), "SEARCH * ");
  EXPECT_EQ(req.substr(28), kC);  // where the camera reads it
}

// Every camera named after the count; the variable fields end with '*'; the
// camera's reader gets every field back.
TEST(WireMessages, AnnouncementNamesEveryCameraAndReadsBack) {
  wire::announcement a;
  a.device_ids = {kA, kB};
  a.client_id = kC;
  a.session = kS;
  a.file_name = "fw.zip";
  a.md5 = std::string(32, 'f');
  a.file_size = 123456789;
  a.mode = 5;
  const std::string text = wire::build_announcement(a);
  EXPECT_EQ(text, "CAMERA_UP\r\nDevice ID:0002" + kA + kB + "\r\nClient ID:" + kC + "\r\nSESSION:" +
                      kS + "\r\nFile name:fw.zip*\r\nFile md5:" + std::string(32, 'f') +
                      "\r\nFile size:123456789*\r\nUpgrade Mode:5");
  auto f = wire::read_announcement(text);
  EXPECT_EQ(f.session, kS);
  EXPECT_EQ(f.file_name, "fw.zip");
  EXPECT_EQ(f.md5, a.md5);
  EXPECT_EQ(f.file_size, 123456789);
  EXPECT_EQ(f.mode, 5);
}

TEST(WireMessages, AnnouncementFieldWidthsAndEnds) {
  // Widths: a name without its '*' stops at 128 characters, a size at nine
  // digits; a mode is one character; a missing mode is no mode at all.
  auto f = wire::read_announcement("File name:" + std::string(200, 'n') +
                              "\r\nFile size:12345678901*\r\nUpgrade Mode:12");
  EXPECT_EQ(f.file_name, std::string(128, 'n'));
  EXPECT_EQ(f.file_size, 123456789);
  EXPECT_EQ(f.mode, 1);
  f = wire::read_announcement("File size:42x*\r\nUpgrade Mode:x");
  EXPECT_EQ(f.file_size, 42);
  EXPECT_EQ(f.mode, 0);
  EXPECT_FALSE(wire::read_announcement("File name:a*").mode);

  // Nothing is read past the datagram's text: its end, or a NUL.
  f = wire::read_announcement(std::string("SESSION:abc\0defFile md5:0123", 28));
  EXPECT_EQ(f.session, "abc");
  EXPECT_EQ(f.md5, "");
  EXPECT_EQ(wire::read_announcement("File md5:0123").md5, "0123");
}

// The opt-in transfer: an offer added to an announcement and the camera's
// answer read back; anything not exactly an offer is no offer (the camera
// then answers as if nothing had been asked).
TEST(WireMessages, TransferOfferAndAnswer) {
  const wire::norm_offer o{0xeffffffdu, 8010};
  const std::string field = wire::transfer_offer_field(o);
  EXPECT_EQ(field, "\r\nTransfer:NORM 239.255.255.253:8010");
  wire::announcement a;
  a.device_ids = {kA};
  a.file_name = "fw.zip";
  const std::string text = wire::build_announcement(a) + field;
  auto got = wire::read_transfer_offer(text);
  ASSERT_TRUE(got);
  EXPECT_EQ(got->group, o.group);
  EXPECT_EQ(got->port, 8010);
  EXPECT_EQ(wire::read_announcement(text).mode, 0);  // the old fields read as before
  EXPECT_TRUE(wire::read_transfer_offer("Transfer:NORM 224.0.0.1:1\r\nX:y"));
  EXPECT_TRUE(wire::read_transfer_offer("Transfer:NORM 224.0.0.1:65535*"));
  for (const char* bad :
       {"", "Transfer:", "Transfer:NORM", "Transfer:FLUTE 239.1.1.1:8010", "Transfer:NORM 10.1.1.1:8010",
        "Transfer:NORM 239.1.1:8010", "Transfer:NORM 239.1.1.256:8010", "Transfer:NORM 239.1.1.1:0",
        "Transfer:NORM 239.1.1.1:65536", "Transfer:NORM 239.1.1.1:8010x", "Transfer:NORM 239.1.1.1",
        "Transfer:NORM  239.1.1.1:8010", "Transfer:NORM 239.1.1.-1:8010", "Transfer:NORM 0239.1.1.1:80",
        "Transfer:NORM 239.1.1.1:123456"})
    EXPECT_FALSE(wire::read_transfer_offer(bad)) << bad;
  // Only the first key counts, and never past a NUL.
  EXPECT_FALSE(wire::read_transfer_offer("Transfer:x\r\nTransfer:NORM 239.1.1.1:8010"));
  auto cut = wire::read_transfer_offer(std::string("Transfer:NORM 239.1.1.1:80\0" "10", 29));
  ASSERT_TRUE(cut);
  EXPECT_EQ(cut->port, 80);

  EXPECT_EQ(wire::transfer_answer_field(3232235777u), "\r\nTransfer:NORM 3232235777");
  EXPECT_EQ(wire::read_transfer_answer("REPLYU DO\r\nAck:0\r\nTransfer:NORM 3232235777"), 3232235777u);
  for (const char* bad : {"Ack:0", "Transfer:NORM 0", "Transfer:NORM 4294967295", "Transfer:NORM 12345678901",
                          "Transfer:NORM x", "Transfer:NORM 12 "})
    EXPECT_FALSE(wire::read_transfer_answer(bad)) << bad;
}

TEST(WireMessages, PacketHeaderAndDataRoundTrip) {
  std::string pkt = wire::build_packet(wire::kPacketMiddle, kS, "xyz", 3);
  ASSERT_EQ(pkt.size(), 45u);
  auto v = wire::parse_packet(pkt.data(), pkt.size());
  ASSERT_TRUE(v);
  EXPECT_EQ(v->kind, 't');
  EXPECT_EQ(v->session, kS);
  EXPECT_EQ(std::string(v->data, v->len), "xyz");
  // A header alone is an empty packet; one byte less is not a packet.
  EXPECT_EQ(wire::parse_packet(pkt.data(), 42)->len, 0u);
  EXPECT_FALSE(wire::parse_packet(pkt.data(), 41));
}

TEST(WireMessages, ReplyFieldsSplitAtTheFirstSeparator) {
  auto f = wire::reply_fields("REPLYU DO\r\nClient ID:" + kC + "\r\nAck:7\r\nIP=10.0.0.2\r\nX=a:b");
  ASSERT_EQ(f.size(), 4u);
  EXPECT_EQ(f[0].first, "Client ID");
  EXPECT_EQ(f[1].second, "7");
  EXPECT_EQ(f[2].second, "10.0.0.2");
  EXPECT_EQ(f[3].second, "a:b");
  EXPECT_EQ(wire::status_confirmation(kA, kC),
            "STATUS * \r\nDevice ID:" + kA + "\r\nClient ID:" + kC + "\r\nStatus=2");
}

}  // namespace
