// Text commands heard on the multicast groups.
#pragma once

#include <cstddef>

#include "discovery/mcast.h"

// Handles one datagram (buf, len) heard on ep; replies go to ep's group.
void mcast_receive(mcast_endpoint* ep, const char* buf, size_t len);
// IPv6 counterpart: answers "SEARCH * " only.
void mcast_receive_ipv6(mcast_endpoint* ep, const char* buf, size_t len);

// Command code of a datagram: its first nine bytes against the keyword
// table; an unknown keyword is code 1.
int keyword_code_of(const char* buf, size_t len);

// read_version under a lock, copying the two texts (32 bytes each).
void refresh_version(char* version, char* model);

// Control messages for the local control service.
inline constexpr unsigned char kRebootNotice[5] = {0x88, 0x0B, 0x01, 0xAA, 0xFF};
inline constexpr unsigned char kLedFlickerOn[6] = {0x81, 0x0A, 0x02, 0x01, 0x02, 0xFF};
inline constexpr unsigned char kLedFlickerOff[6] = {0x81, 0x0A, 0x02, 0x01, 0x03, 0xFF};
