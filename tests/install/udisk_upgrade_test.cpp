#include "install/udisk_upgrade.h"

#include <sys/stat.h>

#include <cstring>
#include <filesystem>

#include "core/local_control.h"
#include "fakes/fake_lan.h"
#include "install_fixture.h"
#include "wire/signature.h"

namespace {


class UdiskTest : public InstallTest {
 protected:
  void SetUp() override {
    InstallTest::SetUp();
    control_ = lan.udp(FakeLan::kCamera, "127.0.0.1", kLocalControlPort);
    std::strcpy(daemon_state.device_model, "K1.x");
    partitions({{0x80000, "boot"}, {0x100000, "kernel"}, {0x80000, "data"}}, 0x10000);
    cam.platform().on("mount | grep /mnt/usb", "/dev/sda1 on /mnt/usb type vfat (rw)\n");
    cam.platform().on("cmp /dev/u-boot.bin", "1\n");
    cam.write("/dev/u_disk_upgrade_flag", "");
    track_env();
  }
  void TearDown() override { lan.close(control_); }
  // The status bytes the local control service heard since the last call.
  std::vector<int> statuses() {
    std::vector<int> out;
    while (auto d = lan.receive(control_)) {
      EXPECT_EQ(kUdiskStatusLen, d->data.size());
      if (d->data.size() != kUdiskStatusLen) continue;
      EXPECT_EQ(std::string("\x81\x0A\x11\x5B", 4), d->data.substr(0, 4));
      EXPECT_EQ('\xFF', d->data[5]);
      out.push_back(static_cast<unsigned char>(d->data[4]));
    }
    return out;
  }
  void again() {
    cam.platform().clear();
    cam.write("/dev/u_disk_upgrade_flag", "");
  }

  int poll(std::string* out = nullptr) {
    int r = 0;
    std::string o = printed([&] { r = udisk_upgrade_poll(); });
    if (out != nullptr) *out = o;
    return r;
  }
  // The poll refused: status(es) sent, trigger removed, nothing else done.
  void expect_refused(const std::vector<int>& statuses) {
    EXPECT_EQ(statuses, this->statuses());
    EXPECT_TRUE(ran("rm -rf /dev/u_disk_upgrade_flag"));
    EXPECT_EQ(0, cam.platform().reboots());
    EXPECT_EQ(0, flash.operations());
    EXPECT_EQ(0, daemon_state.upgrade_busy.load());
  }

  FakeLan lan;
  int control_ = -1;  // the local control service
};

TEST_F(UdiskTest, DifferentBootLoaderIsWrittenAndLoopEndsAtPartitionOne) {
  const Bytes img = pattern(0x200000, 1);
  cam.write("/mnt/usb/fw_K1.img", as_text(img));
  cam.write("/config_path/video.conf", "v");
  std::string out;
  EXPECT_EQ(1, poll(&out));
  EXPECT_EQ(std::vector<int>{3}, statuses());
  EXPECT_TRUE(Bytes(img.begin(), img.begin() + 0x80000) == flash.data(0));
  EXPECT_TRUE(Bytes(0x100000, 0xFF) == flash.data(1)) << "partition 1 is never touched";
  EXPECT_THAT(out, HasSubstr("exit mtdbug\n"));
  const std::string log = cam.read("/data/upgrade.log");
  EXPECT_THAT(log, HasSubstr("exit mtdbug\n"));
  EXPECT_THAT(log, HasSubstr("ALL_MTD upgrade succeed\n"));
  EXPECT_EQ("2", flag("net_upgrade_flag"));
  EXPECT_EQ("K1", flag("mode_type"));
  EXPECT_EQ(1, daemon_state.upgrade_busy.load());
  const std::vector<std::string> expect = {
      "mount | grep /mnt/usb",
      "rm -rf /dev/u_disk_upgrade_flag",
      "mkdir /data/upgrade_copy_conf",
      "cp /config_path/* /data/upgrade_copy_conf/.",
      "/dev/fw_setenv net_upgrade_flag 1",
      "dd if=/mnt/usb/fw_K1.img of=/dev/u-boot.bin bs=393216 count=1",
      "cat /dev/mtd0 > /dev/mtd0.bin",
      "dd if=/dev/mtd0.bin of=/dev/mtd0_ext.bin bs=393216 count=1",
      "cmp /dev/u-boot.bin /dev/mtd0_ext.bin;echo $?",
      "rm -rf /dev/u-boot.bin",
      "/bin/fw_setenv mode_type 'K1'",
      "/dev/fw_setenv net_upgrade_flag 2"};
  EXPECT_EQ(expect, cam.platform().commands());
  EXPECT_EQ(1, cam.platform().reboots());
}

TEST_F(UdiskTest, RefusalsReportStatusTwoAndKeepWaiting) {
  std::remove(cam.path("/dev/u_disk_upgrade_flag").c_str());
  EXPECT_EQ(0, poll());  // no trigger: nothing at all
  EXPECT_TRUE(statuses().empty());
  EXPECT_TRUE(cam.platform().commands().empty());

  cam.write("/dev/u_disk_upgrade_flag", "");
  EXPECT_EQ(0, poll());  // no /mnt/usb at all
  expect_refused({2});

  again();
  cam.platform().on("mount | grep /mnt/usb", "");
  EXPECT_EQ(0, poll());  // not mounted: 1, then 2
  expect_refused({1, 2});
  EXPECT_EQ(2, udisk_status_buffer()[4]) << "the buffer keeps the last status";
  cam.platform().on("mount | grep /mnt/usb", "/dev/sda1 on /mnt/usb type vfat (rw)\n");

  again();
  std::filesystem::create_directories(cam.path("/mnt/usb/old_K1.img"));  // a directory is passed over
  std::string out;
  EXPECT_EQ(0, poll(&out));
  EXPECT_THAT(out, HasSubstr("not found upgrade file!\n"));
  expect_refused({2});

  again();
  cam.write("/mnt/usb/fw_K2.img", as_text(pattern(0x80000, 3)));
  EXPECT_EQ(0, poll(&out));
  EXPECT_THAT(out, HasSubstr("device_model no match!\n"));
  expect_refused({2});

  // An image shorter than the boot partition.
  again();
  std::filesystem::remove(cam.path("/mnt/usb/fw_K2.img"));
  cam.write("/mnt/usb/fw_K1.img", as_text(pattern(0x7FFFF, 4)));
  EXPECT_EQ(0, poll());
  expect_refused({2});
}

// A keyed camera refuses a disk image without a good signature beside it
// as it refuses a wrong model; the signature file itself is never taken for
// the image.
TEST_F(UdiskTest, KeyedCameraRefusesAnUnsignedDiskImage) {
  wire::key_pair site = wire::generate_key_pair(), other = wire::generate_key_pair();
  cam.write("/customer/keys/site.pub", wire::format_public_key(site.pub));
  const std::string bytes = as_text(pattern(0x80000, 3));
  cam.write("/mnt/usb/fw_K1.img", bytes);
  std::string out;
  EXPECT_EQ(0, poll(&out));
  EXPECT_THAT(out, HasSubstr("signature check failed"));
  expect_refused({2});

  again();
  wire::prehash h;
  h.update(bytes.data(), bytes.size());
  cam.write("/mnt/usb/fw_K1.img.minisig",
            wire::format_signature(wire::sign_prehashed(other.sec, h.final(), "file:fw_K1.img")));
  EXPECT_EQ(0, poll(&out));
  EXPECT_THAT(out, HasSubstr("signature check failed"));
  expect_refused({2});
}

// Hostile names that match the model and fill the boot partition: only the
// name rule stands between them and the shell.
TEST_F(UdiskTest, UnsafeNamesAreRefusedWhateverElseMatches) {
  for (const char* name : {"x;reboot_K1.img", "$(reboot)_K1.img", "a b_K1.img", "`id`_K1.img",
                           "a|b_K1.img", "it's_K1.img"}) {
    again();
    std::filesystem::remove_all(cam.path("/mnt/usb"));
    cam.write(std::string("/mnt/usb/") + name, as_text(pattern(0x200000, 4)));
    std::string out;
    EXPECT_EQ(0, poll(&out)) << name;
    EXPECT_THAT(out, HasSubstr("\nupgrade filename error!")) << name;  // no console prefix
    expect_refused({2});
  }
  // An image that is not a regular file on the disk: a link (to a good
  // image) or a pipe is never read.
  cam.write("/elsewhere/fw_K1.img", as_text(pattern(0x200000, 4)));
  for (const char* name : {"link_K1.img", "pipe_K1.img"}) {
    again();
    std::filesystem::remove_all(cam.path("/mnt/usb"));
    std::filesystem::create_directories(cam.path("/mnt/usb"));
    const std::string entry = cam.path(std::string("/mnt/usb/") + name);
    if (name[0] == 'l')
      std::filesystem::create_symlink(cam.path("/elsewhere/fw_K1.img"), entry);
    else
      ASSERT_EQ(0, mkfifo(entry.c_str(), 0600));
    std::string out;
    EXPECT_EQ(0, poll(&out)) << name;
    EXPECT_THAT(out, HasSubstr("\nupgrade filename error!")) << name;
    expect_refused({2});
  }
}

// Leaving the loop clears quiet: the end reaches the upgrade log even when
// the partition it ends at silenced it.
TEST_F(UdiskTest, UpgradeLogRecordsTheEndAfterAQuietPartition) {
  MemoryFlash chip;
  partitions({{0x80000, "boot"}, {0x100000, "data"}}, 0x10000, kNor, &chip);
  cam.write("/mnt/usb/fw_K1.img", as_text(pattern(0x180000, 12)));
  EXPECT_EQ(1, poll());
  const std::string log = cam.read("/data/upgrade.log");
  EXPECT_EQ(std::string::npos, log.find("exit mtdbug")) << log;
  EXPECT_THAT(log, HasSubstr("ALL_MTD upgrade succeed\n"));
}

TEST_F(UdiskTest, EraseOrWriteFailureRebootsAtOnce) {
  cam.write("/mnt/usb/fw_K1.img", as_text(pattern(0x200000, 5)));
  flash.fail_erase(0, 3);
  std::string out;
  EXPECT_EQ(1, poll(&out));
  EXPECT_THAT(out, HasSubstr("orn_mtd:erase ret: -1\n"));
  EXPECT_EQ("1", flag("net_upgrade_flag"));
  EXPECT_EQ(1, cam.platform().reboots());
  EXPECT_FALSE(ran("/bin/fw_setenv mode_type K1"));

  cam.platform().clear();
  MemoryFlash chip;
  partitions({{0x80000, "boot"}, {0x100000, "kernel"}}, 0x10000, kNor, &chip);
  track_env(nullptr, &chip);
  chip.fail_write(0, 6);
  EXPECT_EQ(1, poll(&out));
  EXPECT_THAT(out, HasSubstr("orn_mtd:write ret: -1\n"));
  EXPECT_EQ("1", flag("net_upgrade_flag"));
  EXPECT_EQ(1, cam.platform().reboots());
}

}  // namespace
