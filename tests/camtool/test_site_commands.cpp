// The single-camera commands on a site of many cameras: how long the
// technician waits while other tools flood the search group, which lost
// datagrams are sent again (and which must not be), and what is reported for
// a busy camera and for one that went silent without confirming.
#include <gtest/gtest.h>

#include <sstream>

#include "camtool/commands.h"
#include "camtool/fake_site.h"

namespace {

using camtool_test::fake_site;
using camtool_test::site_camera;

// camtool's view of the site; the test keeps the site.
class borrowed : public camtool::transport {
 public:
  explicit borrowed(fake_site& s) : s_(s) {}
  void send(camtool::channel ch, std::string_view d) override { s_.send(ch, d); }
  void send_to(camtool::channel ch, const std::string& ip, int port, std::string_view d) override {
    s_.send_to(ch, ip, port, d);
  }
  std::optional<camtool::datagram> receive(camtool::time_point t) override { return s_.receive(t); }
  camtool::time_point now() override { return s_.now(); }

 private:
  fake_site& s_;
};

struct outcome {
  int status;
  std::string out, err;
  double took;  // on the site's clock
};

// Runs one command as main does: a tool_error becomes its status and message.
outcome run(fake_site& site, const std::function<int(camtool::command_context&)>& cmd,
            double timeout = 3.0) {
  camtool::lazy_lan lan([&site] { return std::make_unique<borrowed>(site); });
  std::ostringstream out, err;
  camtool::command_context ctx{lan, std::string(32, 'e'), out, err, false, timeout, 3.0, 60.0, {}};
  auto start = site.now();
  int status;
  try {
    status = cmd(ctx);
  } catch (const camtool::tool_error& e) {
    status = e.status;
    err << e.what();
  }
  return {status, out.str(), err.str(), camtool::between(start, site.now())};
}

int count(const std::vector<std::string>& v, const std::string& word) {
  return static_cast<int>(std::count(v.begin(), v.end(), word));
}

// Loses the first `n` datagrams `pick` accepts.
auto lose_first(int n, std::function<bool(const site_camera*, const site_camera*, const std::string&)> pick) {
  auto left = std::make_shared<int>(n);
  return [left, pick](const site_camera* from, const site_camera* to, const std::string& d) {
    if (*left == 0 || !pick(from, to, d)) return false;
    --*left;
    return true;
  };
}

bool starts(const std::string& d, const char* word) { return d.rfind(word, 0) == 0; }

}  // namespace

TEST(SiteCommands, AnsweredAtOnceOnALargeSiteWhileAnotherToolFloodsTheSearchGroup) {
  fake_site site(200);
  // Another tool's searches on the search group: every camera answers there,
  // and every camera's listener then sleeps 300 ms per answer it hears.
  for (int i = 0; i < 3; ++i) site.other_tool(camtool::channel::search, wire::search_request(std::string(32, 'f')));

  auto prod = run(site, [](auto& ctx) { return camtool::cmd_production(ctx, "192.168.77.160"); });
  EXPECT_EQ(prod.status, 0) << prod.err;
  EXPECT_NE(prod.out.find("boot_times 0"), std::string::npos);
  EXPECT_LT(prod.took, 2.0);

  auto query = run(site, [&](auto& ctx) { return camtool::cmd_query(ctx, {site.cams[20].id}); });
  EXPECT_EQ(query.status, 0) << query.err;
  EXPECT_LT(query.took, 2.0);

  camtool::confignet_flags dns;
  dns.dns = "1.1.1.1";
  auto net = run(site, [&](auto& ctx) { return camtool::cmd_confignet(ctx, site.cams[7].id, dns); });
  EXPECT_EQ(net.status, 0) << net.err;
  EXPECT_NE(net.out.find("accepted; the camera reboots"), std::string::npos);
  EXPECT_LT(net.took, 2.0);
  EXPECT_EQ(site.cams[7].taken, std::vector<std::string>{"CONFIGNET"});

  auto boot = run(site, [&](auto& ctx) { return camtool::cmd_reboot(ctx, "192.168.77.19", true); });
  EXPECT_EQ(boot.status, 0) << boot.err;
  EXPECT_NE(boot.out.find("rebooting"), std::string::npos);
  EXPECT_EQ(site.cams[9].taken, std::vector<std::string>{"CAMERA_RE"});
  EXPECT_LT(boot.took, camtool::kRebootSilence + 1.0);

  for (const auto& [ch, data] : site.sent) EXPECT_EQ(ch, camtool::channel::batch) << data;

  // The same request on the search group waits behind the flood.
  std::string by_hand = wire::addressed_request(wire::KW_PRODUCTIO, site.cams[160].id, std::string(32, 'e'));
  auto sent_at = site.now();
  site.send(camtool::channel::search, by_hand);
  std::optional<camtool::datagram> d;
  while ((d = site.receive(camtool::after(sent_at, 600))) && !starts(d->data, "PRODUCTIO")) {}
  ASSERT_TRUE(d);
  EXPECT_GT(camtool::between(sent_at, site.now()), 30.0);
}

TEST(SiteCommands, ACopyGoesOutAgainOnlyOnceTheCameraShowsItReadPastTheLastOne) {
  fake_site site(20);
  site.down_for = 10;
  const site_camera* c3 = &site.cams[3];
  // The request lost on its way, then the answer lost on its way back: both
  // end in one more request, which the camera answers.
  site.drop = lose_first(1, [&](auto, auto to, auto& d) { return to == c3 && starts(d, "PRODUCTIO"); });
  auto a = run(site, [](auto& ctx) { return camtool::cmd_production(ctx, "192.168.77.13"); });
  EXPECT_EQ(a.status, 0) << a.err;
  EXPECT_EQ(count(site.cams[3].taken, "PRODUCTIO"), 1);
  site.drop = lose_first(1, [&](auto from, auto to, auto& d) {
    return from == c3 && !to && starts(d, "PRODUCTIO");
  });
  auto b = run(site, [](auto& ctx) { return camtool::cmd_production(ctx, "192.168.77.13"); });
  EXPECT_EQ(b.status, 0) << b.err;
  EXPECT_EQ(count(site.cams[3].taken, "PRODUCTIO"), 3);

  const site_camera* c4 = &site.cams[4];
  site.drop = lose_first(1, [&](auto, auto to, auto& d) { return to == c4 && starts(d, "CAMERA_RE"); });
  auto r = run(site, [&](auto& ctx) { return camtool::cmd_reboot(ctx, c4->id, true); });
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(site.cams[4].taken, std::vector<std::string>{"CAMERA_RE"});

  // A lost confirmation: the camera took the settings and is rebooting. It
  // is not sent them again; its return with them confirms the command.
  const site_camera* c5 = &site.cams[5];
  site.drop = [&](auto from, auto to, auto& d) { return from == c5 && !to && starts(d, "SUCCEED"); };
  camtool::confignet_flags f;
  f.ip = "192.168.77.205";
  f.dns = "9.9.9.9";
  auto n = run(site, [&](auto& ctx) { return camtool::cmd_confignet(ctx, c5->id, f); });
  EXPECT_EQ(n.status, 0) << n.err;
  EXPECT_NE(n.out.find("came back after its reboot with the settings"), std::string::npos) << n.out;
  EXPECT_EQ(site.cams[5].taken, std::vector<std::string>{"CONFIGNET"});
  EXPECT_EQ(site.cams[5].net.ipaddr, "192.168.77.205");

  // The same for a serial number: back with it.
  site.drop = [&](auto from, auto to, auto& d) { return from == c5 && !to && starts(d, "SUCCEED"); };
  auto l = run(site, [&](auto& ctx) { return camtool::cmd_lumconfig(ctx, c5->id, "SN-7", std::nullopt); });
  EXPECT_EQ(l.status, 0) << l.err;
  EXPECT_EQ(count(site.cams[5].taken, "LUMCONFIG"), 1);
}

TEST(SiteCommands, ABusyCameraIsWaitedForAndASilentOneIsNotReportedUnanswered) {
  fake_site site(20);
  // When the request reaches it, its batch listener has 5 s of work ahead
  // (another tool's board test came first): the request waits in its queue
  // and is answered then, once.
  const site_camera* c2 = &site.cams[2];
  site.drop = [&](auto, auto to, auto& d) {
    if (to == c2 && starts(d, "PRODUCTIO")) site.occupy(2, camtool::channel::batch, 5.0);
    return false;
  };
  auto p = run(site, [](auto& ctx) { return camtool::cmd_production(ctx, "192.168.77.12"); }, 10.0);
  EXPECT_EQ(p.status, 0) << p.err;
  EXPECT_GT(p.took, 4.9);
  EXPECT_EQ(count(site.cams[2].taken, "PRODUCTIO"), 1);

  // Confirmation lost and the camera not back within the wait: neither
  // "accepted" nor "no answer", but what is known.
  site.down_for = 600;
  const site_camera* c6 = &site.cams[6];
  site.drop = [&](auto from, auto to, auto& d) { return from == c6 && !to && starts(d, "SUCCEED"); };
  camtool::confignet_flags f;
  f.dhcp = "on";
  auto n = run(site, [&](auto& ctx) { return camtool::cmd_confignet(ctx, c6->id, f); });
  EXPECT_EQ(n.status, camtool::kExitFailed);
  EXPECT_NE(n.err.find("went silent after the command as a camera that takes it does, and was not back "
                       "within 60 s"),
            std::string::npos)
      << n.err;
  EXPECT_EQ(site.cams[6].taken, std::vector<std::string>{"CONFIGNET"});

  // Every copy lost: the camera answered the query behind each, so it never
  // took the command; said after three copies.
  const site_camera* c8 = &site.cams[8];
  site.drop = [&](auto, auto to, auto& d) { return to == c8 && starts(d, "CONFIGNET"); };
  auto lost = run(site, [&](auto& ctx) { return camtool::cmd_confignet(ctx, c8->id, f); });
  EXPECT_EQ(lost.status, camtool::kExitFailed);
  EXPECT_NE(lost.err.find("read the command 3 times and did not take it"), std::string::npos) << lost.err;
  EXPECT_TRUE(site.cams[8].taken.empty());
}
