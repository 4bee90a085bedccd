// Device identity, network settings and small camera facts.
#pragma once

#include <cstddef>

void read_uuid();
int check_usb_disk_mount();
void send_local_control(const void* buf, size_t len);
