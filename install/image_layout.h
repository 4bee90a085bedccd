// Whole-flash image layout: cutting the boot-loader and kernel pieces out of
// an image, comparing a piece with the flash, and the boot-environment flags.
//
// An image is a copy of the flash from offset 0: mtd0 (boot loader), mtd1
// (kernel), then the other partitions back to back, at the sizes of the
// running camera's partition table.
#pragma once

#include <cstdint>
#include <string>

#include "core/dbgout.h"

// Piece types.
inline constexpr unsigned kPieceUboot = 0;
inline constexpr unsigned kPieceUimage = 1;

// Cuts piece `type` of `image_path` into `out_path` with dd. 0, or -1 for an
// unknown type (or a command line that would not fit its buffer).
int mtd_file_split(const char* image_path, const char* out_path, unsigned type);
// 0 when `file_path` equals the flash content of piece `type`, 1 otherwise
// (also when it cannot tell).
int mtd_cmp(const char* file_path, unsigned type);
// Boot-environment flags; return the pclose status.
int set_dfu_upgrade_flag(int value);
int set_net_upgrade_flag(int value);
// mode_type = device model up to its first '.', quoted for the shell.
int set_device_type_flag();

// Size of partition `index` from the partition table (0 when out of range).
uint32_t mtd_part_size(int index);
// Device name of partition `index` ("mtd3"), the table text up to ':'.
// Returns false when the index is out of range.
bool mtd_part_dev(int index, char* out, unsigned out_len);
// True for partitions whose name contains "net", "config_yaffs" or "data":
// the upgrade log lives on such a partition, so from the first of them on an
// installation stops writing to it.
bool silences_upgrade_log(const char* partition_name);

// Where a partition lies in a whole-flash image.
struct part_place {
  std::string device;    // "/dev/mtd3"
  std::string length;    // "0x" + the table's size text
  char file_offset[16];  // "0x00" for partition 0, else "0x%X"
  bool covered;          // false: the image ends before this partition does
                         // (never for partition 0)
};

// The one walk of the whole-flash installers over the partitions an image
// covers, in table order from partition 0:
//   partition_walk walk;
//   while (next_image_partition(&walk, image_size)) { ...walk.index, walk.place... }
struct partition_walk {
  int index = -1;            // the partition at hand
  part_place place{};        // where it lies in the image
  bool quiet = false;        // set from the first partition that silences the upgrade log
  bool image_ended = false;  // the walk stopped where the image ended
  uint32_t file_offset = 0;  // image offset of the partition before
  uint32_t prev_size = 0;    // that partition's size
};
// Moves to the next partition of the table: true when the image covers it.
// False at the table's end, or when the image ends before the partition:
// then "exit mtdbug" is logged under the current quiet state, the trace is
// written again ("ALL_MTD upgrade succeed"), quiet is cleared and
// image_ended set.
bool next_image_partition(partition_walk* walk, int32_t image_size);

// Console line, plus the upgrade log unless the installation runs quiet.
#define INSTALL_LOG(quiet, fmt, ...)              \
  do {                                            \
    if (quiet)                                    \
      DBG_INFO(fmt __VA_OPT__(, ) __VA_ARGS__);   \
    else                                          \
      TRACE_DATA(fmt __VA_OPT__(, ) __VA_ARGS__); \
  } while (0)

