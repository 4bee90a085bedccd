// Whole-flash upgrade watcher and single-piece installation.
//
// To start a whole-flash installation, put the image into /dev/ under a name
// that contains ".img" (a name wire/file_name.h accepts), make sure no
// other ".img" lies there, and create /dev/mtd_upgrade (or
// /dev/onvif_upgrade_flag). The watcher notices within 2 seconds and always
// ends in a reboot.
#pragma once

#include <cstdint>

// Thread body (started by core/threads): polls the trigger files every 2 s,
// then installs.
void* mtd_upgrade_func(void* arg);

// 1 when one of the trigger files exists.
int mtd_upgrade_triggered();
// One installation from "find the image" to the reboot call (which returns
// only in tests or when reboot fails).
void mtd_upgrade_install();

// Writes a whole-flash image of `image_size` bytes partition by partition,
// in table order, every partition the image covers, and sets the
// boot-environment flags as the run passes the boot environment and the
// image's end; net_upgrade_flag stays 1 when any block never verified.
// Returns whether the run ended quiet (no upgrade-log lines).
bool write_image_partitions(const char* image_path, int32_t image_size);

// True when an image of `image_size` bytes does not cover partition 0; such
// an image is refused before anything is written.
bool image_too_short(int32_t image_size);

// Installs the piece named by the first output line of `list_cmd` (a file in
// /dev/) into partition `index` unless it already equals the flash.
// 0 when equal, otherwise the write's result; -1 on failure to find it.
int upgrade_specified_mtd(const char* list_cmd, int index);
