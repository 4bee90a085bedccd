// Installation by mode after a good md5. Unpacking and the controller
// programmer run in child processes so that a blocking tool cannot corrupt
// the handler's state; the parent waits for each child.
#include "discovery/mcast_install.h"

#include <fcntl.h>
#include <sys/reboot.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/helpers.h"
#include "core/platform.h"
#include "discovery/identity.h"
#include "install/image_layout.h"
#include "install/mtd_debug.h"
#include "install/mtd_upgrade.h"
#include "mcu/arm_image.h"
#include "wire/upgrade.h"

namespace {

constexpr const char* kFinishFlag = "/customer/upgrade_finish_flag";
constexpr const char* kUbootList = "/bin/ls /dev/ | grep u-boot | grep .bin";
constexpr const char* kUimageList = "/bin/ls /dev/ | grep uImage | grep .bin";

void pause_ms(uint64_t ms) { sys().sleep_us(ms * 1000); }

// '7'.
void answer_installed(mcast_endpoint* ep) { send_upgrade_ack(ep, wire::ACK_INSTALLED); }

// '2' or '8' after the processes were stopped: nothing more to do than
// bring the camera back up.
void answer_and_reboot(mcast_endpoint* ep, char code) {
  send_upgrade_ack(ep, code);
  sys().sync();
  reboot_sequence();
}

// Child: becomes "unzip -o <path> -d /". Parent: waits for it. False when
// the fork failed (logged with `fork_failed`, synced).
bool unzip_over_root(const char* path, const char* fork_failed, bool app_arm) {
  pid_t pid = sys().fork();
  if (pid < 0) {
    DBG_ERR("%s", fork_failed);
    sys().sync();
    return false;
  }
  if (pid == 0) {
    if (app_arm) DBG_INFO("start upgrade app+arm\n");
    DBG_INFO("start unzip destfile\n");
    std::string file = path;
    char a0[] = "unzip", a1[] = "-o", a3[] = "-d", a4[] = "/";
    char* argv[] = {a0, a1, file.data(), a3, a4, nullptr};
    sys().exec("/usr/bin/unzip", argv);
    // Ending here lets the parent's wait return.
    DBG_ERR("unzip failed\n");
    sys().exit_child(1);
  }
  int status = 0;
  sys().waitpid(pid, &status, 0);
  return true;
}

// Runs the controller programmer on `image`. On failure answers '8' and
// reboots; true when the controller was programmed.
bool program_controller(mcast_endpoint* ep, const std::string& image) {
  DBG_INFO("start upgrade arm\n");
  std::string cmd = std::string(kArmUpgradeProgram) + " /dev/ttyS1 " + shell_quote(image.c_str());
  if (daemon_state.work_mode.load() == WORK_DEBUG_ARM) cmd += " DEBUG";
  cmd += " >&1";
  sys().shell("rm /customer/*ARM*.bin");
  sys().shell("cp /dev/*ARM*.bin /customer/.");
  if (sys().shell(cmd) == 0) return true;
  DBG_ERR("arm upgrade failed\n");
  send_upgrade_ack(ep, wire::ACK_ARM_FAILED);
  sys().sync();
  pause_ms(500);
  reboot_sequence();
  return false;
}

bool install_system_package(mcast_endpoint* ep, const char* path) {
  DBG_INFO("current upgrade: SOC\n");
  if (!unzip_over_root(path, "child process create failed\n", false)) return false;
  sys().sync();
  answer_installed(ep);
  pause_ms(500);
  DBG_INFO("upgrade succeed\n");
  sys().sync();
  DBG_INFO("system reboot...\n");
  pause_ms(1000);
  wdt_reboot(1);
  pause_ms(5000);
  sys().reboot(RB_AUTOBOOT);
  return true;
}

bool install_controller_image(mcast_endpoint* ep, const char* path) {
  DBG_INFO("current upgrade: arm upgrade\n");
  pid_t pid = sys().fork();
  if (pid < 0) {
    DBG_ERR("child process create failed\n");
    sys().sync();
    return false;
  }
  if (pid > 0) {
    // The child answers and reboots.
    int status = 0;
    sys().waitpid(pid, &status, 0);
    pause_ms(500);
    return true;
  }
  close_listener_sockets();
  if (!program_controller(ep, path)) return true;
  update_arm_version(1);
  DBG_INFO("arm-upgrade-filepath: %s\n", path);
  DBG_INFO("arm upgrade succeed\n");
  answer_installed(ep);
  pause_ms(1000);
  DBG_INFO("upgrade succeed\n");
  sys().sync();
  pause_ms(1000);
  reboot_sequence();
  return true;
}

// Blocks until the programmer's child reports success on `fd` or goes
// away (its end of the pipe then closes).
void wait_for_programmer(int fd) {
  char done = 0;
  while (read(fd, &done, 1) < 0 && errno == EINTR) {
  }
}

bool install_application_package(mcast_endpoint* ep, const char* path) {
  if (!unzip_over_root(path, "child process creata failed\n", true)) return false;
  sys().sync();
  pause_ms(500);
  DBG_INFO("application upgrade succeed\n");
  if (update_arm_version(2) != 0) {
    send_upgrade_ack(ep, wire::ACK_WRITE_FAILED);
    DBG_ERR("upgrade file failed\n");
    reboot_sequence();
    return true;
  }
  pause_ms(500);
  DBG_INFO("start upgrade u-boot\n");
  if (upgrade_specified_mtd(kUbootList, 0) < 0)
    DBG_ERR("upgrade u-boot failed or not found u-boot file\n");
  DBG_INFO("start upgrade uimage\n");
  if (upgrade_specified_mtd(kUimageList, 1) < 0)
    DBG_ERR("upgrade uImage failed or not found uImage file\n");

  const std::string image = std::string("/dev/") + daemon_state.arm_upgrade_file_name;
  // The child carries on as a copy of the listener once the controller is
  // programmed, so its exit cannot end the parent's wait: it says so on a
  // pipe. A child that dies closes its end, which ends the wait too.
  int done[2];
  if (pipe2(done, O_CLOEXEC) != 0) done[0] = done[1] = -1;
  pid_t pid = sys().fork();
  if (pid < 0) {
    DBG_ERR("child process creata failed\n");
    sys().sync();
    close(done[0]);
    close(done[1]);
    return false;
  }
  if (pid == 0) {
    close(done[0]);
    close_listener_sockets();
    if (program_controller(ep, image)) {
      update_arm_version(1);
      DBG_INFO("arm upgrade succeed\n");
      sys().sync();
      if (write(done[1], "1", 1) != 1) DBG_ERR("cannot tell the parent\n");
    }
    close(done[1]);
    return true;
  }
  close(done[1]);
  int status = 0;
  if (done[0] >= 0) {
    wait_for_programmer(done[0]);
    close(done[0]);
    sys().waitpid(pid, &status, WNOHANG);
  } else {
    sys().waitpid(pid, &status, 0);
  }
  sys().sync();
  answer_installed(ep);
  pause_ms(500);
  DBG_INFO("upgrade app+arm succeed\n");
  sys().sync();
  pause_ms(1000);
  reboot_sequence();
  return true;
}

bool install_whole_flash(mcast_endpoint* ep, const char* path, int file_size) {
  DBG_INFO("current upgrademode is ALL_MTD\n");
  if (access(cam_path("/config_path/video.conf").c_str(), F_OK) == 0) {
    sys().shell("mkdir /data/upgrade_copy_conf");
    sys().shell("cp /config_path/* /data/upgrade_copy_conf/.");
  }
  // The size is the announced one; an image that cannot even fill the boot
  // loader's partition is refused before anything is written.
  if (image_too_short(file_size)) {
    DBG_ERR("image size 0x%x is shorter than mtd0, nothing written\n",
            static_cast<uint32_t>(file_size));
    answer_and_reboot(ep, wire::ACK_WRITE_FAILED);
    return true;
  }
  write_image_partitions(path, file_size);
  answer_installed(ep);
  pause_ms(1000);
  sys().sync();
  pause_ms(500);
  reboot_sequence();
  return true;
}

bool install_partition(mcast_endpoint* ep, const char* path, int index) {
  daemon_state_t& st = daemon_state;
  char dev_name[16];
  if (index >= st.mtd_num || !mtd_part_dev(index, dev_name, sizeof(dev_name))) {
    DBG_ERR("current upgrade: no mtd%d, nothing written\n", index);
    answer_and_reboot(ep, wire::ACK_WRITE_FAILED);
    return true;
  }
  const mtd_entry& m = st.mtd[index];
  DBG_INFO("current upgrade: %s%s\n", m.dev, m.name);
  if (strcmp(m.name, "\"homefs\"") == 0) delete_file();
  const std::string device = std::string("/dev/") + dev_name;
  const std::string length = std::string("0x") + m.size;
  DBG_INFO("erase %s...\n", m.name);
  orn_mtd("erase", device.c_str(), "0x00", length.c_str(), " ", "0x00");
  pause_ms(200);
  DBG_INFO("write %s...\n", m.name);
  orn_mtd("write", device.c_str(), "0x00", length.c_str(), path, "0x00");
  answer_installed(ep);
  pause_ms(500);
  sys().sync();
  pause_ms(1000);
  reboot_sequence();
  return true;
}

}  // namespace

namespace {
std::atomic<int> g_ack_copies{1};
constexpr uint64_t kCopyGapUs = 20000;
}  // namespace

void set_upgrade_ack_copies(int copies) { g_ack_copies = copies < 1 ? 1 : copies; }

void send_ack_text(mcast_endpoint* ep, const std::string& text) {
  const int copies = g_ack_copies.load();
  for (int i = 0; i < copies; ++i) {
    if (i > 0) sys().sleep_us(kCopyGapUs);
    mcast_send_data(ep, text.c_str());
  }
}

void send_upgrade_ack(mcast_endpoint* ep, char code) {
  char buf[256];
  build_upgrade_ack(buf, code);
  // '9' answers whoever asked, once, whatever session runs.
  if (code == wire::ACK_BUSY)
    mcast_send_data(ep, buf);
  else
    send_ack_text(ep, buf);
}

bool install_upgrade_file(mcast_endpoint* ep, const char* path, int mode, int file_size) {
  if (mode < wire::MODE_SYSTEM) {
    // A transfer-only run: the file stays in /dev, the camera stays up.
    DBG_ERR("upgrade mode %d installs nothing\n", mode);
    return false;
  }
  remove(cam_path(kFinishFlag).c_str());
  if (mode >= wire::MODE_PARTITION) return install_partition(ep, path, mode - wire::MODE_PARTITION);
  switch (mode) {
    case wire::MODE_SYSTEM:
      return install_system_package(ep, path);
    case wire::MODE_ARM:
      return install_controller_image(ep, path);
    case wire::MODE_APP_ARM:
      return install_application_package(ep, path);
    default:
      return install_whole_flash(ep, path, file_size);
  }
}
