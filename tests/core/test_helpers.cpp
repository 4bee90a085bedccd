// Shell, process and file helpers, observed through the fake platform.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/watchdog.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "core/daemon_state.h"
#include "core/helpers.h"
#include "fakes/fake_platform.h"

namespace {

class Helpers : public ::testing::Test {
 protected:
  void SetUp() override { reset_daemon_state(); }
  // Console text is captured only between these two calls, so that test
  // failures still reach the terminal.
  void capture() {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
  }
  void release() {
    out = testing::internal::GetCapturedStdout();
    err = testing::internal::GetCapturedStderr();
  }
  void set_kill_list(std::vector<std::string> names) {
    daemon_state.pid_num = static_cast<int>(names.size());
    for (size_t i = 0; i < names.size(); ++i)
      snprintf(daemon_state.pid_list[i], kListNameLen, "%s", names[i].c_str());
  }
  FakeCamera cam;
  FakePlatform& fake = cam.platform();
  std::string out, err;
};

// What the shell makes of a quoted word is the word itself.
TEST_F(Helpers, ShellQuoteKeepsTheTextOneWord) {
  for (const char* text : {"K1.T", "a b", "it's", "$(reboot);`id`|&>x", "\\\"", ""}) {
    std::string cmd = "printf %s " + shell_quote(text);
    FILE* p = popen(cmd.c_str(), "r");
    ASSERT_NE(p, nullptr);
    char buf[128] = {};
    size_t n = fread(buf, 1, sizeof(buf) - 1, p);
    pclose(p);
    EXPECT_EQ(std::string(buf, n), text) << cmd;
  }
}

TEST_F(Helpers, KillSequenceInterruptsTheFirstEntryAndKillsTheRest) {
  set_kill_list({"main_app", "hid", "rtsp"});
  capture();
  EXPECT_EQ(kill_pid_main(), 0);
  release();
  std::vector<std::string> expect = {
      "sh:killall ntp_client", "sleep:2000000", "sh:killall ntp_client", "sleep:1000000",
      "sh:killall -2 main_app", "sleep:2000000", "sh:killall -2 main_app",
      "sh:killall hid",  // "hid" is stopped with the default signal
      "sleep:1000000", "sh:killall -9 rtsp", "sleep:1000000",
      "read:ps | grep \"main_app\" | grep -v grep", "read:ps | grep \"hid\" | grep -v grep",
      "read:ps | grep \"rtsp\" | grep -v grep"};
  EXPECT_EQ(fake.events(), expect);
  EXPECT_NE(out.find("### kill process finish!!!"), std::string::npos);
}

// One entry: interrupted twice, five seconds in all; an empty list or a
// cleared flag: nothing at all.
TEST_F(Helpers, KillSequenceOfOneEntryOrNone) {
  EXPECT_EQ(kill_pid_main(), 0);
  daemon_state.is_kill_pid = 0;
  set_kill_list({"x"});
  EXPECT_EQ(kill_pid_main(), 0);
  EXPECT_TRUE(fake.events().empty());
  daemon_state.is_kill_pid = 1;
  set_kill_list({"main_app"});
  kill_pid_main();
  EXPECT_EQ(fake.slept_us(), 5000000u);
  int interrupts = 0;
  for (const auto& c : fake.commands()) interrupts += c == "killall -2 main_app";
  EXPECT_EQ(interrupts, 2);
}

TEST_F(Helpers, FindPidTakesTheFirstNumberOfTheListing) {
  fake.on("grep \"main_app\"", "  812 root      5120 S    /customer/main_app\n  900 root ...\n");
  EXPECT_EQ(find_pid("main_app"), 812);
  EXPECT_EQ(find_pid("gone"), 0);  // no output
  fake.popen_fails("grep \"bad\"");
  EXPECT_EQ(find_pid("bad"), 0);
}

TEST_F(Helpers, Md5VerifyComparesTheDigestAndItsEnd) {
  const char* digest = "0123456789abcdef0123456789abcdef";
  fake.on("/usr/bin/md5sum '/dev/pkg.zip'", std::string(digest) + "  /dev/pkg.zip\n");
  EXPECT_EQ(md5_verify("/dev/pkg.zip", digest), 0);
  EXPECT_EQ(md5_verify("/dev/pkg.zip", (std::string(digest) + "\n").c_str()), -1);
  EXPECT_EQ(md5_verify("/dev/pkg.zip", "0123456789ABCDEF0123456789ABCDEF"), -1);
  fake.on("/usr/bin/md5sum '/dev/short'", "0123");
  EXPECT_EQ(md5_verify("/dev/short", digest), -1);
  fake.popen_fails("/dev/nopipe");
  EXPECT_EQ(md5_verify("/dev/nopipe", digest), -1);
}

TEST_F(Helpers, WatchdogRebootArmsAndNeverFeeds) {
  capture();
  EXPECT_EQ(wdt_reboot(1), 0);  // no device
  release();
  EXPECT_EQ(err.substr(err.size() - 25), "open /dev/watchdog failed");

  fake.clear();
  fake.watchdog_present = true;
  capture();
  EXPECT_EQ(wdt_reboot(1), 1);
  release();
  auto ioctl = [](unsigned long req, int arg) {
    char text[64];
    snprintf(text, sizeof(text), "wdt_ioctl:%lx:%d", req, arg);
    return std::string(text);
  };
  // Timeout, then enable (WDIOS_ENABLECARD through WDIOC_SETOPTIONS), then read back.
  EXPECT_EQ(fake.events(), (std::vector<std::string>{"wdt_open", ioctl(WDIOC_SETTIMEOUT, 1),
                                                     ioctl(0xc0045704, 2), ioctl(WDIOC_GETTIMEOUT, 0)}));
  EXPECT_NE(out.find("wdt time 1s"), std::string::npos);
}

// The real device is opened close-on-exec: a forked installer must not keep
// the armed watchdog.
TEST_F(Helpers, WatchdogDescriptorIsNotInherited) {
  cam.write("/dev/watchdog", "");
  Platform real;
  int fd = real.watchdog_open(cam.path("/dev/watchdog").c_str());
  ASSERT_GE(fd, 0);
  EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
  close(fd);
}

TEST_F(Helpers, RebootSequenceArmsWaitsAndReboots) {
  fake.watchdog_present = true;
  reboot_sequence();
  std::vector<std::string> ev = fake.events();
  ASSERT_GE(ev.size(), 3u);
  EXPECT_EQ(ev[ev.size() - 2], "sleep:5000000");
  EXPECT_EQ(ev.back(), "reboot");
  EXPECT_EQ(ev.front(), "wdt_open");
}

TEST_F(Helpers, DeleteFileRemovesListedFilesWhenEnabled) {
  cam.write("/data/a", "1");
  cam.write("/data/b", "2");
  daemon_state.del_num = 3;
  strcpy(daemon_state.del_list[0], "/data/a");
  strcpy(daemon_state.del_list[1], "/data/missing");
  strcpy(daemon_state.del_list[2], "/data/b");
  daemon_state.is_del_file = 0;
  delete_file();
  EXPECT_TRUE(cam.exists("/data/a"));
  daemon_state.is_del_file = 1;
  capture();
  delete_file();
  release();
  EXPECT_FALSE(cam.exists("/data/a"));
  EXPECT_FALSE(cam.exists("/data/b"));
  // The line is written whatever the removal's outcome.
  EXPECT_NE(out.find("remove file[1]: /data/missing succeed"), std::string::npos);
}

TEST_F(Helpers, CreateDirAndFileSize) {
  EXPECT_EQ(createDir("/data/x/y/file.bin"), 0);
  struct stat st;
  EXPECT_EQ(stat(cam.path("/data/x/y").c_str(), &st), 0);
  EXPECT_TRUE(S_ISDIR(st.st_mode));
  EXPECT_NE(stat(cam.path("/data/x/y/file.bin").c_str(), &st), 0);
  EXPECT_EQ(createDir("/nofile"), 0);
  EXPECT_EQ(createDir("relative"), 0);
  cam.write("/data/plain", "");
  EXPECT_EQ(createDir("/data/plain/sub/f"), -1);  // a file in the way

  cam.write("/data/f", std::string(1234, 'x'));
  EXPECT_EQ(get_file_size("/data/f"), 1234u);
  EXPECT_EQ(get_file_size("/data/none"), 0u);
}

TEST_F(Helpers, NumberTexts) {
  char buf[16];
  for (uint32_t v : {0u, 4294967295u}) {
    int_to_decimal(v, buf);
    EXPECT_EQ(std::string(buf), std::to_string(v));
  }
  for (auto [v, text] : {std::pair<uint32_t, const char*>{0, ""}, {31, "1F"}, {0xDEADBEEF, "DEADBEEF"}}) {
    EXPECT_EQ(int_to_hex(v, buf), static_cast<int>(strlen(text))) << text;
    EXPECT_STREQ(buf, text);
  }
  // Letters past f count on ('x' too: "0x10" is 0, 33, 1, 0); no overflow check.
  for (auto [text, v] : {std::pair<const char*, uint32_t>{"1g", 32}, {"ff", 255}, {"FF x", 255},
                         {"0x10", 0x2110}, {"", 0}, {"123456789", 0x23456789}})
    EXPECT_EQ(hex_to_int(text), v) << text;
}

TEST_F(Helpers, TcpMessageLayout) {
  unsigned char rec[kTcpMessageSize];
  memset(rec, 0xEE, sizeof(rec));
  const char data[] = "payload";
  build_tcp_message(rec, -2, data, "file.bin", 0x01020304, 0xA0B0C0D0, sizeof(data) - 1);
  const unsigned char head[12] = {0xFE, 0xFF, 0xFF, 0xFF, 0x04, 0x03, 0x02, 0x01,
                                  0xD0, 0xC0, 0xB0, 0xA0};
  EXPECT_EQ(memcmp(rec, head, 12), 0);
  for (int i = 12; i < 16; ++i) EXPECT_EQ(rec[i], 0xEE) << i;  // left as found
  EXPECT_STREQ(reinterpret_cast<char*>(rec + 16), "file.bin");
  EXPECT_EQ(rec[16 + 255], 0);
  EXPECT_EQ(memcmp(rec + 272, "payload", 7), 0);
  EXPECT_EQ(rec[272 + 7], 0);
  EXPECT_EQ(rec[kTcpMessageSize - 1], 0);

  // Oversized data and names are cut to their areas.
  std::string big(5000, 'B');
  std::string name(400, 'N');
  build_tcp_message(rec, 1, big.data(), name.c_str(), 0, 0, big.size());
  EXPECT_EQ(rec[16 + 255], 0);
  EXPECT_EQ(rec[kTcpMessageSize - 1], 'B');
}

TEST_F(Helpers, DiskTrailerCountsPartitionBits) {
  daemon_state.mtd_num = 4;
  const std::string body(100, 'x'), mark("UZ\xAA\xA5");
  cam.write("/dev/img", body + mark + "<v1><3.11>");
  int total = 0, list = 0, len = 0;
  EXPECT_EQ(check_disk_info("/dev/img", &total, &list, &len), 0);  // 11 = bits 0,1,3
  EXPECT_EQ(total, 3);
  EXPECT_EQ(list, 11);
  EXPECT_EQ(len, 14);
  // Numbers past an int are refused, not wrapped (2^32 + 1 would pass as 1).
  for (const std::string& file : {body + mark + "<v1><0.11>", body + mark + "<v><4294967297.1>",
                                  body + mark + "<v><1.99999999999>", std::string("tiny")}) {
    cam.write("/dev/img", file);
    EXPECT_EQ(check_disk_info("/dev/img", &total, &list, &len), -1) << file;
  }
  EXPECT_EQ(check_disk_info("/dev/none", &total, &list, &len), -1);
}

TEST_F(Helpers, KeptShellHelpers) {
  fake.on("ls /dev | grep u-boot", "u-boot.bin\n");
  EXPECT_EQ(system_cmd("ls /dev | grep u-boot"), 0);
  EXPECT_EQ(system_cmd("ls /dev | grep none"), -1);
  char md5[33];
  fake.on("md5sum '/dev/a'", "0123456789abcdef0123456789abcdef  /dev/a\n");
  EXPECT_EQ(get_file_md5("/dev/a", md5), 0);
  EXPECT_STREQ(md5, "0123456789abcdef0123456789abcdef");
  EXPECT_EQ(get_file_md5("/dev/b", md5), -1);
}

// A fatal failure on one thread ends the process while the listeners run:
// nothing may be destroyed under them (the platform, the camera root), so
// no exit-time destructor or handler runs; the console is still flushed.
TEST(PlatformDeathTest, ProcessEndsWithoutExitTimeDestruction) {
  // "fast": the child is forked, not executed again (under qemu-arm the test
  // binary cannot be run directly).
  GTEST_FLAG_SET(death_test_style, "fast");
  EXPECT_EXIT(
      {
        atexit([] { fputs("exit handlers ran\n", stderr); });
        fputs("last console line\n", stderr);
        Platform().exit_process(1);
      },
      testing::ExitedWithCode(1), testing::AllOf(testing::HasSubstr("last console line"),
                                                  testing::Not(testing::HasSubstr("exit handlers"))));
}

}  // namespace
