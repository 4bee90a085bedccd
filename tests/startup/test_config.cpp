// Start-up parsing of the site files, the partition list and the command line.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "core/upgrade.h"
#include "fakes/fake_platform.h"
#include "sim/flash/flash_model.h"

namespace {

class StartupConfig : public ::testing::Test {
 protected:
  void SetUp() override { reset_daemon_state(); }
  FakeCamera cam;
  daemon_state_t& st = daemon_state;
};

template <size_t N, size_t L>
std::vector<std::string> names(const char (&list)[N][L], int count) {
  return std::vector<std::string>(list, list + count);
}
using Names = std::vector<std::string>;

TEST_F(StartupConfig, CommandLineWords) {
  const char* prog = "upgrade";
  struct Case {
    const char* word;
    int mode;
    int arm;
    int version;
  } cases[] = {{"DEBUG", 1, 1, 0},        {"DEBUG_ARM", 2, 1, 0}, {"DEBUG_SEARCH", 3, 1, 0},
               {"ARM_NO_EXIST", 0, 0, 0}, {"VERSION", 0, 1, 1},   {"debug", 0, 1, 0},
               {"DEBUGX", 0, 1, 0}};
  for (const Case& c : cases) {
    reset_daemon_state();
    char* argv[] = {const_cast<char*>(prog), const_cast<char*>(c.word), nullptr};
    EXPECT_EQ(parse_command_line(2, argv), c.version) << c.word;
    EXPECT_EQ(st.work_mode.load(), c.mode) << c.word;
    EXPECT_EQ(st.arm_exist, c.arm) << c.word;
  }
  // Two words: both ignored, even "VERSION".
  reset_daemon_state();
  char* two[] = {const_cast<char*>(prog), const_cast<char*>("VERSION"), const_cast<char*>("DEBUG"),
                 nullptr};
  EXPECT_EQ(parse_command_line(3, two), 0);
  EXPECT_EQ(st.work_mode.load(), 0);
}

// The kill and delete lists: the parse rules, then the bounds of both tables
// (16 entries, 255-byte names) and the flags a missing file clears.
TEST_F(StartupConfig, KillAndDeleteLists) {
  cam.write("/customer/pid_list", "\"main_app\"\n\"autofocus\"\n\"a\"\r\n\"b\"\r\n");
  cam.write("/customer/del_list",
            "\"/data/a.conf\"\n\nno quote here\n\"/data/b.log\n  \"/tmp/c\" trailing\n\"\"\n");
  read_pid_config();
  read_del_config();
  // One byte is skipped after each closing quote: a "\r\n" end carries its
  // "\n" into the next name.
  EXPECT_EQ(names(st.pid_list, st.pid_num), (Names{"main_app", "autofocus", "a", "\nb"}));
  EXPECT_EQ(st.is_kill_pid, 1);
  EXPECT_EQ(names(st.del_list, st.del_num), (Names{"/data/a.conf", "/data/b.log", "/tmp/c", ""}));

  reset_daemon_state();
  std::string text = "\"" + std::string(400, 'x') + "\"\n";
  for (int i = 0; i < 20; ++i) text += "\"p" + std::to_string(i) + "\"\n";
  cam.write("/customer/pid_list", text);
  cam.write("/customer/del_list", text);
  read_pid_config();
  read_del_config();
  EXPECT_EQ(st.pid_num, 16);
  EXPECT_EQ(st.del_num, 16);
  EXPECT_EQ(strlen(st.pid_list[0]), 255u);
  EXPECT_EQ(strlen(st.del_list[0]), 255u);
  EXPECT_STREQ(st.pid_list[15], "p14");
  EXPECT_STREQ(st.del_list[15], "p14");

  reset_daemon_state();
  remove(cam.path("/customer/pid_list").c_str());
  remove(cam.path("/customer/del_list").c_str());
  st.is_kill_pid = st.is_del_file = 1;
  read_pid_config();
  read_del_config();
  EXPECT_EQ(st.is_kill_pid, 0);
  EXPECT_EQ(st.is_del_file, 0);
  EXPECT_EQ(st.pid_num + st.del_num, 0);
}

TEST_F(StartupConfig, BootEnvironmentLocatesTheFirstUnerasedByte) {
  MemoryFlash flash;  // the partitions before the environment's
  flash.add_chain({0x80000, 0x40000}, 0x10000);
  cam.write("/etc/fw_env.config",
            "# device offset size sector\n"
            "/dev/mtd2 0x0\n"                          // too few fields: skipped
            "/dev/mtd2 0x10000 0x20000 0x10000\n"      // four fields: one sector
            "/dev/mtd2 0x30000 0x20000 0x10000 2\n"
            "/dev/mtd3 0x0 0x20000 0x10000 1\n");       // a third entry is never read
  ASSERT_EQ(get_config("/etc/fw_env.config"), 0);
  ASSERT_EQ(st.env_num, 2);
  EXPECT_STREQ(st.env[0].devname, "/dev/mtd2");
  EXPECT_EQ(st.env[0].mtd_num, 2);
  EXPECT_EQ(st.env[0].offset, 0x10000u);
  EXPECT_EQ(st.env[0].sectors, 1u);
  EXPECT_EQ(st.env[1].sectors, 2u);
  EXPECT_EQ(st.flash_unerase_offset, 0x80000u + 0x40000u + 0x10000u + 0x20000u);
}

TEST_F(StartupConfig, BootEnvironmentFailures) {
  errno = 0;
  EXPECT_EQ(get_config("/etc/fw_env.config"), -1);  // missing file
  EXPECT_EQ(errno, ENOENT);
  cam.write("/etc/fw_env.config", "# only comments\n/dev/mtd1 0 0x1000\n");
  errno = 0;
  EXPECT_EQ(get_config("/etc/fw_env.config"), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(st.flash_unerase_offset, 0u);
}

TEST_F(StartupConfig, BootEnvironmentLongLinesAndDevicesAreCut) {
  MemoryFlash flash;
  // 200 bytes of comment arrive in two reads; the tail is not a valid line.
  cam.write("/etc/fw_env.config", "#" + std::string(200, 'c') + "\n" +
                                      "/dev/mtdblock_with_a_long_name7 0x0 0x1000 0x1000\n" +
                                      "/dev/mtd0 0x2000 0x1000 0x1000\n");
  ASSERT_EQ(get_config("/etc/fw_env.config"), 0);
  ASSERT_EQ(st.env_num, 1);
  EXPECT_STREQ(st.env[0].devname, "/dev/mtd0");
  EXPECT_EQ(st.flash_unerase_offset, 0x3000u);
}

TEST_F(StartupConfig, PartitionListFillsTableAndSummary) {
  cam.platform().on("/bin/cat /proc/mtd | grep mtd",
                    "mtd0: 00080000 00010000 \"boot\"\n"
                    "mtd1: 00300000 00010000 \"kernel\"\n"
                    "mtd2: 00c80000 00010000 \"NAND simulator partition 2\"\n");
  read_mtd_info();
  ASSERT_EQ(st.mtd_num, 3);
  EXPECT_STREQ(st.mtd[0].dev, "mtd0:");
  EXPECT_STREQ(st.mtd[1].size, "00300000");
  EXPECT_STREQ(st.mtd[1].erasesize, "00010000");
  EXPECT_STREQ(st.mtd[1].name, "\"kernel\"");
  EXPECT_STREQ(st.mtd[2].name, "\"NAND");  // the label ends at its first blank
  EXPECT_STREQ(st.mtd_summary,
               "mtd0: 00080000 00010000 \"boot\"\n"
               "mtd1: 00300000 00010000 \"kernel\"\n"
               "mtd2: 00c80000 00010000 \"NAND\n");
}

TEST_F(StartupConfig, PartitionListIsBoundedEverywhere) {
  cam.platform().popen_fails("/proc/mtd");
  read_mtd_info();
  EXPECT_EQ(st.mtd_num, 0);
  EXPECT_STREQ(st.mtd_summary, "");

  std::string text;
  for (int i = 0; i < 30; ++i) text += "mtd" + std::to_string(i) + ": 1 1 \"p\"\n";
  cam.platform().on("/proc/mtd", text);
  read_mtd_info();
  EXPECT_EQ(st.mtd_num, 20);

  reset_daemon_state();
  cam.platform().on("/proc/mtd", "mtd0123456789: 0123456789abcdef 1 \"" + std::string(300, 'n') +
                                     "\"\n" + std::string(2000, 'z'));
  read_mtd_info();
  ASSERT_GE(st.mtd_num, 1);
  EXPECT_STREQ(st.mtd[0].dev, "mtd012345");
  EXPECT_STREQ(st.mtd[0].size, "012345678");
  EXPECT_EQ(strlen(st.mtd[0].name), 127u);
  EXPECT_LT(strlen(st.mtd_summary), sizeof(st.mtd_summary));
  // Only the first 1024 bytes of the command's output are read.
  EXPECT_EQ(cam.platform().events().back(), "read:/bin/cat /proc/mtd | grep mtd");
}

TEST_F(StartupConfig, EndpointRecordsEachHaveTheirOwnSocket) {
  fill_endpoint_records();
  EXPECT_NE(st.endpoints[3].sock, nullptr);
  EXPECT_NE(st.endpoints[0].sock, st.endpoints[1].sock);
}

TEST_F(StartupConfig, VersionAndModelAreFirstLinesCut) {
  cam.write("/customer/version_file", "V2.5.1\r\nignored\n");
  cam.write("/customer/device_model_file", std::string(50, 'M') + "\n");
  read_version();
  EXPECT_STREQ(st.soc_version, "V2.5.1");
  EXPECT_EQ(strlen(st.device_model), 31u);
}

}  // namespace
