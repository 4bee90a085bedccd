// The upgrade against simulated cameras on a virtual clock: what goes on
// the wire, how fast, and what the tool makes of the cameras' answers.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "camtool/fake_lan.h"
#include "camtool/upgrade.h"
#include "camtool/upgrade_camera.h"

namespace {

using camtool_test::fake_camera;
using camtool_test::fake_lan;
using camtool_test::fake_norm;
using nlohmann::json;

const std::string kClient(32, 'c');

std::string id_of(char c) { return std::string(32, c); }

fake_camera cam(char c) { return camtool_test::camera(c); }

std::string random_bytes(size_t n) {
  std::mt19937 gen(42);
  std::string s(n, '\0');
  for (char& ch : s) ch = static_cast<char>(gen());
  return s;
}

struct run_result {
  int status;
  std::map<std::string, json> by_id;
  std::string log;
};

run_result upgrade(fake_lan& lan, const std::string& data, camtool::upgrade_options o,
                   camtool::norm_sender* norm = nullptr) {
  if (o.file_name.empty()) o.file_name = "fw.zip";
  if (o.mode == 0) o.mode = 1;
  o.json = true;
  auto file = camtool::memory_file(data);
  std::ostringstream out, err;
  run_result r;
  r.status = camtool::run_upgrade(lan, kClient, *file, o, out, err, norm);
  r.log = err.str();
  std::istringstream lines(out.str());
  for (std::string line; std::getline(lines, line);) {
    json j = json::parse(line);
    r.by_id[j["device_id"]] = j;
  }
  return r;
}

camtool::time_point announced_at(const fake_lan& lan) {
  for (const auto& s : lan.sent)
    if (s.data.find("File md5:") != std::string::npos) return s.at;
  return camtool::time_point::max();
}

camtool::upgrade_options to(std::vector<std::string> ids) {
  camtool::upgrade_options o;
  o.to = std::move(ids);
  return o;
}

TEST(Upgrade, StreamCarriesTheFileWholeInOrder) {
  for (size_t size : {size_t{0}, size_t{3}, size_t{5078}, size_t{5079}, size_t{3 * 5078 + 17}}) {
    fake_lan lan({cam('a')});
    std::string data = random_bytes(size);
    run_result r = upgrade(lan, data, to({id_of('a')}));
    auto packets = lan.packets();
    ASSERT_GE(packets.size(), 2u) << size << r.log;
    std::string joined;
    for (size_t i = 0; i < packets.size(); ++i) {
      char want = i == 0 ? 'b' : i + 1 == packets.size() ? 'o' : 't';
      EXPECT_EQ(packets[i].kind, want) << size << " packet " << i;
      EXPECT_EQ(packets[i].session, lan.cams[0].session);
      EXPECT_LE(packets[i].len, wire::kPacketDataMax);
      joined.append(packets[i].data, packets[i].len);
    }
    EXPECT_EQ(joined, data) << size;
    EXPECT_EQ(r.status, 0) << r.log;
    EXPECT_EQ(r.by_id[id_of('a')]["acks"], json::array({"057"})) << r.log;
    EXPECT_EQ(r.by_id[id_of('a')]["version_after"], "V2.0");
    EXPECT_TRUE(lan.cams[0].confirmed) << "the post-upgrade report is confirmed";
  }
}

TEST(Upgrade, StreamKeepsTheRequestedRate) {
  const std::string data = random_bytes(400 * 1024);
  for (double mbit : {2.0, 50.0}) {
    fake_lan lan({cam('a')});
    camtool::upgrade_options o = to({id_of('a')});
    o.rate_mbit = mbit;
    upgrade(lan, data, o);
    std::vector<camtool::time_point> at;
    uint64_t bits_before_last = 0, last = 0;
    for (const auto& s : lan.sent)
      if (fake_lan::is_packet(s.data)) {
        at.push_back(s.at);
        bits_before_last += last;
        last = s.data.size() * 8;
      }
    // The last packet goes out once the bits before it have had their time.
    double took = camtool::between(at.front(), at.back());
    double expected = static_cast<double>(bits_before_last) / (mbit * 1e6);
    EXPECT_NEAR(took, expected, expected * 0.05 + 0.01) << mbit;
    // Evenly: no two packets closer than a packet's time on the wire.
    double gap = 5120.0 * 8 / (mbit * 1e6);
    for (size_t i = 2; i + 1 < at.size(); ++i)
      ASSERT_GE(camtool::between(at[i - 1], at[i]), gap * 0.99) << mbit << " packet " << i;
  }
}

TEST(Upgrade, AnnouncesAgainOnlyToCamerasWhoseMd5Failed) {
  fake_camera bad = cam('b');
  bad.md5_failures = 1;
  fake_lan lan({cam('a'), bad, cam('c')});
  run_result r = upgrade(lan, random_bytes(20000), to({id_of('a'), id_of('b'), id_of('c')}));
  EXPECT_EQ(r.status, 0) << r.log;
  EXPECT_EQ(r.by_id[id_of('b')]["acks"], json::array({"06", "057"}));
  EXPECT_EQ(r.by_id[id_of('a')]["acks"], json::array({"057"}));
  for (const auto& c : lan.cams) EXPECT_TRUE(c.confirmed) << c.id;
  // The second announcement names the failed camera alone, in a new session.
  std::vector<std::string> announcements = lan.announcements();
  ASSERT_EQ(announcements.size(), 2u);
  EXPECT_EQ(lan.announcements(true).size(), 4u) << "each round announces twice";
  EXPECT_NE(announcements[0].find("Device ID:0003"), std::string::npos);
  EXPECT_NE(announcements[1].find("Device ID:0001" + id_of('b') + "\r\n"), std::string::npos);
  ASSERT_EQ(lan.cams[1].announced_sessions.size(), 2u);
  EXPECT_NE(lan.cams[1].announced_sessions[0], lan.cams[1].announced_sessions[1]);
  EXPECT_EQ(lan.cams[1].reboots_seen, 2);

  // Without retries the camera stays failed and so does the run.
  bad.md5_failures = 1;
  fake_lan once({bad});
  camtool::upgrade_options o = to({id_of('b')});
  o.retries = 0;
  run_result r0 = upgrade(once, random_bytes(100), o);
  EXPECT_EQ(r0.status, camtool::kExitFailed);
  EXPECT_EQ(r0.by_id[id_of('b')]["outcome"], "md5 failed");
  EXPECT_TRUE(r0.by_id[id_of('b')]["back"]);
}

TEST(Upgrade, ASiteTooLargeForOneAnnouncementIsNamedInSeveral) {
  std::vector<fake_camera> site;
  std::vector<std::string> ids;
  for (int i = 0; i < 200; ++i) {
    fake_camera c;
    c.id = std::string(28, 'e') + std::to_string(1000 + i);
    c.ip = "10.0." + std::to_string(i / 250) + "." + std::to_string(i % 250 + 1);
    ids.push_back(c.id);
    site.push_back(c);
  }
  fake_lan lan(site);
  run_result r = upgrade(lan, random_bytes(100), to(ids));
  EXPECT_EQ(r.status, 0) << r.log;
  ASSERT_EQ(lan.announcements().size(), 2u);
  for (const auto& a : lan.announcements()) EXPECT_LE(a.size(), wire::kBatchDatagram);
  for (const auto& c : lan.cams) EXPECT_EQ(c.announced_sessions.size(), 1u) << c.id;
}

TEST(Upgrade, HowTheToolTellsARebootFromACameraThatStayedUpOrWasNotHeard) {
  // Back too fast for a missed search and without a report: its uptime tells.
  fake_camera quick = cam('a');
  quick.down_for = 0.3;
  quick.reports = false;
  // Started in debug mode: a bad md5 does not reboot it; the next round still comes.
  fake_camera debug = cam('b');
  debug.md5_failures = 1;
  debug.reboots = false;
  // Answers three times each, and its '7' is lost: its restart ends the
  // wait for it, and it does not count as upgraded.
  fake_camera lost = cam('c');
  lost.copies = 3;
  lost.installed_lost = true;
  fake_lan lan({quick, debug, lost});
  run_result r = upgrade(lan, random_bytes(100), to({id_of('a'), id_of('b'), id_of('c')}));
  const json& c = r.by_id[id_of('c')];
  EXPECT_EQ(c["acks"], json::array({"05"})) << r.log;
  EXPECT_TRUE(c["rebooted"] && c["back"]) << c.dump() << r.log;
  EXPECT_FALSE(c["ok"]);
  EXPECT_EQ(c["outcome"], "back after its reboot, its installation's answer not heard");
  const json& a = r.by_id[id_of('a')];
  EXPECT_TRUE(a["rebooted"] && a["back"] && a["ok"]) << a.dump() << r.log;
  // Its report was not heard: confirmed unasked, so it stops waiting.
  EXPECT_FALSE(a["reported"]);
  EXPECT_TRUE(a["confirmed"]);
  EXPECT_TRUE(lan.cams[0].confirmed);
  const json& b = r.by_id[id_of('b')];
  EXPECT_EQ(b["acks"], json::array({"06", "057"})) << r.log;
  EXPECT_FALSE(b["rebooted"]);
  EXPECT_NE(r.log.find(id_of('b') + ": still up, no reboot seen"), std::string::npos) << r.log;
}

// A camera without room or busy with another upgrade is reported and fails
// the run; a slow one answering our resent announcement busy still upgrades.
TEST(Upgrade, CamerasThatDoNotTakeTheFileAndASlowOne) {
  fake_camera slow = cam('a'), full = cam('c'), busy = cam('d'), unheard = cam('e');
  slow.ready_delay = 12.0;  // longer than the resend interval
  full.ready_code = '1';
  busy.ready_code = '9';
  unheard.ready_lost = true;  // takes the file; its '0' is lost, its '9' to the resend heard
  fake_lan lan({slow, full, busy, unheard});
  run_result r =
      upgrade(lan, random_bytes(7000), to({id_of('a'), id_of('c'), id_of('d'), id_of('e')}));
  EXPECT_EQ(r.status, camtool::kExitFailed);
  EXPECT_EQ(r.by_id[id_of('a')]["outcome"], "upgraded") << r.log;
  EXPECT_EQ(r.by_id[id_of('a')]["acks"], json::array({"057"}));
  EXPECT_EQ(r.by_id[id_of('e')]["outcome"], "upgraded") << r.log;
  EXPECT_TRUE(r.by_id[id_of('e')]["ok"]);
  EXPECT_EQ(r.by_id[id_of('c')]["outcome"], "not enough space in /dev");
  EXPECT_EQ(r.by_id[id_of('d')]["outcome"], "busy with another upgrade");
}

TEST(Upgrade, PartitionImagesMustFitTheCamerasPartition) {
  struct {
    int mode;
    size_t size;
    const char* outcome;
  } cases[] = {
      {6, 100, "upgraded"},
      {7, 100, "no partition for mode 7 (it has 2)"},
      {5, 600 * 1024, "the file is larger than mtd0 \"boot\" (512.0 KiB)"},
      {4, 4 * 1024 * 1024, "the file is larger than the flash (3.5 MiB)"},
  };
  for (const auto& k : cases) {
    fake_lan lan({cam('a')});
    camtool::upgrade_options o = to({id_of('a')});
    o.mode = k.mode;
    run_result r = upgrade(lan, std::string(k.size, 'x'), o);
    EXPECT_EQ(r.by_id[id_of('a')]["outcome"], k.outcome) << k.mode << r.log;
    EXPECT_EQ(r.status, std::string(k.outcome) == "upgraded" ? 0 : camtool::kExitFailed);
    EXPECT_EQ(lan.cams[0].announced_sessions.size(), std::string(k.outcome) == "upgraded" ? 1u : 0u);
  }
}

TEST(Upgrade, RefusesWhatTheCamerasWouldMisreadBeforeSending) {
  camtool::upgrade_options good = to({id_of('a')});
  good.file_name = "fw_1.2.zip";
  good.mode = 1;
  EXPECT_NO_THROW(camtool::check_upgrade(good, 999999999));
  EXPECT_THROW(camtool::check_upgrade(good, 1000000000), camtool::tool_error) << "nine digits";
  auto o = good;
  o.file_name = std::string(129, 'x');
  EXPECT_THROW(camtool::check_upgrade(o, 10), camtool::tool_error);
  o = good;
  o.all = true;
  EXPECT_THROW(camtool::check_upgrade(o, 10), camtool::tool_error) << "--to and --all";
  o = good;
  o.to = {"192.168.1.300"};
  EXPECT_THROW(camtool::check_upgrade(o, 10), camtool::tool_error);
}

// The NORM offer: where this build has a NORM sender and --transfer auto,
// the announcement ends in the offer; otherwise it is what a tool without
// NORM sends, and a camera that could take NORM gets the stream.
TEST(UpgradeNorm, OfferedOnlyWithAutoOnABuildThatHasNorm) {
  fake_camera norm_capable = cam('a');
  norm_capable.norm_node = 101;
  const std::string data = random_bytes(12000);
  const wire::norm_offer group{0xefff0102u, 9000};  // 239.255.1.2:9000

  fake_lan with({norm_capable});
  fake_norm sender(with);
  camtool::upgrade_options o = to({id_of('a')});
  o.norm_group = group;
  run_result r = upgrade(with, data, o, &sender);
  EXPECT_EQ(r.status, 0) << r.log;
  const std::string offer = wire::transfer_offer_field(group);
  ASSERT_EQ(with.announcements().size(), 1u);
  const std::string a = with.announcements()[0];
  EXPECT_EQ(a.find("Transfer:"), a.size() - offer.size() + 2) << "once, at the end";
  EXPECT_EQ(a.substr(a.size() - offer.size()), offer);
  EXPECT_TRUE(with.packets().empty()) << "its only camera took NORM";
  ASSERT_EQ(sender.sessions.size(), 1u);
  EXPECT_EQ(sender.sessions[0].group.group, group.group);
  EXPECT_EQ(sender.sessions[0].group.port, group.port);
  EXPECT_EQ(with.cams[0].stored, data);

  for (bool stream_flag : {true, false}) {
    fake_lan without({norm_capable});
    fake_norm unused(without);
    camtool::upgrade_options s = to({id_of('a')});
    if (stream_flag) s.transfer = camtool::transfer_mode::stream;
    run_result rs = upgrade(without, data, s, stream_flag ? &unused : nullptr);
    EXPECT_EQ(rs.status, 0) << rs.log;
    for (const auto& d : without.sent) EXPECT_EQ(d.data.find("Transfer:"), std::string::npos);
    // Today's announcement, byte for byte (but for the session's random ID).
    wire::announcement today;
    today.device_ids = {id_of('a')};
    today.client_id = kClient;
    today.session = without.cams[0].session;
    today.file_name = "fw.zip";
    today.md5 = camtool::file_md5(*camtool::memory_file(data));
    today.file_size = data.size();
    today.mode = 1;
    EXPECT_EQ(without.announcements(), std::vector<std::string>{wire::build_announcement(today)});
    EXPECT_TRUE(unused.sessions.empty());
    EXPECT_EQ(without.cams[0].stored, data);
    EXPECT_EQ(rs.by_id[id_of('a')]["transfers"], json::array({"stream"}));
  }
}

// One command, two kinds of camera: NORM cameras through one session that
// starts as soon as the '0's are in, the rest through the stream after it;
// a NORM camera that never acknowledges is still decided by its '5'.
TEST(UpgradeNorm, AMixedSiteInOneCommand) {
  fake_camera a = cam('a'), b = cam('b'), c = cam('c');
  a.norm_node = 101;
  c.norm_node = 103;
  c.norm_acks = false;
  fake_lan lan({a, b, c});
  fake_norm sender(lan);
  const std::string data = random_bytes(300 * 1024);
  run_result r = upgrade(lan, data, to({id_of('a'), id_of('b'), id_of('c')}), &sender);
  EXPECT_EQ(r.status, 0) << r.log;
  for (char k : {'a', 'b', 'c'}) {
    EXPECT_EQ(r.by_id[id_of(k)]["acks"], json::array({"057"})) << k << r.log;
    EXPECT_EQ(r.by_id[id_of(k)]["outcome"], "upgraded") << k;
  }
  for (const auto& cam_ : lan.cams) EXPECT_EQ(cam_.stored, data) << cam_.id;

  ASSERT_EQ(sender.sessions.size(), 1u);
  const auto& session = sender.sessions[0];
  EXPECT_EQ(session.info, lan.cams[0].session) << "the object's info is the session ID";
  EXPECT_EQ(session.nodes, (std::vector<uint32_t>{101, 103}));
  EXPECT_EQ(session.rate_bps, 50e6);
  // Started once every camera had answered (each takes 6 s), before the stream.
  EXPECT_LT(camtool::between(announced_at(lan), session.started), 6.5);
  uint64_t stream_bytes = 0;
  for (const auto& s : lan.sent)
    if (fake_lan::is_packet(s.data)) {
      EXPECT_GE(s.at, session.started);
      stream_bytes += s.data.size();
    }

  const json& ja = r.by_id[id_of('a')];
  EXPECT_EQ(ja["transfers"], json::array({"norm"}));
  EXPECT_EQ(ja["norm_acked"], true);
  EXPECT_EQ(ja["wire_bytes"], static_cast<uint64_t>(data.size() * 1.05));
  EXPECT_EQ(ja["wire_ratio"], 1.05);
  EXPECT_EQ(r.by_id[id_of('c')]["norm_acked"], false);
  // The session went on asking c until its '5' came (0.2 s after the file).
  EXPECT_GT(session.asked_again, 0);
  EXPECT_GE(camtool::between(session.delivered, session.ended), 0.2);
  EXPECT_LT(camtool::between(session.delivered, session.ended), 0.5);
  const json& jb = r.by_id[id_of('b')];
  EXPECT_EQ(jb["transfers"], json::array({"stream"}));
  EXPECT_TRUE(jb["norm_acked"].is_null());
  EXPECT_EQ(jb["wire_bytes"], stream_bytes);

  // A named camera that never answers holds the session back only briefly
  // (the NORM cameras would give up), however long --answer-wait is.
  fake_lan wait({a, b});
  fake_norm late(wait);
  camtool::upgrade_options o = to({id_of('a'), id_of('b'), id_of('f')});
  o.answer_wait = 120;
  run_result rw = upgrade(wait, data, o, &late);
  ASSERT_EQ(late.sessions.size(), 1u) << rw.log;
  EXPECT_LT(camtool::between(announced_at(wait), late.sessions[0].started), 6 + 10.5);
  EXPECT_EQ(rw.by_id[id_of('a')]["outcome"], "upgraded");
  EXPECT_EQ(rw.by_id[id_of('b')]["outcome"], "upgraded");
  EXPECT_EQ(rw.by_id[id_of('f')]["outcome"], "no answer to the announcement");
}

// A NORM camera whose md5 failed is announced to again with the offer and
// gets the file from a second session, alone; one that gave its session up
// ('2', and it reboots) is sent the stream in the next round; a session that
// cannot start fails its cameras at once and leaves the stream's alone.
TEST(UpgradeNorm, RoundsAgainAndASessionThatCannotStart) {
  fake_camera a = cam('a'), b = cam('b'), c = cam('c');
  a.norm_node = 101;
  a.md5_failures = 1;
  b.norm_node = 102;
  c.norm_node = 103;
  c.norm_gives_up = 1;
  fake_lan lan({a, b, c});
  fake_norm sender(lan);
  const std::string data = random_bytes(40000);
  run_result r = upgrade(lan, data, to({id_of('a'), id_of('b'), id_of('c')}), &sender);
  EXPECT_EQ(r.status, 0) << r.log;
  EXPECT_EQ(r.by_id[id_of('a')]["acks"], json::array({"06", "057"}));
  EXPECT_EQ(r.by_id[id_of('a')]["transfers"], json::array({"norm", "norm"}));
  EXPECT_EQ(r.by_id[id_of('a')]["wire_ratio"], 2.1);
  EXPECT_EQ(r.by_id[id_of('c')]["acks"], json::array({"02", "057"}));
  EXPECT_EQ(r.by_id[id_of('c')]["transfers"], json::array({"norm", "stream"}));
  EXPECT_EQ(r.by_id[id_of('c')]["transfer"], "stream");
  EXPECT_EQ(lan.cams[2].stored, data);
  // Round 2: one announcement with the offer (a), one without (c).
  const auto announced = lan.announcements();
  ASSERT_EQ(announced.size(), 3u);
  EXPECT_NE(announced[1].find(id_of('a')), std::string::npos);
  EXPECT_NE(announced[1].find("Transfer:NORM "), std::string::npos);
  EXPECT_NE(announced[2].find(id_of('c')), std::string::npos);
  EXPECT_EQ(announced[2].find("Transfer:"), std::string::npos);
  ASSERT_EQ(sender.sessions.size(), 2u);
  EXPECT_EQ(sender.sessions[1].nodes, std::vector<uint32_t>{101});
  EXPECT_EQ(sender.sessions[1].info, lan.cams[0].announced_sessions[1]);

  c.norm_gives_up = 2;
  fake_lan twice({c});
  fake_norm again(twice);
  camtool::upgrade_options once = to({id_of('c')});
  once.retries = 0;
  run_result g = upgrade(twice, data, once, &again);
  EXPECT_EQ(g.by_id[id_of('c')]["outcome"], "NORM transfer failed (silence)") << g.log;

  fake_camera n = cam('a'), s = cam('b');
  n.norm_node = 101;
  fake_lan site({n, s});
  fake_norm broken(site);
  broken.refuse = true;
  camtool::upgrade_options o = to({id_of('a'), id_of('b')});
  o.verdict_wait = 600;  // not waited for: the failure is known
  run_result f = upgrade(site, random_bytes(1000), o, &broken);
  EXPECT_EQ(f.status, camtool::kExitFailed);
  EXPECT_EQ(f.by_id[id_of('a')]["outcome"], "NORM failed: NORM refused interface eth9");
  EXPECT_EQ(f.by_id[id_of('b')]["outcome"], "upgraded");
  EXPECT_LT(camtool::between(site.sent.front().at, site.now()), 120.0) << f.log;
}

TEST(UpgradeNorm, TheTableShowsHowTheFileWentAndWhatItCost) {
  camtool::camera_state norm_cam, stream_cam, silent;
  norm_cam.id = id_of('a');
  norm_cam.acks = {"057"};
  norm_cam.transfers = {"norm"};
  norm_cam.wire_bytes = 1075;
  norm_cam.norm_acked = false;
  stream_cam.id = id_of('b');
  stream_cam.acks = {"06", "057"};
  stream_cam.transfers = {"stream", "stream"};
  stream_cam.wire_bytes = 2020;
  silent.id = id_of('c');
  silent.acks = {""};
  silent.transfers = {""};
  std::ostringstream out;
  camtool::print_upgrade_report(out, {norm_cam, stream_cam, silent}, false, 1000);
  std::istringstream lines(out.str());
  std::vector<std::string> rows;
  for (std::string line; std::getline(lines, line);) rows.push_back(line);
  ASSERT_EQ(rows.size(), 5u) << out.str();
  // The cell under `head`, up to the next column's heading.
  auto cell = [&](size_t row, const char* head, const char* next) {
    size_t from = rows[0].find(head), to = rows[0].find(next);
    std::string text = rows[row].substr(from, to - from);
    return text.substr(0, text.find_last_not_of(' ') + 1);
  };
  EXPECT_EQ(cell(1, "TRANSFER", "WIRE"), "norm");
  EXPECT_EQ(cell(1, "WIRE", "REBOOT"), "1.07x no ack");
  EXPECT_EQ(cell(2, "TRANSFER", "WIRE"), "stream / stream");
  EXPECT_EQ(cell(2, "WIRE", "REBOOT"), "2.02x");
  EXPECT_EQ(cell(3, "TRANSFER", "WIRE"), "-");
  EXPECT_EQ(cell(3, "WIRE", "REBOOT"), "-");
}

}  // namespace
