#include "mcu/arm_image.h"

#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/helpers.h"
#include "core/platform.h"
#include "mcu/stm32flashloader.h"
#include "wire/file_name.h"

namespace {

constexpr char kSerialDevice[] = "/dev/ttyS1";
constexpr char kListType1[] = "/bin/ls /customer/ | grep _ARM_ | grep _TYPE1.bin";
constexpr char kListType2[] = "/bin/ls /customer/ | grep _ARM_ | grep _TYPE2.bin";
constexpr char kListAny[] = "/bin/ls /customer/ | grep _ARM_ | grep .bin";
constexpr char kListDev[] = "/bin/ls /dev/ | grep _ARM_ | grep .bin";
constexpr size_t kListMax = 256;
constexpr size_t kNameLen = kListMax + 4;

void set_busy(int value) {
  daemon_state.arm_upgrade_flag = value;
  daemon_state.upgrade_busy = value;
}

void write_motor_type(const char* value) {
  char cmd[64];
  snprintf(cmd, sizeof(cmd), "echo %s > %s", value, kMotorTypeFile);
  sys().shell(cmd);
}

void remove_image(const char* name) {
  char cmd[kNameLen + 32];
  snprintf(cmd, sizeof(cmd), "rm -rf %s%s", "/customer/", name);
  DBG_INFO("cmd: %s\n", cmd);
  sys().shell(cmd);
}

// Writes "ARM: [<version>]" over the start of the version record (no
// O_TRUNC: a shorter record leaves the tail of the old one). False when the
// record cannot be opened; a short write is logged for `func`.
bool write_version_record(const char* version, const char* func) {
  int fd = open(cam_path(kArmVersionFile).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const std::string record = std::string("ARM: [") + version + "]";
  if (write(fd, record.data(), record.size()) != static_cast<ssize_t>(record.size()))
    DBG_ERR_AS(func, "write %s failed\n", kArmVersionFile);
  close(fd);
  return true;
}

int32_t le32(const uint8_t* p) {
  return static_cast<int32_t>(uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) |
                              (uint32_t{p[3]} << 24));
}

}  // namespace

int found_arm_upgrade_file(const char* command, char* name_out, size_t name_size) {
  char buf[kListMax + 1] = {};
  int n = sys().shell_read(command, buf, kListMax);
  if (n < 0) {
    DBG_ERR("popen failed\n");
    return 0;
  }
  char* nl = strchr(buf, '\n');
  if (nl != nullptr) *nl = '\0';
  if (n == 0 || buf[0] == '\0') {
    DBG_ERR("fread %s failed\n", command);
    DBG_ERR("not found upgrade file\n");
    return 0;
  }
  // Image names go into shell command lines.
  if (!is_safe_file_name(buf)) {
    DBG_ERR("bad file name: %s\n", buf);
    DBG_ERR("not found upgrade file\n");
    return 0;
  }
  size_t used = strnlen(name_out, name_size);
  if (used + 1 < name_size) {
    size_t room = name_size - used - 1;
    strncat(name_out, buf, room);
  }
  DBG_INFO("filename: %s\n", name_out);
  return 1;
}

int read_motor_type() {
  const char cmd[] = "cat /data/motor_type";
  char buf[129] = {};
  int n = sys().shell_read(cmd, buf, 128);
  if (n < 0) {
    DBG_ERR("popen %s failed\n", cmd);
    return 1;
  }
  if (n == 0) {
    DBG_ERR("fread %s failed\n", cmd);
    return 1;
  }
  if (strstr(buf, "motor_type=1") != nullptr) return 1;
  if (strstr(buf, "motor_type=2") != nullptr) return 2;
  DBG_INFO("not found motor_type\n");
  return 1;
}

void arm_version_from_name(const char* name, char* version, size_t version_size) {
  size_t out = 0;
  if (version_size == 0) return;
  version[0] = '\0';
  const char* arm = strstr(name, "ARM");
  if (arm == nullptr) return;
  // Past "ARM_"; the name may end before that.
  const char* p = arm;
  for (int i = 0; i < 4 && *p != '\0'; ++i) ++p;
  for (; *p != '\0'; ++p) {
    if (p[0] == '.' && p[1] == 'b') break;
    bool keep = isdigit(static_cast<unsigned char>(*p)) || *p == '.' || (p[0] == '_' && p[1] == 'T');
    if (keep && out + 1 < version_size) version[out++] = *p;
  }
  version[out] = '\0';
}

void check_arm(int restore_image_conf) {
  set_busy(1);
  int fd = open(cam_path(kArmVersionFile).c_str(), O_RDWR | O_CLOEXEC);
  if (fd >= 0) {
    DBG_INFO("exise arm_version_file\n");
    set_busy(0);
    close(fd);
    return;
  }
  DBG_INFO("not exise arm_version_file\n");
  TRACE("not exise arm_version_file\n");
  if (restore_image_conf == 1) {
    delete_file();
    char cmd[128];
    snprintf(cmd, sizeof(cmd), "cp %s %s", "/customer/image_default.conf", "/data/image.conf");
    DBG_INFO("cmd: %s\n", cmd);
    sys().shell(cmd);
  }

  char type1_name[kNameLen] = {};
  char type2_name[kNameLen] = {};
  char chosen[kNameLen] = {};
  int has_type1 = found_arm_upgrade_file(kListType1, type1_name, sizeof(type1_name));
  int has_type2 = found_arm_upgrade_file(kListType2, type2_name, sizeof(type2_name));
  if (has_type1 && has_type2) {
    DBG_INFO("exist type1 type2\n");
    DBG_INFO("type1_name: %s\n", type1_name);
    DBG_INFO("type2_name: %s\n", type2_name);
    if (read_motor_type() == 2) {
      snprintf(chosen, sizeof(chosen), "%s", type2_name);
      remove_image(type1_name);
      write_motor_type("motor_type=2");
    } else {
      snprintf(chosen, sizeof(chosen), "%s", type1_name);
      remove_image(type2_name);
      write_motor_type("motor_type=1");
    }
  } else if (has_type1) {
    DBG_INFO("exist type1 \n");
    DBG_INFO("type1_name: %s\n", type1_name);
    snprintf(chosen, sizeof(chosen), "%s", type1_name);
    write_motor_type("motor_type=1");
  } else if (has_type2) {
    DBG_INFO("exist type2\n");
    DBG_INFO("type2_name: %s\n", type2_name);
    snprintf(chosen, sizeof(chosen), "%s", type2_name);
    write_motor_type("motor_type=2");
  } else {
    char tmp[kNameLen] = {};
    if (!found_arm_upgrade_file(kListAny, tmp, sizeof(tmp))) {
      DBG_INFO("not found type1 typ2 default upgrade file\n");
      set_busy(0);
      return;
    }
    DBG_INFO("exist default arm file\n");
    DBG_INFO("tmp: %s\n", tmp);
    snprintf(chosen, sizeof(chosen), "%s", tmp);
  }

  DBG_INFO("file name: %s\n", chosen);
  TRACE("arm upgrage file: %s\n", chosen);
  char image_path[kNameLen + 16];
  snprintf(image_path, sizeof(image_path), "/customer/%s", chosen);
  DBG_INFO("upgradefilepath: %s\n", image_path);
  DBG_INFO("upgradefilepath len: %d\n", static_cast<int>(strlen(image_path)));

  sys().sleep_us(13000000);
  kill_pid_main();

  pid_t pid = sys().fork();
  if (pid < 0) {
    DBG_ERR("child process create failed\n");
    sys().sync();
    set_busy(0);
    sys().end_thread();
  }
  if (pid > 0) {
    DBG_INFO("this is parent process!!!\n");
  } else {
    DBG_INFO("start upgrade arm\n");
    TRACE("start upgrade arm\n");
    std::string cmd = std::string(kArmUpgradeProgram) + " " + kSerialDevice + " " + image_path;
    if (daemon_state.work_mode == WORK_DEBUG_ARM) cmd += " DEBUG";
    cmd += " >&1";
    // Three attempts back to back; after the last the child returns to its
    // caller and carries on there.
    int attempt = 1;
    while (sys().shell(cmd) != 0) {
      if (attempt == 3) {
        DBG_ERR("##### arm upgrade failed\n");
        set_busy(0);
        return;
      }
      DBG_ERR("arm upgrade failed, try again!\n");
      ++attempt;
    }

    DBG_INFO("start read version info\n");
    char version[kNameLen] = {};
    arm_version_from_name(chosen, version, sizeof(version));
    DBG_INFO("tmpVersion: %s\n", version);
    if (!write_version_record(version, __func__)) {
      DBG_ERR("oepn %s failed\n", kArmVersionFile);
      sys().sync();
      set_busy(0);
      sys().end_thread();
    }
    sys().shell("cp /customer/arm_version_file /data/.");
    DBG_INFO("write arm_version info succeed\n");
    TRACE("arm upgrade success, reboot\n");
  }

  int status = 0;
  sys().waitpid(pid, &status, 0);
  sys().sync();
  sys().sleep_us(200000);
  if (access(cam_path(kPresetInfoFile).c_str(), F_OK) == 0) {
    DBG_INFO("need sync preset info\n");
    sys().shell("touch /home/preset_sync_flag");
  }
  DBG_INFO("upgrade succeed\n");
  // The camera reboots: the busy flag stays set.
  reboot_sequence();
}

int update_arm_version(int mode) {
  char buf[kListMax + 1] = {};
  int n = sys().shell_read(kListDev, buf, kListMax);
  if (n < 0) {
    DBG_ERR("popen failed\n");
    buf[0] = '\0';
  } else if (n == 0) {
    DBG_ERR("fread %s failed\n", kListDev);
    return 1;
  }
  char* nl = strchr(buf, '\n');
  if (nl != nullptr) *nl = '\0';
  // Kept to the width of the record (127 characters).
  char* name = daemon_state.arm_upgrade_file_name;
  buf[sizeof(daemon_state.arm_upgrade_file_name) - 1] = '\0';
  memcpy(name, buf, sizeof(daemon_state.arm_upgrade_file_name));
  DBG_INFO("arm-upgrade-filename: %s\n", name);
  if (mode == 2) return 0;

  char version[kNameLen] = {};
  arm_version_from_name(name, version, sizeof(version));
  DBG_INFO("arm-version: %s\n", version);
  TRACE("arm-version: %s\n", version);
  if (!write_version_record(version, __func__)) {
    DBG_ERR("open %s failed\n", kArmVersionFile);
    sys().sync();
    sys().end_thread();
  }
  return 0;
}

void sync_preset_info_dat() {
  DBG_INFO("enter\n");
  if (access(cam_path(kArmUpgradeProgram).c_str(), F_OK) != 0) {
    DBG_INFO("not found %s\n", kArmUpgradeProgram);
    return;
  }
  DBG_INFO("found %s\n", kArmUpgradeProgram);

  FILE* fp = fopen(cam_path(kPresetInfoFile).c_str(), "r+");
  if (fp == nullptr) {
    DBG_ERR("fopen %s failed\n", kPresetInfoFile);
    sys().shell("touch /data/preset_info.dat");
    return;
  }
  static uint8_t data[kPresetFileSize];
  memset(data, 0, sizeof(data));
  size_t got = fread(data, 1, sizeof(data), fp);
  fclose(fp);
  if (got == 0) {
    DBG_ERR("%s is empty!\n", kPresetInfoFile);
    return;
  }
  int32_t count = le32(data);
  if (count <= 0) {
    DBG_ERR("cur_preset_manager.num <= 0\n");
    return;
  }
  DBG_INFO("cur_preset_manager.num: %d\n", count);
  auto field = [&](size_t index, size_t word) { return le32(data + 4 + index * kPresetRecordSize + word * 4); };
  for (size_t i = 0; i < kPresetCount; ++i) {
    if (field(i, 0) != 1) continue;
    DBG_INFO(
        "index: %d, flag: %d, zoom_h: 0x%x, zoom_l: 0x%x, focus_h: 0x%x, focus_l: 0x%x, "
        "horizontal_h: 0x%x, horizontal_l: 0x%x, vertical_h: 0x%x, vertical_l: 0x%x\n",
        static_cast<int>(i), field(i, 0), field(i, 1), field(i, 2), field(i, 3), field(i, 4),
        field(i, 5), field(i, 6), field(i, 7), field(i, 8));
  }

  int fd = uartinit(kSerialDevice, B9600);
  if (fd < 0) {
    DBG_ERR("uartinit() fail\n");
    return;
  }
  int sent = 0;
  for (size_t i = 0; i < kPresetCount; ++i) {
    if (field(i, 0) != 1) continue;
    uint8_t frame[kPresetFrameSize] = {0x81, 0x0A, 0x11, 0x17, static_cast<uint8_t>(i)};
    for (size_t w = 0; w < 8; ++w) frame[5 + w] = static_cast<uint8_t>(field(i, w + 1));
    frame[13] = 0xFF;
    ssize_t ret = write(fd, frame, sizeof(frame));
    DBG_INFO("num: %d write finish, ret: %d\n", static_cast<int>(i), static_cast<int>(ret));
    ++sent;
    sys().sleep_us(200000);
    if (sent == count) {
      DBG_INFO("preset info sync finish!\n");
      break;
    }
  }
  close(fd);
  DBG_INFO("leave\n");
}
