// The flash model's file face: the sandbox's description file and the
// flash bytes in regular files, under the same rules as the memory face.
#include <gtest/gtest.h>

#include <memory>

#include "fakes/fake_platform.h"
#include "install/mtd_debug.h"
#include "sim/flash/file_flash.h"

namespace {

class FileBackendTest : public ::testing::Test {
 protected:
  void TearDown() override { set_mtd_devices(nullptr); }
  std::unique_ptr<MtdDevices> load(const std::string& text) {
    cam.write("/etc/flash.desc", text);
    return std::unique_ptr<MtdDevices>(load_file_flash("/etc/flash.desc"));
  }
  FakeCamera cam;
};

TEST_F(FileBackendTest, RegularFilesBehaveLikeFlash) {
  auto flash =
      load("# sandbox flash\nmtd0 nor 0x8000 0x1000\nmtd1 nand 0x8000 0x2000 badblocks=1\n");
  ASSERT_NE(nullptr, flash);
  set_mtd_devices(flash.get());
  EXPECT_EQ(0x8000u, orn_get_mtd_size(0));
  EXPECT_TRUE(std::string(0x8000, '\xFF') == cam.read("/dev/mtd0")) << "created erased";

  cam.write("/dev/a", std::string(0x2000, '\x0F'));
  cam.write("/dev/b", std::string(0x2000, '\x3C'));
  EXPECT_EQ(0, orn_mtd("write", "/dev/mtd0", "0x1000", "0x2000", "/dev/a", "0"));
  EXPECT_EQ(0, orn_mtd("write", "/dev/mtd0", "0x1000", "0x2000", "/dev/b", "0"));
  EXPECT_EQ('\x0C', cam.read("/dev/mtd0")[0x1000]) << "programming only clears bits";
  EXPECT_EQ(0, orn_mtd("erase", "/dev/mtd0", "0x1000", "0x1000", " ", "0"));
  EXPECT_EQ('\xFF', cam.read("/dev/mtd0")[0x1FFF]);
  EXPECT_EQ('\x0C', cam.read("/dev/mtd0")[0x2000]);

  // NAND bad block 1 is skipped by the incremental writer and by erase.
  cam.write("/dev/img", std::string(0x4000, 'A') + std::string(0x2000, 'B'));
  uint32_t progress = 0;
  EXPECT_EQ(0, orn_mtd2(&progress, "erase_write", "/dev/mtd1", "0", "0x8000", "/dev/img", "0"));
  const std::string m1 = cam.read("/dev/mtd1");
  EXPECT_TRUE(m1 == std::string(0x2000, 'A') + std::string(0x2000, '\xFF') +
                        std::string(0x2000, 'A') + std::string(0x2000, 'B'));
  EXPECT_EQ(0x6000u, progress);
  EXPECT_EQ(0, orn_mtd("erase", "/dev/mtd1", "0", "0x8000", " ", "0"));
  EXPECT_TRUE(cam.read("/dev/mtd1") == std::string(0x8000, '\xFF'));
}

TEST_F(FileBackendTest, BadDescriptionsAreRejected) {
  EXPECT_EQ(nullptr, load(""));
  EXPECT_EQ(nullptr, load("mtd0 nor 0x8000\n"));
  EXPECT_EQ(nullptr, load("mtd0 flashy 0x8000 0x1000\n"));
  EXPECT_EQ(nullptr, load("mtd0 nor 0x8800 0x1000\n"));
  EXPECT_EQ(nullptr, load("mtd0 nand 0x8000 0x1000 badblocks=8\n"));
  EXPECT_EQ(nullptr, load("../etc/passwd nor 0x8000 0x1000\n"));
  EXPECT_EQ(nullptr, load_file_flash("/etc/none"));
}

}  // namespace
