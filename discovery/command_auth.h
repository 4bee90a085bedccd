// Commands that change a keyed camera (network settings, reboot, serial and
// MAC, LED, board test) must be signed by one of its site keys over the
// command and the camera's current challenge. The challenge is published in
// the search reply and changes after every accepted command, so a captured
// command cannot be sent again. A camera without keys takes every command
// as it always did.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

#include "wire/signature.h"

// The challenge a keyed camera's search reply carries; "" without keys.
std::string current_challenge();

// A changing command to this camera: the length of the command without its
// signature when it may run, nothing when it is refused (logged). Commands
// to other cameras pass untouched (their own check refuses them).
std::optional<size_t> admit_command(const char* msg, size_t len);

// The daemon-wide changes a keyed camera refuses from protocols that cannot
// carry a signature (partner network set, broadcast settings and production
// mode): true, logged with `what`, when the camera has keys.
bool refuse_unsigned_change(const char* what);

// "CAMERA_KY": adds ("\r\nAdd:" and a public key's base64 line) or removes
// ("\r\nRemove:" and a key ID) a site key. A camera without keys takes its
// first key from any tool on the LAN; a keyed camera only a signed command.
// The reply "CAMERA_KY" with the IDs and "\r\nResult:" ok or refused.
using wire::kKeyCommand;
void handle_key_command(struct mcast_endpoint* ep, const char* msg, size_t len);

void reset_command_auth();
