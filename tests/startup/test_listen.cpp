// The TCP maintenance port at start-up: opened on the network seam, 5555
// with address reuse, listened on and registered; a bind failure ends the
// process.
#include <gtest/gtest.h>

#include "core/upgrade.h"
#include "fakes/fake_lan.h"
#include "fakes/fake_platform.h"

namespace {

TEST(MaintenancePort, ListensOn5555WithAddressReuse) {
  FakeCamera cam;
  FakeLan lan;
  int fd = -1;
  sockaddr_in addr{};
  testing::internal::CaptureStdout();
  EXPECT_EQ(init_tcpsocket(&fd, &addr), 0);
  EXPECT_NE(testing::internal::GetCapturedStdout().find("init socket succeed\n"),
            std::string::npos);
  EXPECT_EQ(lan.option(fd, SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_EQ(ntohs(lan.address_of(fd).sin_port), 5555);
  EXPECT_EQ(ntohs(addr.sin_port), 5555);
  lan.close(fd);
}

TEST(MaintenancePort, BindFailureEndsTheProcess) {
  FakeCamera cam;
  FakeLan lan;
  // Someone holds the port without allowing reuse.
  const int other = lan.socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(5555);
  ASSERT_EQ(lan.bind(other, reinterpret_cast<sockaddr*>(&a), sizeof(a)), 0);
  int fd = -1;
  sockaddr_in addr{};
  testing::internal::CaptureStderr();
  try {
    init_tcpsocket(&fd, &addr);
    ADD_FAILURE() << "the process went on";
  } catch (const ProcessExited& e) {
    EXPECT_EQ(e.status, 1);
  }
  EXPECT_NE(testing::internal::GetCapturedStderr().find("bind failed\n"), std::string::npos);
  EXPECT_EQ(lan.open_sockets(), 1) << "the failed socket is closed";
}

}  // namespace
