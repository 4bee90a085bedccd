// The multicast upgrade: a "CAMERA_UP" announcement names the cameras and
// the file, the transfer packets ('b', 't'..., 'o') carry it into "/dev/",
// and a file whose md5 matches is installed by mode (mcast_install.h).
#pragma once

#include <cstddef>

#include "discovery/mcast.h"

// Handles one "CAMERA_UP" datagram heard on ep: an announcement when its
// text holds "Device ID:", otherwise a transfer packet. Installation and the
// reboot run on the calling thread, after the transfer's lock is released.
void handle_camera_upgrade(mcast_endpoint* ep, const char* buf, size_t len);

// Forgets the transfer and any installation (tests start each camera anew),
// once every NORM receiver thread has ended.
void reset_mcast_upgrade();
