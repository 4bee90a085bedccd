// The one local-control sender: a datagram from a fresh socket to the
// camera's control service on 127.0.0.1:1259, the socket closed after it.
#include <gtest/gtest.h>

#include "core/local_control.h"
#include "fakes/fake_lan.h"
#include "fakes/fake_platform.h"

namespace {

TEST(LocalControl, OneDatagramToTheServiceOnTheLoopback) {
  FakeCamera cam;
  FakeLan lan;
  const int service = lan.udp(FakeLan::kCamera, "127.0.0.1", kLocalControlPort);
  const unsigned char notice[5] = {0x88, 0x0B, 0x01, 0xAA, 0xFF};
  send_local_control(notice, sizeof(notice));
  auto d = lan.receive(service);
  ASSERT_TRUE(d);
  EXPECT_EQ(d->data, std::string("\x88\x0B\x01\xAA\xFF", 5));
  EXPECT_EQ(d->from_ip(), "127.0.0.1");
  EXPECT_EQ(lan.open_sockets(), 1) << "the sender's socket is closed";
}

TEST(LocalControl, FailuresAreLoggedAndNothingIsSent) {
  FakeCamera cam;
  FakeLan lan;
  const int service = lan.udp(FakeLan::kCamera, "127.0.0.1", kLocalControlPort);
  lan.fail_sockets(true);
  testing::internal::CaptureStderr();
  send_local_control("x", 1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("socket failed\n"), std::string::npos);
  lan.fail_sockets(false);
  lan.fail_sends(true);
  testing::internal::CaptureStderr();
  send_local_control("x", 1);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("sendto failed\n"), std::string::npos);
  EXPECT_FALSE(lan.receive(service));
  EXPECT_EQ(lan.open_sockets(), 1);
}

}  // namespace
