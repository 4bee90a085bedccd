// USB-disk upgrade watcher.
//
// Another program creates /dev/u_disk_upgrade_flag when a disk is mounted at
// /mnt/usb. The watcher looks for a whole-flash image there ("*.img" whose
// model tag, the text after the first '_' up to the next '.', names this
// camera's model), reports to the local display process with 6-byte
// datagrams to 127.0.0.1:1259 (status 1 mount check failed, 2 refused,
// 3 installation starts) and installs it; an installation always reboots.
#pragma once

#include <cstddef>

void* udisk_upgrade_func(void* arg);

// The USB-disk check ("mount | grep /mnt/usb"): 0 when a disk is mounted,
// -1 when not (or the pipe failed). The board test asks it too.
int check_usb_disk_mount();

// One look at the trigger file: 0 when there was nothing to do or the disk
// was refused (back to waiting), 1 when an installation ran to its reboot.
int udisk_upgrade_poll();

// The status datagram (daemon-wide buffer; the status byte keeps its value),
// sent with send_local_control (core/local_control.h).
inline constexpr size_t kUdiskStatusLen = 6;
void send_udisk_status(unsigned char status);
const unsigned char* udisk_status_buffer();
