#include "install/udisk_upgrade.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string_view>
#include <string>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/file_names.h"
#include "core/helpers.h"
#include "core/local_control.h"
#include "core/platform.h"
#include "core/site_keys.h"
#include "install/image_layout.h"
#include "install/mtd_debug.h"

namespace {
constexpr const char* kTrigger = "/dev/u_disk_upgrade_flag";
constexpr const char* kRemoveTrigger = "rm -rf /dev/u_disk_upgrade_flag";
constexpr const char* kDiskDir = "/mnt/usb";
constexpr const char* kUbootPiece = "/dev/u-boot.bin";
constexpr const char* kUimagePiece = "/dev/uImage.bin";

unsigned char g_status[kUdiskStatusLen] = {0x81, 0x0A, 0x11, 0x5B, 0x00, 0xFF};

void refuse() {
  send_udisk_status(2);
  sys().shell(kRemoveTrigger);
}

// First entry of the disk that is a file with ".img" in its name; "" if none.
// Returns false when the directory cannot be opened.
bool find_image(std::string* name) {
  DIR* dir = opendir(cam_path(kDiskDir).c_str());
  if (dir == nullptr) return false;
  name->clear();
  while (struct dirent* ent = readdir(dir)) {
    if (strcmp(ent->d_name, ".") == 0 || strcmp(ent->d_name, "..") == 0) continue;
    std::string full = std::string(kDiskDir) + "/" + ent->d_name;
    struct stat st;
    if (stat(cam_path(full).c_str(), &st) != 0 || S_ISDIR(st.st_mode)) continue;
    if (strstr(ent->d_name, ".img") == nullptr) continue;
    if (std::string_view(ent->d_name).ends_with(".minisig")) continue;  // an image's signature
    *name = ent->d_name;
    break;
  }
  closedir(dir);
  return true;
}

// Text after the first '_' up to the next '.' (or the end); "" without '_'.
std::string model_tag_of_path(const std::string& path) {
  size_t us = path.find('_');
  if (us == std::string::npos) return "";
  size_t dot = path.find('.', us + 1);
  return path.substr(us + 1, dot == std::string::npos ? std::string::npos : dot - us - 1);
}

std::string model_tag(const char* model) { return std::string(model, strcspn(model, ".")); }

void device_type_written(bool quiet) {
  set_device_type_flag();
  INSTALL_LOG(quiet, "device_type write to uboot finish!\n");
}

// The partition loop; returns after the reboot sequence on an erase or write
// failure (true), otherwise false.
bool write_partitions(const std::string& image) {
  daemon_state_t& st = daemon_state;
  // The coverage test compares against this running size, which stays 0:
  // only partition 0 is ever handled, the walk ends at partition 1.
  const int32_t image_size = 0;
  partition_walk walk;
  const bool& quiet = walk.quiet;
  const part_place& place = walk.place;
  while (next_image_partition(&walk, image_size)) {
    const int i = walk.index;
    DBG_INFO("mtd_file_offset: %s\n", place.file_offset);
    DBG_INFO("erase %s...\n", st.mtd[i].name);
    set_net_upgrade_flag(1);
    DBG_INFO("set_net_upgrade_flag(1)\n");

    const char* piece = nullptr;
    if (i == 0 || i == 1) {
      piece = i == 0 ? kUbootPiece : kUimagePiece;
      DBG_INFO(i == 0 ? "###### enter u-boot check\n" : "###### enter uImage check\n");
      mtd_file_split(image.c_str(), piece, static_cast<unsigned>(i));
      if (mtd_cmp(piece, static_cast<unsigned>(i)) == 0) {
        DBG_INFO("%s the same as mtd%d, continue\n", piece, i);
        if (!quiet) {
          if (i == 0)
            TRACE_DATA("skip u-boot erase and write, continue\n");
          else
            TRACE_DATA("skip uimage erase and write, continue\n");
        }
        sys().shell(std::string("rm -rf ") + piece);
        if (i == 0) {
          sys().shell("rm -rf /dev/mtd0.bin /dev/mtd0_ext.bin");
          device_type_written(quiet);
        }
        continue;
      }
    }
    int ret = orn_mtd("erase", place.device.c_str(), "0x00", place.length.c_str(), " ", "0x00");
    if (piece != nullptr) sys().shell(std::string("rm -rf ") + piece);
    if (ret == -1) {
      DBG_INFO("orn_mtd:erase ret: %d\n", ret);
      reboot_sequence();
      return true;
    }
    sys().sleep_us(200000);
    ret = orn_mtd("write", place.device.c_str(), "0x00", place.length.c_str(), image.c_str(),
                  place.file_offset);
    if (ret == -1) {
      DBG_INFO("orn_mtd:write ret: %d\n", ret);
      reboot_sequence();
      return true;
    }
    if (i == 0) device_type_written(quiet);
    set_net_upgrade_flag(2);
    DBG_INFO("set_net_upgrade_flag(2)\n");
  }
  return false;
}
}  // namespace

int check_usb_disk_mount() {
  char buf[129] = {};
  int n = sys().shell_read("mount | grep /mnt/usb", buf, 128);
  if (n < 0) {
    DBG_ERR("popen failed\n");
    return -1;
  }
  if (n == 0) {
    DBG_ERR("check usb disk failed\n");
    return -1;
  }
  DBG_INFO("check usb disk success\n");
  return 0;
}

void send_udisk_status(unsigned char status) {
  g_status[4] = status;
  send_local_control(g_status, sizeof(g_status));
}

const unsigned char* udisk_status_buffer() { return g_status; }

int udisk_upgrade_poll() {
  if (access(cam_path(kTrigger).c_str(), F_OK) != 0) return 0;
  DBG_INFO("exist %s\n", kTrigger);
  DBG_INFO("1. check usb disk\n");
  if (check_usb_disk_mount() == -1) send_udisk_status(1);
  DBG_INFO("2. found upgrade file\n");

  std::string name;
  if (!find_image(&name)) {
    DBG_ERR("opendir %s failed!\n", kDiskDir);
    refuse();
    return 0;
  }
  if (name.empty()) {
    DBG_INFO("not found upgrade file!\n");
    refuse();
    return 0;
  }
  const std::string image = std::string(kDiskDir) + "/" + name;
  DBG_INFO("found file: %s\n", image.c_str());

  const version_texts now = current_version();
  const std::string cam_tag = model_tag(now.model);
  DBG_INFO("soc_device_type_info: %s\n", now.model);
  DBG_INFO("cam_device_model: %s\n", cam_tag.c_str());
  // The name goes into shell command lines; only a regular file is read.
  if (check_file_name(kDiskDir, name.c_str()) != name_verdict::ok) {
    printf("upgrade filename error!");
    fflush(stdout);
    refuse();
    return 0;
  }
  const std::string file_tag = model_tag_of_path(image);
  DBG_INFO("file_device_model: %s\n", file_tag.c_str());
  if (file_tag != cam_tag) {
    DBG_INFO("device_model no match!\n");
    refuse();
    return 0;
  }
  if (daemon_state.mtd_num > 0 && get_file_size(image.c_str()) < mtd_part_size(0)) {
    // A cut-off image would leave the boot loader half written.
    DBG_ERR("%s is shorter than mtd0\n", image.c_str());
    refuse();
    return 0;
  }

  const signature_check sig = check_detached_signature(image);
  if (!sig.ok) {
    DBG_ERR("signature check failed: %s\n", sig.why.c_str());
    TRACE_DATA("signature check failed: %s\n", sig.why.c_str());
    refuse();
    return 0;
  }

  DBG_INFO("3. start upgrade...\n");
  send_udisk_status(3);
  sys().shell(kRemoveTrigger);
  int ret = kill_pid_main();
  if (ret == -1) {
    DBG_INFO("kill_pid_main() ret: %d\n", ret);
    reboot_sequence();
    return 1;
  }
  daemon_state.upgrade_busy = 1;
  DBG_INFO("current upgrademode is ALL_MTD\n");
  if (access(cam_path("/config_path/video.conf").c_str(), F_OK) == 0) {
    sys().shell("mkdir /data/upgrade_copy_conf");
    sys().shell("cp /config_path/* /data/upgrade_copy_conf/.");
  }
  if (write_partitions(image)) return 1;
  delete_file();
  sys().sleep_us(500000);
  reboot_sequence();
  return 1;
}

void* udisk_upgrade_func(void*) {
  read_version();
  while (udisk_upgrade_poll() == 0) sys().sleep_us(1000000);
  return nullptr;
}
