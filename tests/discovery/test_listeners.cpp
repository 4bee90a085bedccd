#include <fcntl.h>
#include <gtest/gtest.h>

#include <thread>

#include "disc_test_util.h"
#include "discovery/commands.h"
#include "discovery/dhcp_status.h"

namespace {

// Re-opening an endpoint in tests: a fresh socket on 127.0.0.1, non-blocking
// like init_mcast leaves it, replies still going to the tool.
std::atomic<int> g_opens{0};
std::atomic<int> g_switch_seen{-1};
int reopen_on_loopback(mcast_endpoint* ep) {
  ++g_opens;
  g_switch_seen = mcast_search_switch().load() + mcast_batch_switch().load();
  sockaddr_in a;
  int fd = bound_udp(&a);
  set_nonblocking(fd, 0);
  ep->sock->store(fd);
  return 0;
}

struct Listeners : CameraFixtureBase, ::testing::Test {
  LoopEndpoint loop;
  Listeners() {
    g_opens = 0;
    set_mcast_open_hook(reopen_on_loopback);
    mcast_search_switch() = 1;
    mcast_batch_switch() = 1;
  }
  ~Listeners() override { set_mcast_open_hook(nullptr); }
  int once(size_t size, uint64_t pause) {
    return mcast_listen_once(&loop.ep, mcast_search_switch(), size, pause);
  }
};

TEST_F(Listeners, SearchListenerCutsAt512BatchKeepsWholeDatagram) {
  std::string far =
      "PRODUCTIO" + std::string(600, ' ') + "\r\nDevice ID:" + kDevId + "\r\nClient ID:" + kCliId;
  loop.send_to_camera(far);
  EXPECT_EQ(once(kSearchDatagram, kSearchPauseUs), 1);
  EXPECT_FALSE(loop.reply(100));
  EXPECT_EQ(cam.platform().events().back(), "sleep:300000");

  cam.platform().clear();
  loop.send_to_camera(far);
  EXPECT_EQ(once(kBatchDatagram, 0), 1);
  auto r = loop.reply();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->rfind("PRODUCTIO\r\nClient ID:" + kCliId, 0), 0u);
  for (const auto& e : cam.platform().events()) EXPECT_NE(e, "sleep:300000");
}

TEST_F(Listeners, DropsWhileInstallingKeepsServingAMulticastUpgradeIdlesWhenOff) {
  std::string search = "SEARCH * " + std::string(19, '-') + kCliId;
  daemon_state.upgrade_busy = 1;
  loop.send_to_camera(search);
  EXPECT_EQ(once(kSearchDatagram, kSearchPauseUs), 1);
  daemon_state.upgrade_busy = 0;
  EXPECT_FALSE(loop.reply(100));
  // A multicast transfer keeps every datagram flowing to the handler.
  set_mcast_upgrade_in_progress(1);
  loop.send_to_camera(search);
  EXPECT_EQ(once(kSearchDatagram, kSearchPauseUs), 1);
  set_mcast_upgrade_in_progress(0);
  EXPECT_TRUE(loop.reply());

  EXPECT_EQ(once(kSearchDatagram, kSearchPauseUs), 0);  // nothing there
  mcast_search_switch() = 0;
  loop.send_to_camera(search);
  EXPECT_EQ(once(kSearchDatagram, kSearchPauseUs), 2);
  EXPECT_EQ(cam.platform().events().back(), "sleep:100000");
  mcast_search_switch() = 1;
  EXPECT_EQ(once(kSearchDatagram, kSearchPauseUs), 1);  // kept by the socket meanwhile
  EXPECT_TRUE(loop.reply());
}

TEST_F(Listeners, FailedSendReopensTheEndpoint) {
  int old = loop.sock.exchange(-1);
  close(old);
  mcast_send_data(&loop.ep, "lost");
  EXPECT_EQ(g_opens.load(), 1);
  EXPECT_FALSE(loop.reply(100));
  mcast_send_data(&loop.ep, "next");
  EXPECT_EQ(loop.reply(), "next");
}

TEST_F(Listeners, NetInfoRetriedForEverWithOneLineAt180) {
  cam.platform().on("ifconfig", "lo        Link encap:Local Loopback  \n");
  int calls = 0;
  cam.platform().on_command([&](const std::string& cmd) {
    if (cmd == "ifconfig" && ++calls == 200) cam.platform().on("ifconfig", kIfconfig);
  });
  testing::internal::CaptureStderr();
  mcast_wait_net_info();
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(calls, 201);
  EXPECT_EQ(mcast_net_info_failures(), 200);
  size_t at = err.find("get_net_info() num is 180, exit mcast_func()\n");
  ASSERT_NE(at, std::string::npos);
  EXPECT_EQ(err.find("num is 180", at + 20), std::string::npos);
  EXPECT_EQ(cam.platform().slept_us(), 200u * 1000000u);
}

struct DhcpWatcher : Listeners {
  LoopEndpoint batch;
  DhcpWatcher() {
    daemon_state.endpoints[0] = loop.ep;
    daemon_state.endpoints[1] = batch.ep;
    g_switch_seen = -1;
  }
};

TEST_F(DhcpWatcher, DhcpAddressRecreatesBothSocketsBlocking) {
  cam.platform().on("cat /data/net.conf | grep dhcp", "dhcp=1\n");
  cam.write("/dev/dhcp_ok", "");
  check_dhcp_status();
  EXPECT_EQ(g_opens.load(), 2);
  EXPECT_EQ(g_switch_seen.load(), 0);  // both switches off while re-opening
  EXPECT_EQ(mcast_search_switch().load(), 1);
  EXPECT_EQ(mcast_batch_switch().load(), 1);
  for (const LoopEndpoint* e : {&loop, &batch}) {
    int fl = fcntl(e->sock.load(), F_GETFL);
    ASSERT_GE(fl, 0);
    EXPECT_EQ(fl & O_NONBLOCK, 0);
  }
  EXPECT_EQ(cam.platform().events().back(), "sleep:1000000");
}

TEST_F(DhcpWatcher, WaitsForTheMarkerAndEndsWithoutPipe) {
  cam.platform().on("cat /data/net.conf | grep dhcp", "");
  int sleeps = 0;
  // The marker appears after three polls.
  std::thread t([&] {
    while (sleeps < 3) {
      sleeps = 0;
      for (const auto& e : cam.platform().events())
        if (e == "sleep:2000000") ++sleeps;
    }
    cam.write("/dev/dhcp_ok", "");
  });
  check_dhcp_status();
  t.join();
  EXPECT_EQ(g_opens.load(), 2);
}

TEST_F(DhcpWatcher, FailedPipeEndsTheThread) {
  cam.platform().popen_fails("cat /data/net.conf | grep dhcp");
  EXPECT_THROW(check_dhcp_status(), ThreadEnded);
  EXPECT_EQ(g_opens.load(), 0);
}

// A camera that reports after an upgrade; eth0 has no address yet.
struct StatusReportBeforeAddress : Listeners {
  StatusReportBeforeAddress() {
    cam.write("/customer/version_file", "v2.0.0\n");
    cam.write("/customer/arm_version_file", "1\n");
  }
  std::string confirm(const std::string& dev, const std::string& status) {
    return "STATUS * \r\nDevice ID:" + dev + "\r\nClient ID:" + kCliId + "\r\n" + status;
  }
};

struct StatusReport : StatusReportBeforeAddress {
  StatusReport() { mark_ipv4_address_ready(); }
};

TEST_F(StatusReport, NotSentWhenConfirmedBeforeOrWithoutControllerRecord) {
  cam.write("/customer/upgrade_finish_flag", "");
  mcast_upgrade_status_report(&loop.ep);
  remove(cam.path("/customer/upgrade_finish_flag").c_str());
  remove(cam.path("/customer/arm_version_file").c_str());
  mcast_upgrade_status_report(&loop.ep);
  EXPECT_EQ(g_opens.load(), 0);
  EXPECT_FALSE(loop.reply(100));
}

// Wrong confirmations (another camera, another status, another command)
// leave it waiting: the right one is the last datagram it reads.
TEST_F(StatusReport, SentOnceThenWaitsForTheRightConfirmation) {
  std::thread reporter([&] { mcast_upgrade_status_report(&loop.ep); });
  auto r = loop.reply(2000);
  ASSERT_TRUE(r);
  EXPECT_EQ(*r, "STATUS * \r\nDevice ID:" + kDevId +
                    "\r\nMAC=02:00:00:00:00:01\r\nVERSION:v2.0.0\r\nStatus=1");
  // Re-opened by the hook: the camera socket may have changed.
  sockaddr_in a;
  socklen_t len = sizeof(a);
  getsockname(loop.sock.load(), reinterpret_cast<sockaddr*>(&a), &len);
  for (const std::string& d : {confirm(std::string(32, '9'), "Status=2"),
                               confirm(kDevId, "Status=1"), std::string("SEARCH * "),
                               confirm(kDevId, "Status=2")})
    send_text(loop.tool, a, d);
  reporter.join();
  EXPECT_FALSE(recv_text(loop.sock.load(), 0));  // nothing left unread
  EXPECT_TRUE(cam.platform().ran("touch /customer/upgrade_finish_flag"));
  EXPECT_FALSE(loop.reply(100));  // the report is never repeated
}

// A DHCP camera boots without an address: the report goes out once the
// watcher has seen DHCP's, not before (it would be lost, and the camera
// would wait for a confirmation for ever).
TEST_F(StatusReportBeforeAddress, WaitsUntilDhcpHasGivenTheCameraItsAddress) {
  LoopEndpoint search, batch;
  daemon_state.endpoints[0] = search.ep;
  daemon_state.endpoints[1] = batch.ep;
  cam.platform().on("cat /data/net.conf | grep dhcp", "dhcp=1\n");
  std::thread reporter([&] { mcast_upgrade_status_report(&loop.ep); });
  EXPECT_FALSE(loop.reply(300));
  cam.write("/dev/dhcp_ok", "");
  check_dhcp_status();
  auto r = loop.reply(2000);
  ASSERT_TRUE(r);
  EXPECT_NE(r->find("\r\nStatus=1"), std::string::npos);
  sockaddr_in a;
  socklen_t len = sizeof(a);
  getsockname(loop.sock.load(), reinterpret_cast<sockaddr*>(&a), &len);
  send_text(loop.tool, a, confirm(kDevId, "Status=2"));
  reporter.join();
}

TEST(RawSender, HandMadeHeadersReachAUdpSocket) {
  int probe = socket(AF_INET, SOCK_RAW, IPPROTO_UDP);
  if (probe < 0) GTEST_SKIP() << "no raw sockets here";
  close(probe);
  FakeCamera cam;
  sockaddr_in rx_addr;
  int rx = bound_udp(&rx_addr);
  ASSERT_EQ(ip_udp_send("127.0.0.1", 8000, "127.0.0.1", ntohs(rx_addr.sin_port), "hello", 5), 0);
  pollfd p{rx, POLLIN, 0};
  ASSERT_EQ(poll(&p, 1, 500), 1);
  char buf[64];
  sockaddr_in from;
  socklen_t len = sizeof(from);
  ssize_t n = recvfrom(rx, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &len);
  close(rx);
  ASSERT_EQ(n, 5);
  EXPECT_EQ(std::string(buf, 5), "hello");
  EXPECT_EQ(ntohs(from.sin_port), 8000);
}

}  // namespace
