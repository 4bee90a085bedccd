#include "install/mtd_upgrade.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/file_names.h"
#include "core/helpers.h"
#include "core/platform.h"
#include "core/site_keys.h"
#include "install/image_layout.h"
#include "install/mtd_debug.h"

namespace {
constexpr uint64_t kPollUs = 2000000;
constexpr size_t kListLen = 256;
constexpr size_t kPieceListLen = 128;

bool camera_file_exists(const char* path) { return access(cam_path(path).c_str(), F_OK) == 0; }
}  // namespace

bool write_image_partitions(const char* image_path, int32_t image_size) {
  daemon_state_t& st = daemon_state;
  uint32_t write_addr = 0;
  uint32_t unverified = 0;  // blocks that never read back as written
  bool env_set = false;
  partition_walk walk;
  const bool& quiet = walk.quiet;
  const part_place& place = walk.place;
  while (next_image_partition(&walk, image_size)) {
    const int i = walk.index;
    DBG_INFO("mtd_file_offset: %s\n", place.file_offset);
    INSTALL_LOG(quiet, "mtd%d write_addr 0x%x skip:%d dev_offset:%s file_offset:%s\n", i,
                write_addr, 0, "0", place.file_offset);
    const uint32_t unverified_before = unverified;
    orn_mtd2(&write_addr, "erase_write", place.device.c_str(), "0", place.length.c_str(),
             image_path, place.file_offset, &unverified);
    if (unverified != unverified_before) {
      INSTALL_LOG(quiet, "mtd%d: %u block(s) not verified\n", i, unverified - unverified_before);
    }
    if (!env_set && write_addr >= st.flash_unerase_offset) {
      set_net_upgrade_flag(1);
      set_dfu_upgrade_flag(0);
      INSTALL_LOG(quiet, "set_net_upgrade_flag(1) clear dfu after erase bootenv\n");
      env_set = true;
    }
    if (write_addr >= static_cast<uint32_t>(image_size)) {
      // A block that never verified may hold anything: the boot loader must
      // not take this image for complete.
      if (unverified != 0) {
        INSTALL_LOG(quiet, "%u block(s) not verified, net_upgrade_flag stays 1\n", unverified);
      } else {
        set_net_upgrade_flag(2);
        INSTALL_LOG(quiet, "set_net_upgrade_flag(2) upgrade_file_size:0x%x\n",
                    static_cast<uint32_t>(image_size));
      }
    }
  }
  if (!walk.image_ended) INSTALL_LOG(quiet, "ALL_MTD upgrade succeed\n");
  return quiet;
}

bool image_too_short(int32_t image_size) {
  // Partition 0 is the boot loader: an image that cannot fill it (an empty
  // or cut-off file) must not start rewriting it.
  return daemon_state.mtd_num > 0 && image_size < static_cast<int32_t>(mtd_part_size(0));
}

int mtd_upgrade_triggered() {
  return camera_file_exists("/dev/onvif_upgrade_flag") || camera_file_exists("/dev/mtd_upgrade")
             ? 1
             : 0;
}

namespace {
// The image named by the listing of /dev, or "" when there is none to
// install (the caller then goes straight to the delete list and the reboot).
std::string find_image() {
  char list[kListLen + 1];
  memset(list, 0, sizeof(list));
  const char* list_cmd = "/bin/ls /dev/ | grep .img";
  int got = sys().shell_read(list_cmd, list, kListLen);
  if (got < 0) {
    DBG_ERR("popen failed\n");
    return "";
  }
  if (got == 0) {
    DBG_ERR("fread %s failed\n", list_cmd);
    DBG_ERR("exit pkg upgrade\n");
    return "";
  }
  char* nl = strchr(list, '\n');
  if (nl != nullptr) *nl = '\0';
  // The name goes into shell command lines and after "/dev/"; only a
  // regular file is read (never a device node, link or pipe).
  if (check_file_name("/dev", list) != name_verdict::ok) {
    printf("upgrade filename error!");
    fflush(stdout);
    return "";
  }
  TRACE_DATA("current mode: mtd_upgrade_func\n");
  const std::string image = std::string("/dev/") + list;
  DBG_INFO("upgrade_filename: %s\n", image.c_str());
  if (strstr(image.c_str(), ".img") == nullptr) {
    DBG_INFO("filename is wrong\n");
    DBG_INFO("exit mtd_upgrade\n");
    return "";
  }
  return image;
}
}  // namespace

void mtd_upgrade_install() {
  daemon_state_t& st = daemon_state;
  st.upgrade_busy = 1;
  bool quiet = false;

  const std::string image = find_image();
  // A keyed camera writes only an image that a site key signed
  // (image + ".minisig" beside it); a refused image is not written.
  const signature_check sig = image.empty() ? signature_check{true, ""} : check_detached_signature(image);
  if (!sig.ok) {
    DBG_ERR("signature check failed: %s\n", sig.why.c_str());
    TRACE_DATA("signature check failed: %s\n", sig.why.c_str());
    reboot_sequence();
    return;
  }
  if (!image.empty()) {
    TRACE_DATA("filename: %s\n", image.c_str());
    int ret = kill_pid_main();
    if (ret == -1) {
      DBG_INFO("kill_pid_main() ret: %d\n", ret);
      reboot_sequence();
      return;
    }
    const int32_t image_size = static_cast<int32_t>(get_file_size(image.c_str()));
    if (image_too_short(image_size)) {
      DBG_ERR("image size 0x%x is shorter than mtd0, nothing written\n",
              static_cast<uint32_t>(image_size));
    } else {
      DBG_INFO("current upgrademode is ALL_MTD\n");
      remove(cam_path("/data/upgrade.log").c_str());
      set_data_log_open(0);
      const version_texts now = current_version();
      TRACE_DATA("soc version: %s, device_type: %s\n", now.version, now.model);
      sys().shell("echo  > /dev/orn.log");
      sys().shell("rm -rf /dev/*.log");

      quiet = write_image_partitions(image.c_str(), image_size);

      if (!quiet) TRACE_DATA("MTD upgrade finish, reboot\n");
      sys().sync();
    }
  }

  if (st.is_del_file) {
    delete_file();
    if (!quiet) TRACE_DATA("delete_file ok\n");
  }
  reboot_sequence();
}

void* mtd_upgrade_func(void*) {
  while (!mtd_upgrade_triggered()) sys().sleep_us(kPollUs);
  mtd_upgrade_install();
  return nullptr;
}

int upgrade_specified_mtd(const char* list_cmd, int index) {
  char name[kPieceListLen + 1];
  memset(name, 0, sizeof(name));
  int got = sys().shell_read(list_cmd, name, kPieceListLen);
  if (got < 0) {
    DBG_ERR("popen failed\n");
    return -1;
  }
  if (got == 0) {
    DBG_ERR("fread %s failed\n", list_cmd);
    return -1;
  }
  char* nl = strchr(name, '\n');
  if (nl != nullptr) *nl = '\0';
  if (check_file_name("/dev", name) != name_verdict::ok) {
    DBG_ERR("upgrade filename error!\n");
    return -1;
  }
  const std::string file = std::string("/dev/") + name;
  DBG_INFO("filename: %s\n", file.c_str());

  char dev_name[16];
  if (!mtd_part_dev(index, dev_name, sizeof(dev_name))) {
    DBG_ERR("no mtd%d\n", index);
    return -1;
  }
  if (mtd_cmp(file.c_str(), static_cast<unsigned>(index)) == 0) {
    DBG_INFO("%s the same as mtd%d, return\n", file.c_str(), index);
    return 0;
  }
  const std::string device = std::string("/dev/") + dev_name;
  const std::string length = std::string("0x") + daemon_state.mtd[index].size;
  const char* part_name = daemon_state.mtd[index].name;
  DBG_INFO("erase %s...\n", part_name);
  orn_mtd("erase", device.c_str(), "0x00", length.c_str(), " ", "0x00");
  sys().sleep_us(200000);
  DBG_INFO("write %s...\n", part_name);
  return orn_mtd("write", device.c_str(), "0x00", length.c_str(), file.c_str(), "0x00");
}
