// Installation of a verified multicast upgrade file by its mode, each ending
// with its acknowledgement, a sync and the reboot.
#pragma once

#include "discovery/mcast.h"

#include <string>

// "REPLYU DO" with acknowledgement `code` to ep's group, as many copies as
// set below ('9' always once).
void send_upgrade_ack(mcast_endpoint* ep, char code);
// An acknowledgement's whole text (with fields after the code), the same way.
void send_ack_text(mcast_endpoint* ep, const std::string& text);
// Copies of each acknowledgement, 20 ms apart: 1, except in a NORM session,
// whose tool asked for it and drops repeats, and whose answers cross the
// same lossy LAN as the file (3).
void set_upgrade_ack_copies(int copies);

// Installs the file at `path` (a camera path under "/dev/") by `mode`:
// 1 zip package, 2 controller image, 3 package with boot loader, kernel and
// controller image, 4 whole-flash image of `file_size` bytes, 5 and above
// partition (mode - 5); modes below 1 install nothing. The mark of the last
// confirmed status report is removed before anything is installed, so the
// camera reports once it is back. Returns only when nothing was installed
// (false: a mode below 1, a failed fork), from a controller programmer's
// child that succeeded, or when the reboot did not happen (true).
bool install_upgrade_file(mcast_endpoint* ep, const char* path, int mode, int file_size);
