// The listener loop, the endpoints and their failures, the DHCP watcher and the
// post-upgrade status report on the fake LAN; the raw sender on a real socket.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <thread>

#include "disc_test_util.h"
#include "discovery/commands.h"
#include "discovery/dhcp_status.h"

namespace {

struct Listeners : CameraFixtureBase, ::testing::Test {
  LoopEndpoint loop;
  Listeners() {
    mcast_search_switch() = 1;
    mcast_batch_switch() = 1;
  }
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

// init_mcast on the LAN: the options, the membership on eth0's address and
// the outgoing interface, each reply multicast to the group.
TEST_F(Listeners, EndpointOpensOnItsGroupAndRepliesToIt) {
  GroupEndpoint search(wire::kSearchEndpoint);
  ASSERT_EQ(mcast_open_endpoint(&search.ep), 0);
  const int fd = search.sock.load();
  EXPECT_TRUE(lan.member(fd, "239.255.255.251"));
  EXPECT_EQ(lan.option(fd, SOL_SOCKET, SO_REUSEADDR), 1);
  EXPECT_EQ(lan.option(fd, IPPROTO_IP, IP_MULTICAST_LOOP), 0);
  EXPECT_EQ(lan.option(fd, IPPROTO_IP, IP_MULTICAST_TTL), 10);
  EXPECT_TRUE(lan.nonblocking(fd));
  EXPECT_EQ(lan.address_of(fd).sin_port, htons(8005));

  search.send_to_camera("SEARCH * " + std::string(19, '-') + kCliId);
  EXPECT_EQ(mcast_listen_once(&search.ep, mcast_search_switch(), kSearchDatagram, 0), 1);
  auto r = search.reply();
  ASSERT_TRUE(r);
  EXPECT_EQ(r->rfind("REPLY OK ", 0), 0u);
  const auto sent = lan.captured(8005);
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[1].from_ip(), "192.168.77.2");
  EXPECT_EQ(sent[1].to_ip(), "239.255.255.251");
}

// Each step's failure line; a failed membership leaves the socket open.
TEST_F(Listeners, EndpointFailuresAreReportedStepByStep) {
  GroupEndpoint search(wire::kSearchEndpoint);
  const std::pair<int, const char*> steps[] = {{IP_MULTICAST_LOOP, "Set IP_MULTICAST_LOOP failed\n"},
                                               {IP_MULTICAST_TTL, "Set IP_MULTICAST_TTL failed\n"},
                                               {IP_ADD_MEMBERSHIP, "setsockopt failed\n"}};
  for (const auto& [opt, line] : steps) {
    lan.fail_option(IPPROTO_IP, opt);
    testing::internal::CaptureStderr();
    EXPECT_EQ(mcast_reopen_endpoint(&search.ep), -1) << line;
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find(line), std::string::npos) << err;
    lan.fail_option(IPPROTO_IP, opt, false);
  }
  EXPECT_GT(search.sock.load(), 0) << "left open after a failed membership";
  // A failed outgoing interface closes the socket and still counts as opened.
  lan.fail_option(IPPROTO_IP, IP_MULTICAST_IF);
  testing::internal::CaptureStderr();
  EXPECT_EQ(mcast_reopen_endpoint(&search.ep), 0);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("Setting IP_MULTICAST_IF error\n"),
            std::string::npos);
  EXPECT_EQ(search.sock.load(), -1);
}

TEST_F(Listeners, FailedSendReopensTheEndpoint) {
  GroupEndpoint search(wire::kSearchEndpoint);
  ASSERT_EQ(mcast_open_endpoint(&search.ep), 0);
  const int old = search.sock.exchange(-1);
  close_socket(old);
  const int sockets = lan.open_sockets();
  mcast_send_data(&search.ep, "lost");
  EXPECT_FALSE(search.reply(100));
  EXPECT_GT(search.sock.load(), 0);
  EXPECT_NE(search.sock.load(), old);
  EXPECT_EQ(lan.open_sockets(), sockets + 1);
  mcast_send_data(&search.ep, "next");
  EXPECT_EQ(search.reply(), "next");
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

// The two listeners' endpoints, open as the listeners leave them.
struct DhcpWatcher : Listeners {
  GroupEndpoint search{wire::kSearchEndpoint};
  GroupEndpoint batch{wire::kBatchEndpoint};
  int search_fd = -1, batch_fd = -1;
  DhcpWatcher() {
    mcast_open_endpoint(&search.ep);
    mcast_open_endpoint(&batch.ep);
    search_fd = search.sock.load();
    batch_fd = batch.sock.load();
    daemon_state.endpoints[0] = search.ep;
    daemon_state.endpoints[1] = batch.ep;
  }
  // Both sockets are new ones, joined to their groups.
  bool reopened() const {
    return search.sock.load() > 0 && search.sock.load() != search_fd && batch.sock.load() > 0 &&
           batch.sock.load() != batch_fd && lan.member(search.sock.load(), "239.255.255.251") &&
           lan.member(batch.sock.load(), "239.255.255.252");
  }
};

TEST_F(DhcpWatcher, DhcpAddressRecreatesBothSocketsBlocking) {
  cam.platform().on("cat /data/net.conf | grep dhcp", "dhcp=1\n");
  cam.write("/dev/dhcp_ok", "");
  // During the pause both switches are off and both sockets gone.
  int switches = -1, sockets = -1;
  cam.platform().on_sleep([&](uint64_t us) {
    if (us != 1000000) return;
    switches = mcast_search_switch().load() + mcast_batch_switch().load();
    sockets = (search.sock.load() > 0) + (batch.sock.load() > 0);
  });
  check_dhcp_status();
  EXPECT_EQ(switches, 0);
  EXPECT_EQ(sockets, 0);
  EXPECT_TRUE(reopened());
  EXPECT_EQ(mcast_search_switch().load(), 1);
  EXPECT_EQ(mcast_batch_switch().load(), 1);
  EXPECT_FALSE(lan.nonblocking(search.sock.load()));
  EXPECT_FALSE(lan.nonblocking(batch.sock.load()));
  EXPECT_EQ(cam.platform().events().back(), "sleep:1000000");
  // The old sockets are closed: the LAN holds the loop endpoint's two, the
  // two tools and the two new sockets.
  EXPECT_EQ(lan.open_sockets(), 6);
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
  EXPECT_TRUE(reopened());
}

TEST_F(DhcpWatcher, FailedPipeEndsTheThread) {
  cam.platform().popen_fails("cat /data/net.conf | grep dhcp");
  EXPECT_THROW(check_dhcp_status(), ThreadEnded);
  EXPECT_EQ(search.sock.load(), search_fd);
  EXPECT_EQ(batch.sock.load(), batch_fd);
}

// A camera that reports after an upgrade on the status group; eth0 has no
// address yet.
struct StatusReportBeforeAddress : Listeners {
  GroupEndpoint status{wire::kStatusEndpoint};
  StatusReportBeforeAddress() {
    cam.write("/customer/version_file", "v2.0.0\n");
    cam.write("/customer/arm_version_file", "1\n");
  }
  std::string confirm(const std::string& dev, const std::string& state) {
    return "STATUS * \r\nDevice ID:" + dev + "\r\nClient ID:" + kCliId + "\r\n" + state;
  }
};

struct StatusReport : StatusReportBeforeAddress {
  StatusReport() { mark_ipv4_address_ready(); }
};

TEST_F(StatusReport, NotSentWhenConfirmedBeforeOrWithoutControllerRecord) {
  cam.write("/customer/upgrade_finish_flag", "");
  mcast_upgrade_status_report(&status.ep);
  remove(cam.path("/customer/upgrade_finish_flag").c_str());
  remove(cam.path("/customer/arm_version_file").c_str());
  mcast_upgrade_status_report(&status.ep);
  EXPECT_EQ(status.sock.load(), -1) << "the endpoint was never opened";
  EXPECT_FALSE(status.reply(100));
}

// Wrong confirmations (another camera, another status, another command)
// leave it waiting: the right one is the last datagram it reads.
TEST_F(StatusReport, SentOnceThenWaitsForTheRightConfirmation) {
  std::thread reporter([&] { mcast_upgrade_status_report(&status.ep); });
  auto r = status.reply(2000);
  ASSERT_TRUE(r);
  EXPECT_EQ(*r, "STATUS * \r\nDevice ID:" + kDevId +
                    "\r\nMAC=02:00:00:00:00:01\r\nVERSION:v2.0.0\r\nStatus=1");
  for (const std::string& d : {confirm(std::string(32, '9'), "Status=2"),
                               confirm(kDevId, "Status=1"), std::string("SEARCH * "),
                               confirm(kDevId, "Status=2")})
    status.send_to_camera(d);
  reporter.join();
  EXPECT_FALSE(recv_text(status.sock.load(), 0));  // nothing left unread
  EXPECT_TRUE(cam.platform().ran("touch /customer/upgrade_finish_flag"));
  EXPECT_FALSE(lan.member(status.sock.load(), "238.255.255.251")) << "the group is left";
  EXPECT_FALSE(status.reply(100));  // the report is never repeated
}

// A DHCP camera boots without an address: the report goes out once the
// watcher has seen DHCP's, not before (it would be lost, and the camera
// would wait for a confirmation for ever).
TEST_F(StatusReportBeforeAddress, WaitsUntilDhcpHasGivenTheCameraItsAddress) {
  GroupEndpoint search(wire::kSearchEndpoint), batch(wire::kBatchEndpoint);
  daemon_state.endpoints[0] = search.ep;
  daemon_state.endpoints[1] = batch.ep;
  cam.platform().on("cat /data/net.conf | grep dhcp", "dhcp=1\n");
  std::thread reporter([&] { mcast_upgrade_status_report(&status.ep); });
  EXPECT_FALSE(status.reply(300));
  cam.write("/dev/dhcp_ok", "");
  check_dhcp_status();
  auto r = status.reply(2000);
  ASSERT_TRUE(r);
  EXPECT_NE(r->find("\r\nStatus=1"), std::string::npos);
  status.send_to_camera(confirm(kDevId, "Status=2"));
  reporter.join();
}

// The real raw socket (no fake LAN installed): the hand-made headers carry
// the datagram to a UDP socket.
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
