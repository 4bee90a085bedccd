// The camera's local control service (127.0.0.1 port 1259): the one sender
// of its fixed binary datagrams (reboot notice, LED, USB-disk status).
#pragma once

#include <cstddef>

#include "wire/text.h"

inline constexpr int kLocalControlPort = wire::kLocalControlPort;

// Sends buf as one UDP datagram from a fresh socket to the service and
// closes the socket; no reply is awaited.
void send_local_control(const void* buf, size_t len);
