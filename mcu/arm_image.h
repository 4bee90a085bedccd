// Controller image selection, version record and preset sync.
//
// At start-up the controller is flashed when no version record
// "/customer/arm_version_file" exists: the image matching the motor type is
// chosen among the "_ARM_" files in "/customer", the controller-upgrade
// program is run (up to three times), the record is written and the camera
// reboots.
#pragma once

#include <cstddef>

inline constexpr char kArmVersionFile[] = "/customer/arm_version_file";
inline constexpr char kMotorTypeFile[] = "/data/motor_type";
inline constexpr char kPresetInfoFile[] = "/data/preset_info.dat";
inline constexpr char kArmUpgradeProgram[] = "/customer/arm_upgrade";

// Preset file: a signed count, then 256 records of 9 little-endian words
// (flag, zoom_h, zoom_l, focus_h, focus_l, horizontal_h, horizontal_l,
// vertical_h, vertical_l).
inline constexpr size_t kPresetCount = 256;
inline constexpr size_t kPresetRecordSize = 36;
inline constexpr size_t kPresetFileSize = 4 + kPresetCount * kPresetRecordSize;  // 9220
inline constexpr size_t kPresetFrameSize = 14;

// Runs `command`, appends the first line of its output to `name_out`
// (capacity `name_size`). 1 when a name was found, else 0. Names with
// characters that a shell would interpret are refused.
int found_arm_upgrade_file(const char* command, char* name_out, size_t name_size);
// 1 or 2 from "/data/motor_type" (1 when unknown).
int read_motor_type();
// Version text from an image name: X_ARM_V1.2.3_TYPE1.bin -> "1.2.3_1".
void arm_version_from_name(const char* name, char* version, size_t version_size);
// Start-up check: flashes the controller when it has no version record.
// Does not return once the controller was flashed (reboot).
void check_arm(int restore_image_conf);
// Records the version of the image found in "/dev" (mode 2: only the name).
int update_arm_version(int mode);
// Replays the stored presets to the controller as 14-byte frames.
void sync_preset_info_dat();
