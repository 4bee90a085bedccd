#include "install/image_layout.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "install_fixture.h"

namespace {

class ImageLayoutTest : public InstallTest {};

// 384 KiB pieces for the boot loader, 512 KiB for the kernel, counted from
// the partition sizes (rounded down), run through system().
TEST_F(ImageLayoutTest, SplitCommandLines) {
  partitions({{0x80000, "boot"}, {0x300000, "kernel"}}, 0x10000);
  EXPECT_EQ(0, mtd_file_split("/dev/fw.img", "/dev/u-boot.bin", 0));
  EXPECT_EQ(0, mtd_file_split("/dev/fw.img", "/dev/uImage.bin", 1));
  std::memcpy(daemon_state.mtd[0].size, "00100000", 9);
  mtd_file_split("/i.img", "/o", 0);
  std::memcpy(daemon_state.mtd[0].size, "00040000", 9);
  mtd_file_split("/i.img", "/o", 0);
  EXPECT_EQ(
      (std::vector<std::string>{"dd if=/dev/fw.img of=/dev/u-boot.bin bs=393216 count=1",
                                "dd if=/dev/fw.img of=/dev/uImage.bin bs=524288 count=6 skip=1",
                                "dd if=/i.img of=/o bs=393216 count=2",
                                "dd if=/i.img of=/o bs=393216 count=0"}),
      cam.platform().commands());
  EXPECT_EQ("sh:dd if=/dev/fw.img of=/dev/u-boot.bin bs=393216 count=1",
            cam.platform().events().front());
  testing::internal::CaptureStdout();
  EXPECT_EQ(-1, mtd_file_split("/i.img", "/o", 2));
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              HasSubstr("type != u-boot  or type != uImage, return\n"));
  // A line that would not fit its buffer is not run cut off.
  EXPECT_EQ(-1, mtd_file_split(std::string(250, 'a').c_str(), "/o", 0));
  EXPECT_EQ(4u, cam.platform().commands().size());
}

// The boot loader is compared through scratch copies cut to its piece
// size; anything but a clean "0" answer counts as different.
TEST_F(ImageLayoutTest, Compare) {
  partitions({{0x80000, "boot"}, {0x300000, "kernel"}}, 0x10000);
  cam.platform().on("cmp /dev/u-boot.bin", "0\n");
  EXPECT_EQ(0, mtd_cmp("/dev/u-boot.bin", 0));
  EXPECT_EQ(
      (std::vector<std::string>{"popen:cat /dev/mtd0 > /dev/mtd0.bin",
                                "popen:dd if=/dev/mtd0.bin of=/dev/mtd0_ext.bin bs=393216 count=1",
                                "read:cmp /dev/u-boot.bin /dev/mtd0_ext.bin;echo $?"}),
      cam.platform().events());

  for (const char* answer : {"1\n", "/dev/uImage.bin /dev/mtd1 differ: byte 1\n1\n", ""}) {
    cam.platform().on("cmp /dev/uImage.bin", answer);
    EXPECT_EQ(1, mtd_cmp("/dev/uImage.bin", 1)) << answer;
  }
  EXPECT_TRUE(ran("cmp /dev/uImage.bin /dev/mtd1>/dev/null;echo $?"));
  cam.platform().popen_fails("cmp /dev/x");
  EXPECT_EQ(1, mtd_cmp("/dev/x", 1));
  cam.platform().clear();
  EXPECT_EQ(1, mtd_cmp("/dev/x", 2));  // no such partition: nothing run
  EXPECT_TRUE(cam.platform().commands().empty());
}

// The writers return the shell status; values without a command line run
// the empty line (the others are seen through the installers' tests).
TEST_F(ImageLayoutTest, FlagWriters) {
  cam.platform().on("dfu_upgrade_flag 1", "", 256);
  EXPECT_EQ(256, set_dfu_upgrade_flag(1));
  set_dfu_upgrade_flag(2);
  set_net_upgrade_flag(0);
  set_dfu_upgrade_flag(7);
  EXPECT_EQ((std::vector<std::string>{"popen:/dev/fw_setenv dfu_upgrade_flag 1",
                                      "popen:/dev/fw_setenv dfu_upgrade_flag 2", "popen:", "popen:"}),
            cam.platform().events());
}

// The model is no file name: any text reaches fw_setenv as one word.
TEST_F(ImageLayoutTest, DeviceTypeFlagQuotesModelUpToDot) {
  for (const char* model : {"K1.x", "PTZ-4K_B", "K1;reboot", "it's $(x).T2"}) {
    std::strcpy(daemon_state.device_model, model);
    set_device_type_flag();
  }
  EXPECT_EQ((std::vector<std::string>{"/bin/fw_setenv mode_type 'K1'",
                                      "/bin/fw_setenv mode_type 'PTZ-4K_B'",
                                      "/bin/fw_setenv mode_type 'K1;reboot'",
                                      "/bin/fw_setenv mode_type 'it'\\''s $(x)'"}),
            cam.platform().commands());
}

// A reader running while another thread refreshes the texts sees the former
// model, not a cleared one. The model file is a FIFO: the refresh is held
// inside its read until the test writes the new model.
TEST_F(ImageLayoutTest, ModelRefreshedMeanwhileIsNeverSeenEmpty) {
  cam.write("/customer/version_file", "V1\n");
  cam.write("/customer/device_model_file", "K1.T\n");
  read_version();
  const std::string fifo = cam.path("/customer/device_model_file");
  std::remove(fifo.c_str());
  ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
  std::thread refresh([] { read_version(); });
  const int w = open(fifo.c_str(), O_WRONLY);  // returns once the refresh has opened it
  ASSERT_GE(w, 0);
  set_device_type_flag();
  ASSERT_EQ(5, write(w, "K2.T\n", 5));
  close(w);
  refresh.join();
  set_device_type_flag();
  EXPECT_EQ((std::vector<std::string>{"/bin/fw_setenv mode_type 'K1'",
                                      "/bin/fw_setenv mode_type 'K2'"}),
            cam.platform().commands());
}

}  // namespace
