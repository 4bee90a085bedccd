#include "install/mtd_upgrade.h"

#include <sys/stat.h>

#include <cstring>
#include <filesystem>

#include "install_fixture.h"
#include "wire/signature.h"

namespace {

constexpr uint32_t kEb = 0x1000;

// boot, env, kernel, rootfs, data: 0x32000 bytes in 0x1000-byte blocks.
const std::vector<std::pair<uint32_t, std::string>> kLayout = {
    {0x8000, "boot"}, {0x2000, "env"}, {0x10000, "kernel"}, {0x10000, "rootfs"}, {0x8000, "data"}};
constexpr uint32_t kFlashSize = 0x32000;
constexpr uint32_t kEnvEnd = 0xA000;  // first byte after the boot environment

class MtdUpgradeTest : public InstallTest {
 protected:
  void SetUp() override {
    InstallTest::SetUp();
    daemon_state.flash_unerase_offset = kEnvEnd;
    std::strcpy(daemon_state.soc_version, "2.7.1");
    std::strcpy(daemon_state.device_model, "K1.x");
  }
  void image(const Bytes& bytes, const std::string& name = "fw.img") {
    cam.write("/dev/" + name, as_text(bytes));
    cam.platform().on("grep .img", name + "\n");
  }
  // Contents of the whole flash, partitions back to back.
  Bytes whole(MemoryFlash& chip) {
    Bytes all;
    for (size_t i = 0; i < kLayout.size(); ++i) {
      all.insert(all.end(), chip.data(static_cast<int>(i)).begin(),
                 chip.data(static_cast<int>(i)).end());
    }
    return all;
  }
  // Presets the partitions of `chip` with `img`, back to back.
  void preset(MemoryFlash& chip, const Bytes& img) {
    for (size_t i = 0, at = 0; i < kLayout.size(); at += kLayout[i].first, ++i)
      std::copy_n(img.begin() + at, kLayout[i].first, chip.data(static_cast<int>(i)).begin());
  }
  std::string install() { return printed(mtd_upgrade_install); }
};

TEST_F(MtdUpgradeTest, TriggerFiles) {
  EXPECT_EQ(0, mtd_upgrade_triggered());
  cam.write("/dev/onvif_upgrade_flag", "");
  EXPECT_EQ(1, mtd_upgrade_triggered());
  std::remove(cam.path("/dev/onvif_upgrade_flag").c_str());
  cam.write("/dev/mtd_upgrade", "");
  EXPECT_EQ(1, mtd_upgrade_triggered());
}

TEST_F(MtdUpgradeTest, WholeImageWritesEveryPartitionThenSetsFlagsInOrder) {
  partitions(kLayout, kEb);
  track_env();
  const Bytes img = pattern(kFlashSize + 0x3000, 1);  // longer than the flash
  image(img);
  std::string out = install();
  EXPECT_TRUE(Bytes(img.begin(), img.begin() + kFlashSize) == whole(flash));
  EXPECT_EQ(1, daemon_state.upgrade_busy.load());
  EXPECT_EQ(std::string::npos, out.find("exit mtdbug"));
  EXPECT_THAT(out, HasSubstr("ALL_MTD upgrade succeed\n"));
  EXPECT_THAT(out, HasSubstr("mtd2 write_addr 0xa000 skip:0 dev_offset:0 file_offset:0xA000"));
  EXPECT_THAT(out, HasSubstr("mtd_file_offset: 0x1A000\n"));
  // Flag 1 right after the environment partition; flag 2 never, since the
  // visited blocks never reach the size of this (longer) image.
  EXPECT_EQ("1", flag("net_upgrade_flag"));
  EXPECT_EQ("0", flag("dfu_upgrade_flag"));
  std::vector<std::string> cmds = cam.platform().commands();
  auto at = [&](const std::string& c) {
    return std::find(cmds.begin(), cmds.end(), c) - cmds.begin();
  };
  EXPECT_LT(at("echo  > /dev/orn.log"), at("rm -rf /dev/*.log"));
  EXPECT_LT(at("/dev/fw_setenv net_upgrade_flag 1"), at("/dev/fw_setenv dfu_upgrade_flag 0"));
  EXPECT_EQ(1, cam.platform().reboots());
  EXPECT_EQ("reboot", cam.platform().events().back());
}

// Whatever operation the power fails at, the boot loader never sees flag 2
// unless every partition the image covers holds the image; on NAND with a
// bad block in the root file system (the image's last block then finds no
// room) it never sees flag 2 at all.
TEST_F(MtdUpgradeTest, PowerCutAtEveryOperationNeverShowsCompleteEarly) {
  const Bytes img = pattern(kFlashSize, 4);
  struct Chip {
    uint8_t type;
    const char* rootfs_bad;  // bad-block map of partition 3
    const char* final_flag;  // after a run without a cut
  };
  for (const Chip chip_kind : {Chip{kNor, "", "2"}, Chip{kNand, "...B", "1"}}) {
    SCOPED_TRACE(chip_kind.type == kNand ? "NAND with a bad block" : "NOR");
    long total = -1;
    int seen_one = 0, seen_none = 0;
    for (long k = 0; total < 0 || k <= total; ++k) {
      FakeCamera cam_k;
      MemoryFlash chip;
      partitions(kLayout, kEb, chip_kind.type, &chip);
      chip.set_bad_map(3, chip_kind.rootfs_bad);
      preset(chip, Bytes(kFlashSize, 0x00));  // old firmware
      cam_k.write("/dev/fw.img", as_text(img));
      cam_k.platform().on("grep .img", "fw.img\n");
      track_env(&cam_k.platform(), &chip);
      if (total >= 0) chip.power_cut_after(k);
      printed(mtd_upgrade_install);
      const std::string f = flag("net_upgrade_flag");
      if (total < 0) {  // the uncut run counts the operations
        total = chip.operations();
        ASSERT_EQ(chip_kind.final_flag, f);
        k = -1;
        continue;
      }
      if (f == "2") {
        EXPECT_TRUE(whole(chip) == img) << "cut after operation " << k;
      }
      // NOR completes only in the uncut run; NAND never does.
      EXPECT_EQ(chip_kind.type == kNor && k == total, f == "2") << k;
      seen_one += f == "1";
      seen_none += f.empty();
    }
    // Cuts before the environment is rewritten leave the flags alone.
    EXPECT_EQ(2 * static_cast<int>(kEnvEnd / kEb), seen_none);
    EXPECT_EQ(static_cast<int>(total) - seen_none + (chip_kind.type == kNand ? 1 : 0), seen_one);
  }
}

// The flags are the boot loader's only clue: a block left corrupt must keep
// the run at net_upgrade_flag 1, though the visited blocks reach the image
// size and the rest is written.
TEST_F(MtdUpgradeTest, BlockThatNeverVerifiesKeepsFlagOne) {
  partitions(kLayout, kEb, kNand);
  flash.fail_verify(2, 3, 4);  // kernel block 3: four bad read-backs
  track_env();
  const Bytes img = pattern(kFlashSize, 9);
  image(img);
  std::string out = install();
  EXPECT_THAT(out, HasSubstr("mtd2: 1 block(s) not verified\n"));
  EXPECT_THAT(out, HasSubstr("1 block(s) not verified, net_upgrade_flag stays 1\n"));
  EXPECT_EQ("1", flag("net_upgrade_flag"));
  EXPECT_FALSE(ran("/dev/fw_setenv net_upgrade_flag 2"));
  EXPECT_TRUE(flash.data(4) == Bytes(img.end() - 0x8000, img.end()));
  EXPECT_EQ(1, cam.platform().reboots());
}

TEST_F(MtdUpgradeTest, NandBadBlockShiftsImageToNextGoodBlock) {
  const uint32_t eb = 0x4000;
  partitions({{0x8000, "boot"}, {0x10000, "kernel"}, {0x10000, "rootfs"}}, eb, kNand);
  flash.set_bad_map(1, ".B..");
  daemon_state.flash_unerase_offset = 0;
  track_env();
  const Bytes img = pattern(0x28000, 5);
  image(img);
  install();
  const Bytes& k = flash.data(1);
  EXPECT_TRUE(std::equal(img.begin() + 0x8000, img.begin() + 0xC000, k.begin()));
  EXPECT_TRUE(std::all_of(k.begin() + eb, k.begin() + 2 * eb, [](uint8_t b) { return b == 0xFF; }));
  EXPECT_TRUE(std::equal(img.begin() + 0xC000, img.begin() + 0x14000, k.begin() + 2 * eb));
  // The next partition still starts at its own image offset.
  EXPECT_TRUE(std::equal(img.begin() + 0x18000, img.end(), flash.data(2).begin()));
  // One block fewer was visited than the image holds: no flag 2.
  EXPECT_EQ("1", flag("net_upgrade_flag"));
}

// The upgrade log goes quiet from the first data partition; the end of the
// run still reaches it when the image ends before that partition.
TEST_F(MtdUpgradeTest, UpgradeLogAndFlagsByWhereTheImageEnds) {
  partitions(kLayout, kEb);
  track_env();
  // Ends inside a kernel block: nothing was quiet, the kernel is not
  // touched and only 0xA000 of 0xA800 bytes were visited, so flag 1.
  image(pattern(0xA800, 8));
  EXPECT_THAT(install(), HasSubstr("exit mtdbug\n"));
  std::string log = cam.read("/data/upgrade.log");
  EXPECT_THAT(log, HasSubstr("exit mtdbug\n"));
  EXPECT_THAT(log, HasSubstr("ALL_MTD upgrade succeed\n"));
  EXPECT_TRUE(flash.data(2) == Bytes(0x10000, 0xFF));
  EXPECT_EQ("1", flag("net_upgrade_flag"));

  image(pattern(0x2A000, 10));  // up to rootfs: "data" is not covered
  EXPECT_THAT(install(), HasSubstr("exit mtdbug\n"));
  log = cam.read("/data/upgrade.log");
  EXPECT_EQ(std::string::npos, log.find("exit mtdbug")) << log;
  EXPECT_THAT(log, HasSubstr("ALL_MTD upgrade succeed\n"));
  EXPECT_THAT(log, HasSubstr("MTD upgrade finish, reboot\n"));

  image(pattern(kFlashSize, 6));  // covers "data": quiet to the end
  install();
  log = cam.read("/data/upgrade.log");
  EXPECT_THAT(log, HasSubstr("soc version: 2.7.1, device_type: K1.x\n"));
  EXPECT_THAT(log, HasSubstr("mtd3 write_addr"));
  EXPECT_EQ(std::string::npos, log.find("mtd4 write_addr"));
  EXPECT_EQ(std::string::npos, log.find("MTD upgrade finish"));
}

TEST_F(MtdUpgradeTest, RefusedNamesRebootWithoutTouchingFlash) {
  partitions(kLayout, kEb);
  daemon_state.del_num = 1;
  std::strcpy(daemon_state.del_list[0], "/data/old.cfg");
  // A link (even to a good image) or a pipe in /dev is not an image.
  cam.write("/elsewhere/fw.img", std::string(0x100, 'i'));
  std::filesystem::create_directories(cam.path("/dev"));
  std::filesystem::create_symlink(cam.path("/elsewhere/fw.img"), cam.path("/dev/link.img"));
  ASSERT_EQ(0, mkfifo(cam.path("/dev/pipe.img").c_str(), 0600));
  for (const std::string name :
       {"a;reboot.img", "x$(id).img", "a b.img", "../fw.img", "link.img", "pipe.img"}) {
    cam.write("/data/old.cfg", "x");
    cam.platform().clear();
    cam.platform().on("grep .img", name + "\n");
    // Printed as it stands: no console prefix, no line end.
    EXPECT_THAT(install(), testing::StartsWith("upgrade filename error!DBG_INFO:")) << name;
    EXPECT_EQ(0, flash.operations());
    EXPECT_FALSE(cam.exists("/data/old.cfg"));
    EXPECT_EQ(1, cam.platform().reboots());
  }
}

// A keyed camera writes only an image whose signature beside it a site key
// made; without one it reboots with the flash untouched.
TEST_F(MtdUpgradeTest, KeyedCameraRebootsWithoutWritingAnUnsignedImage) {
  partitions(kLayout, kEb);
  wire::key_pair site = wire::generate_key_pair();
  cam.write("/customer/keys/site.pub", wire::format_public_key(site.pub));
  image(pattern(0x20000, 3), "fw.img");
  EXPECT_THAT(install(), HasSubstr("signature check failed: no signature /dev/fw.img.minisig"));
  EXPECT_EQ(0, flash.operations());
  EXPECT_EQ(1, cam.platform().reboots());

  const std::string bytes = cam.read("/dev/fw.img");
  wire::prehash h;
  h.update(bytes.data(), bytes.size());
  cam.write("/dev/fw.img.minisig",
            wire::format_signature(wire::sign_prehashed(site.sec, h.final(), "file:fw.img")));
  install();
  EXPECT_NE(0, flash.operations());
  EXPECT_EQ(2, cam.platform().reboots());
}

TEST_F(MtdUpgradeTest, MissingWrongOrShortImageStillReboots) {
  partitions(kLayout, kEb);
  EXPECT_THAT(install(), HasSubstr("fread /bin/ls /dev/ | grep .img failed\n"));  // nothing listed
  cam.platform().popen_fails("grep .img");
  EXPECT_THAT(install(), HasSubstr("popen failed\n"));
  cam.platform().clear();
  cam.platform().on("grep .img", "fwximg\n");  // grep's '.' matches any character
  EXPECT_THAT(install(), HasSubstr("filename is wrong"));
  image(Bytes(), "empty.img");
  install();
  image(pattern(0x7800, 7), "short.img");
  install();
  EXPECT_EQ(0, flash.operations());
  EXPECT_EQ(3, cam.platform().reboots());
  EXPECT_FALSE(cam.platform().ran("/dev/fw_setenv net_upgrade_flag 2"));
}

// A partition piece equal to the flash is left alone; a different one
// erases the whole partition, pauses, then writes.
TEST_F(InstallTest, SpecifiedPartitionWrittenOnlyWhenDifferent) {
  partitions({{0x80000, "boot"}, {0x100000, "kernel"}}, 0x10000);
  cam.platform().on("grep uImage", "uImage.bin\n");
  cam.platform().on("cmp /dev/uImage.bin /dev/mtd1", "0\n");
  EXPECT_THAT(printed([] { EXPECT_EQ(0, upgrade_specified_mtd("/bin/ls /dev/ | grep uImage", 1)); }),
              HasSubstr("/dev/uImage.bin the same as mtd1, return\n"));
  EXPECT_EQ(0, flash.operations());

  flash.data(1).assign(0x100000, 0x00);
  const Bytes piece = pattern(0x60000, 9);  // shorter than the partition
  cam.write("/dev/uImage.bin", as_text(piece));
  cam.platform().on("cmp /dev/uImage.bin /dev/mtd1", "1\n");
  std::string out =
      printed([] { EXPECT_EQ(-1, upgrade_specified_mtd("/bin/ls /dev/ | grep uImage", 1)); });
  EXPECT_THAT(out, HasSubstr("erase \"kernel\"...\n"));
  EXPECT_THAT(out, HasSubstr("write \"kernel\"...\n"));
  EXPECT_EQ(16, flash.erases());
  EXPECT_TRUE(std::equal(piece.begin(), piece.end(), flash.data(1).begin()));
  EXPECT_TRUE(std::all_of(flash.data(1).begin() + 0x60000, flash.data(1).end(),
                          [](uint8_t b) { return b == 0xFF; }));
  const std::vector<std::string> ev = cam.platform().events();
  EXPECT_EQ(1, std::count(ev.begin(), ev.end(), "sleep:200000"));

  // Listing failures and refused names write nothing.
  flash.reset_counters();
  cam.platform().popen_fails("grep u-boot");
  EXPECT_EQ(-1, upgrade_specified_mtd("/bin/ls /dev/ | grep u-boot | grep .bin", 0));
  EXPECT_EQ(-1, upgrade_specified_mtd("/bin/ls /dev/ | grep nothing", 0));
  cam.platform().on("grep evil", "u-boot;rm -rf /.bin\n");
  EXPECT_EQ(-1, upgrade_specified_mtd("/bin/ls /dev/ | grep evil", 0));
  EXPECT_EQ(-1, upgrade_specified_mtd("/bin/ls /dev/ | grep uImage", 5));
  EXPECT_EQ(0, flash.operations());
}

}  // namespace
