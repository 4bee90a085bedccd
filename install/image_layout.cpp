#include "install/image_layout.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/helpers.h"
#include "core/platform.h"

namespace {
constexpr int kUbootBlock = 393216;   // 0x60000
constexpr int kUimageBlock = 524288;  // 0x80000
constexpr size_t kSplitCmdLen = 256;
constexpr size_t kCmpCmdLen = 128;
constexpr size_t kCmpOutLen = 128;

int run_flag_command(const char* cmd) {
  DBG_INFO("cmd: %s\n", cmd);
  return sys().shell_status(cmd);
}
}  // namespace

uint32_t mtd_part_size(int index) {
  if (index < 0 || index >= daemon_state.mtd_num || index >= kMaxMtd) return 0;
  return hex_to_int(daemon_state.mtd[index].size);
}

bool mtd_part_dev(int index, char* out, unsigned out_len) {
  if (out_len == 0) return false;
  out[0] = '\0';
  if (index < 0 || index >= daemon_state.mtd_num || index >= kMaxMtd) return false;
  const char* dev = daemon_state.mtd[index].dev;
  unsigned n = 0;
  while (n + 1 < out_len && n < sizeof(daemon_state.mtd[index].dev) && dev[n] != '\0' &&
         dev[n] != ':') {
    out[n] = dev[n];
    ++n;
  }
  out[n] = '\0';
  return true;
}

bool silences_upgrade_log(const char* partition_name) {
  return strstr(partition_name, "net") != nullptr ||
         strstr(partition_name, "config_yaffs") != nullptr ||
         strstr(partition_name, "data") != nullptr;
}

namespace {
// Fills the place of partition `index` and moves the walk past it.
void place_partition(partition_walk* w, int index, int32_t image_size) {
  part_place* place = &w->place;
  char dev_name[16];
  mtd_part_dev(index, dev_name, sizeof(dev_name));
  place->device = std::string("/dev/") + dev_name;
  place->length = std::string("0x") + daemon_state.mtd[index].size;
  const uint32_t size = mtd_part_size(index);
  place->covered = true;
  if (index == 0) {
    snprintf(place->file_offset, sizeof(place->file_offset), "0x00");
  } else {
    w->file_offset += w->prev_size;
    snprintf(place->file_offset, sizeof(place->file_offset), "0x%X", w->file_offset);
    place->covered = image_size >= static_cast<int32_t>(w->file_offset + size);
  }
  w->prev_size = size;
}

void log_image_end(bool* quiet) {
  INSTALL_LOG(*quiet, "exit mtdbug\n");
  *quiet = false;
  INSTALL_LOG(*quiet, "ALL_MTD upgrade succeed\n");
}
}  // namespace

bool next_image_partition(partition_walk* walk, int32_t image_size) {
  const daemon_state_t& st = daemon_state;
  const int i = walk->index + 1;
  if (i >= st.mtd_num || i >= kMaxMtd) return false;
  walk->index = i;
  if (silences_upgrade_log(st.mtd[i].name)) walk->quiet = true;
  place_partition(walk, i, image_size);
  if (walk->place.covered) return true;
  log_image_end(&walk->quiet);
  walk->image_ended = true;
  return false;
}

int mtd_file_split(const char* image_path, const char* out_path, unsigned type) {
  char cmd[kSplitCmdLen];
  int n;
  if (type == kPieceUboot) {
    int count = static_cast<int>(mtd_part_size(0) / 1024 / 512);
    n = snprintf(cmd, sizeof(cmd), "dd if=%s of=%s bs=%d count=%d", image_path, out_path,
                 kUbootBlock, count);
  } else if (type == kPieceUimage) {
    int count = static_cast<int>(mtd_part_size(1) / 1024 / 512);
    int skip = static_cast<int>(mtd_part_size(0) / 1024 / 512);
    n = snprintf(cmd, sizeof(cmd), "dd if=%s of=%s bs=%d count=%d skip=%d", image_path, out_path,
                 kUimageBlock, count, skip);
  } else {
    TRACE("type != u-boot  or type != uImage, return\n");
    return -1;
  }
  if (n < 0 || static_cast<size_t>(n) >= sizeof(cmd)) {
    // A cut-off dd line would write somewhere else: run nothing.
    DBG_ERR("cmd too long: %s\n", cmd);
    return -1;
  }
  DBG_INFO("cmd: %s\n", cmd);
  sys().shell(cmd);
  return 0;
}

int mtd_cmp(const char* file_path, unsigned type) {
  DBG_INFO("enter\n");
  char cmd[kCmpCmdLen];
  int n;
  if (type == kPieceUboot) {
    const char* copy = "cat /dev/mtd0 > /dev/mtd0.bin";
    DBG_INFO("1. cmd: %s\n", copy);
    sys().shell_status(copy);
    char dd[kCmpCmdLen];
    snprintf(dd, sizeof(dd), "dd if=/dev/mtd0.bin of=/dev/mtd0_ext.bin bs=%d count=1", kUbootBlock);
    DBG_INFO("2. cmd: %s\n", dd);
    sys().shell_status(dd);
    n = snprintf(cmd, sizeof(cmd), "cmp %s /dev/mtd0_ext.bin;echo $?", file_path);
  } else if (type == kPieceUimage) {
    n = snprintf(cmd, sizeof(cmd), "cmp %s /dev/mtd1>/dev/null;echo $?", file_path);
  } else {
    return 1;
  }
  if (n < 0 || static_cast<size_t>(n) >= sizeof(cmd)) {
    DBG_INFO("leave\n");
    return 1;
  }
  DBG_INFO("cmd: %s\n", cmd);
  char buf[kCmpOutLen + 1];
  memset(buf, 0, sizeof(buf));
  int got = sys().shell_read(cmd, buf, kCmpOutLen);
  if (got < 0) {
    DBG_INFO("leave\n");
    return 1;
  }
  DBG_INFO("buf: %s", buf);
  if (buf[0] == '0') return 0;
  if (buf[0] == '1') return 1;
  DBG_INFO("leave\n");
  return 1;
}

int set_dfu_upgrade_flag(int value) {
  const char* cmd = "";
  switch (value) {
    case 0:
      cmd = "/dev/fw_setenv dfu_upgrade_flag 0";
      break;
    case 1:
      cmd = "/dev/fw_setenv dfu_upgrade_flag 1";
      break;
    case 2:
      cmd = "/dev/fw_setenv dfu_upgrade_flag 2";
      break;
    default:
      break;
  }
  return run_flag_command(cmd);
}

int set_net_upgrade_flag(int value) {
  const char* cmd = "";
  switch (value) {
    case 1:
      cmd = "/dev/fw_setenv net_upgrade_flag 1";
      break;
    case 2:
      cmd = "/dev/fw_setenv net_upgrade_flag 2";
      break;
    default:
      break;
  }
  return run_flag_command(cmd);
}

int set_device_type_flag() {
  // The model is not a file name: whatever it holds goes to fw_setenv as one
  // quoted word.
  const version_texts now = current_version();
  const char* model = now.model;
  const std::string cmd = std::string("/bin/fw_setenv mode_type ") +
                          shell_quote(std::string(model, strcspn(model, ".")).c_str());
  DBG_INFO("cmd: %s\n", cmd.c_str());
  return sys().shell_status(cmd);
}
