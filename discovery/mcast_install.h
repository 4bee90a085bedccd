// Installation of a verified multicast upgrade file by its mode, each ending
// with its acknowledgement, a sync and the reboot.
#pragma once

#include "discovery/mcast.h"

// "REPLYU DO" with acknowledgement `code` to ep's group.
void send_upgrade_ack(mcast_endpoint* ep, char code);

// Installs the file at `path` (a camera path under "/dev/") by `mode`:
// 1 zip package, 2 controller image, 3 package with boot loader, kernel and
// controller image, 4 whole-flash image of `file_size` bytes, 5 and above
// partition (mode - 5); modes below 1 install nothing. The mark of the last
// confirmed status report is removed before anything is installed, so the
// camera reports once it is back. Returns only when nothing was installed
// (false: a mode below 1, a failed fork), from a controller programmer's
// child that succeeded, or when the reboot did not happen (true).
bool install_upgrade_file(mcast_endpoint* ep, const char* path, int mode, int file_size);
