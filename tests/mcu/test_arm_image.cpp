#include "mcu/arm_image.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "core/daemon_state.h"
#include "sim/stm32/stm32_sim.h"
#include "wire/file_name.h"
#include "mcu_test_util.h"

namespace {

constexpr char kType1[] = "X_ARM_V1.2.3_TYPE1.bin";
constexpr char kType2[] = "X_ARM_V1.2.4_TYPE2.bin";
constexpr char kFlashType1[] = "/customer/arm_upgrade /dev/ttyS1 /customer/X_ARM_V1.2.3_TYPE1.bin >&1";

TEST(ArmVersionTest, VersionComesFromTheImageName) {
  const char* cases[][2] = {
      {"X_ARM_V1.2.3_TYPE1.bin", "1.2.3_1"}, {"M_ARM_V3.bin", "3"},
      {"X_ARM_V1_2_T3.bin", "12_3"},  // only "_T" keeps its underscore
      {"motor_v1.2.bin", ""},         // no "ARM"
      {"ARM", ""},                    {"X_ARM_1.2", "1.2"},
  };
  for (const auto& c : cases) {
    char v[64];
    arm_version_from_name(c[0], v, sizeof(v));
    EXPECT_STREQ(v, c[1]) << c[0];
  }
  char small[4];
  arm_version_from_name(kType1, small, sizeof(small));
  EXPECT_STREQ(small, "1.2");
}

// Controller images follow the one file-name rule of every installer.
TEST(ArmImageNameTest, ListedNamesFollowTheFileNameRule) {
  FakeCamera cam;
  for (const char* name : {"X_ARM_V1+2_TYPE1.bin", "X_ARM_V1,2_TYPE1.bin", "X_ARM_V1@2.bin",
                           "a;b_ARM_.bin", "$(x)_ARM_.bin", "a b_ARM_.bin", "x*_ARM_.bin"}) {
    cam.platform().on("grep _ARM_", std::string(name) + "\n");
    char found[300] = {};
    EXPECT_EQ(found_arm_upgrade_file("/bin/ls /customer/ | grep _ARM_", found, sizeof(found)),
              is_safe_file_name(name) ? 1 : 0)
        << name;
  }
}

class CheckArmTest : public testing::Test {
 protected:
  void SetUp() override { reset_daemon_state(); }
  FakePlatform& p() { return cam.platform(); }
  void listing(const std::string& type1, const std::string& type2, const std::string& any = "") {
    p().on("grep _TYPE1.bin", type1.empty() ? "" : type1 + "\n");
    p().on("grep _TYPE2.bin", type2.empty() ? "" : type2 + "\n");
    p().on("grep .bin", any.empty() ? "" : any + "\n");
  }
  size_t count(const std::string& part) {
    auto c = p().commands();
    return std::count_if(c.begin(), c.end(), [&](const std::string& s) { return s.find(part) != s.npos; });
  }
  FakeCamera cam;
};

TEST_F(CheckArmTest, FlashesTheImageWritesTheRecordAndReboots) {
  cam.write("/data/preset_info.dat", "x");
  listing(kType1, "");
  int busy = -1;
  p().on_command([&](const std::string& cmd) {
    if (cmd.rfind("/customer/arm_upgrade", 0) == 0) busy = daemon_state.upgrade_busy + 2 * daemon_state.arm_upgrade_flag;
  });
  CaptureStdout();
  check_arm(1);
  EXPECT_THAT(GetCapturedStdout(), HasSubstr("upgradefilepath: /customer/X_ARM_V1.2.3_TYPE1.bin\n"));
  EXPECT_EQ(busy, 3);
  EXPECT_EQ(cam.read("/customer/arm_version_file"), "ARM: [1.2.3_1]");
  std::vector<std::string> ev = p().events();
  std::vector<std::string> order = {"sh:cp /customer/image_default.conf /data/image.conf",
                                    "sh:echo motor_type=1 > /data/motor_type",
                                    "sleep:13000000",
                                    "fork",
                                    std::string("sh:") + kFlashType1,
                                    "sh:cp /customer/arm_version_file /data/.",
                                    "waitpid",
                                    "sh:touch /home/preset_sync_flag",
                                    "reboot"};
  auto it = ev.begin();
  for (const auto& e : order) {
    it = std::find(it, ev.end(), e);
    EXPECT_NE(it, ev.end()) << "missing or out of order: " << e;
  }
  EXPECT_EQ(count("rm -rf"), 0u);
}

// Which image is flashed, which is removed and what motor type is stored,
// by the images listed and the stored motor type.
TEST_F(CheckArmTest, MotorTypeChoosesTheImage) {
  struct Row {
    const char *type1, *type2, *any, *motor, *flashed, *removed, *stored, *record;
  } rows[] = {
      {kType1, kType2, "", "motor_type=2", kType2, kType1, "motor_type=2", "ARM: [1.2.4_2]"},
      {kType1, kType2, "", "motor_type=3", kType1, kType2, "motor_type=1", "ARM: [1.2.3_1]"},
      {"", kType2, "", "", kType2, nullptr, "motor_type=2", "ARM: [1.2.4_2]"},
      {"", "", "M_ARM_V3.bin", "", "M_ARM_V3.bin", nullptr, nullptr, "ARM: [3]"},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.flashed + std::string(" with ") + r.motor);
    std::filesystem::remove(cam.path("/customer/arm_version_file"));
    p().clear();
    listing(r.type1, r.type2, r.any);
    p().on("cat /data/motor_type", r.motor);
    check_arm(2);
    EXPECT_TRUE(p().ran(std::string("/customer/arm_upgrade /dev/ttyS1 /customer/") + r.flashed + " >&1"));
    EXPECT_EQ(count("rm -rf"), r.removed ? 1u : 0u);
    EXPECT_TRUE(!r.removed || p().ran(std::string("rm -rf /customer/") + r.removed));
    EXPECT_EQ(count("echo motor_type"), r.stored ? 1u : 0u);
    EXPECT_TRUE(!r.stored || p().ran(std::string("echo ") + r.stored + " > /data/motor_type"));
    EXPECT_EQ(count("image_default.conf"), 0u);  // only with 1
    EXPECT_EQ(cam.read("/customer/arm_version_file"), r.record);
  }
}

TEST_F(CheckArmTest, NoImageOrAnUnsafeNameFlashesNothing) {
  listing("", "", "");
  check_arm(1);
  listing("a;reboot_ARM_TYPE1.bin", "", "$(reboot)_ARM_.bin");
  CaptureStderr();
  check_arm(1);
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("not found upgrade file\n"));
  EXPECT_EQ(count("arm_upgrade"), 0u);
  EXPECT_EQ(p().reboots(), 0);
  EXPECT_EQ(daemon_state.arm_upgrade_flag.load(), 0);
  EXPECT_EQ(daemon_state.upgrade_busy.load(), 0);
}

TEST_F(CheckArmTest, ThreeFailedRunsLeaveNoRecordAndReturn) {
  listing(kType1, "");
  daemon_state.work_mode = WORK_DEBUG_ARM;
  p().on("/customer/arm_upgrade", "", 256);
  CaptureStderr();
  check_arm(1);
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("##### arm upgrade failed\n"));
  EXPECT_EQ(p().commands().back(),
            "/customer/arm_upgrade /dev/ttyS1 /customer/X_ARM_V1.2.3_TYPE1.bin DEBUG >&1");
  EXPECT_EQ(count("arm_upgrade"), 3u);
  EXPECT_FALSE(cam.exists("/customer/arm_version_file"));
  EXPECT_EQ(p().reboots(), 0);
  EXPECT_EQ(daemon_state.arm_upgrade_flag.load(), 0);
}

TEST_F(CheckArmTest, ParentWaitsAndRebootsForkOrRecordFailureEndsTheThread) {
  listing(kType1, "");
  p().fork_result = 4321;
  check_arm(1);
  EXPECT_EQ(count("arm_upgrade"), 0u);
  EXPECT_EQ(p().reboots(), 1);

  p().fork_result = -1;
  EXPECT_THROW(check_arm(1), ThreadEnded);
  EXPECT_EQ(daemon_state.arm_upgrade_flag.load(), 0);

  // A directory where the record goes: it can be neither opened nor written.
  p().fork_result = 0;
  std::filesystem::create_directories(cam.path("/customer/arm_version_file"));
  CaptureStderr();
  EXPECT_THROW(check_arm(1), ThreadEnded);
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("oepn /customer/arm_version_file failed\n"));
  EXPECT_EQ(p().reboots(), 1);
}

TEST_F(CheckArmTest, UpdateRecordsTheVersion) {
  p().popen_fails("/bin/ls /dev/");
  EXPECT_EQ(update_arm_version(1), 0);
  EXPECT_EQ(cam.read("/customer/arm_version_file"), "ARM: []");

  // No truncation: a shorter record leaves the old tail.
  cam.write("/customer/arm_version_file", "ARM: [10.20.30_1]");
  p().on("/bin/ls /dev/", "Y_ARM_V1.2_TYPE1.bin\nZ_ARM_V9.bin\n");
  EXPECT_EQ(update_arm_version(1), 0);
  EXPECT_STREQ(daemon_state.arm_upgrade_file_name, "Y_ARM_V1.2_TYPE1.bin");
  EXPECT_EQ(cam.read("/customer/arm_version_file"), "ARM: [1.2_1]30_1]");
  std::filesystem::remove(cam.path("/customer/arm_version_file"));

  p().on("/bin/ls /dev/", "Y_ARM_V7.bin\n");
  EXPECT_EQ(update_arm_version(2), 0);  // the name only
  EXPECT_STREQ(daemon_state.arm_upgrade_file_name, "Y_ARM_V7.bin");
  EXPECT_FALSE(cam.exists("/customer/arm_version_file"));

  p().on("/bin/ls /dev/", "");
  EXPECT_EQ(update_arm_version(2), 1);

  p().on("/bin/ls /dev/", std::string(300, 'a'));
  EXPECT_EQ(update_arm_version(1), 0);
  EXPECT_EQ(std::string(daemon_state.arm_upgrade_file_name), std::string(127, 'a'));
  EXPECT_EQ(cam.read("/customer/arm_version_file"), "ARM: []");
}

// ---- preset replay -------------------------------------------------------------

class PresetSyncTest : public testing::Test {
 protected:
  void SetUp() override {
    cam.write("/customer/arm_upgrade", "");
    link_serial(cam, pty.slave_path());
  }
  static void put(std::vector<uint8_t>& f, size_t off, int32_t v) {
    for (int i = 0; i < 4; ++i) f[off + i] = static_cast<uint8_t>(static_cast<uint32_t>(v) >> (8 * i));
  }
  void write_presets(int32_t count, const std::vector<int>& flagged, size_t size = kPresetFileSize) {
    std::vector<uint8_t> f(kPresetFileSize, 0);
    put(f, 0, count);
    for (int i : flagged) {
      put(f, 4 + 36 * i, 1);
      for (int w = 0; w < 8; ++w) put(f, 8 + 36 * i + 4 * w, 0x100 + i + w);  // low byte is sent
    }
    cam.write("/data/preset_info.dat", std::string(f.begin(), f.begin() + static_cast<long>(size)));
    pty.refresh_line();
  }
  std::vector<std::vector<uint8_t>> frames() {
    auto bytes = pty.read_some(14 * 300, 300);
    EXPECT_EQ(bytes.size() % 14, 0u);
    std::vector<std::vector<uint8_t>> out;
    for (size_t i = 0; i + 14 <= bytes.size(); i += 14) out.emplace_back(bytes.begin() + i, bytes.begin() + i + 14);
    return out;
  }
  FakeCamera cam;
  Pty pty;
};

TEST_F(PresetSyncTest, SendsOneFramePerStoredPresetUpToTheCount) {
  write_presets(3, {5, 9, 200, 201});
  sync_preset_info_dat();
  auto f = frames();
  ASSERT_EQ(f.size(), 3u);
  EXPECT_EQ(f[0], (std::vector<uint8_t>{0x81, 0x0A, 0x11, 0x17, 5, 5, 6, 7, 8, 9, 10, 11, 12, 0xFF}));
  EXPECT_EQ(f[1][4], 9);
  EXPECT_EQ(f[2][4], 200);
  EXPECT_EQ(cam.platform().events(), std::vector<std::string>(3, "sleep:200000"));

  // More counted than flagged: every flagged record, then the end of the table.
  write_presets(10, {1, 255});
  CaptureStdout();
  sync_preset_info_dat();
  EXPECT_THAT(GetCapturedStdout(), testing::Not(HasSubstr("sync finish")));
  f = frames();
  ASSERT_EQ(f.size(), 2u);
  EXPECT_EQ(f[1][4], 255);
}

TEST_F(PresetSyncTest, BadFiles) {
  // Short: what is there counts, the rest reads as empty records.
  write_presets(5, {0, 1, 100}, 4 + 36 * 2 - 4);
  sync_preset_info_dat();
  auto f = frames();
  ASSERT_EQ(f.size(), 2u);
  EXPECT_EQ(f[1][12], 0);  // record 1's last word was cut off

  CaptureStderr();
  write_presets(-1, {1});
  sync_preset_info_dat();
  write_presets(0, {}, 0);
  sync_preset_info_dat();
  std::string err = GetCapturedStderr();
  EXPECT_THAT(err, HasSubstr("cur_preset_manager.num <= 0\n"));
  EXPECT_THAT(err, HasSubstr("/data/preset_info.dat is empty!\n"));

  std::filesystem::remove(cam.path("/data/preset_info.dat"));
  sync_preset_info_dat();
  EXPECT_TRUE(cam.platform().ran("touch /data/preset_info.dat"));

  std::filesystem::remove(cam.path("/customer/arm_upgrade"));
  write_presets(1, {1});
  sync_preset_info_dat();
  EXPECT_TRUE(frames().empty());
}

}  // namespace
