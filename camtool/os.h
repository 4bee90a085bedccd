// What camtool asks of the operating system, in one place: UDP sockets for
// net.cpp's transport, the terminal, the files it writes and reads, and
// Ctrl-C. os_posix.cpp answers for Linux, os_windows.cpp for Windows; no
// other file of the tool touches the system directly.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "camtool/common.h"
#include "camtool/net.h"

namespace camtool::os {

// A socket as the system names it (a file descriptor, or a SOCKET).
using socket_handle = std::intptr_t;

// A UDP socket that hears `group`:`port` on the interface (the group joined
// at its address) and sends multicast out of it, TTL 1, not looped back.
// Throws tool_error (kExitFailed) naming the interface.
socket_handle open_group_socket(const char* group, int port, const iface_choice& iface);
// A UDP socket bound to the interface's address that may send to the
// broadcast address; replies to its datagrams come back to it.
socket_handle open_direct_socket(const iface_choice& iface);
void close_socket(socket_handle s);

// One datagram to ip:port, waiting a little for room in a full send queue;
// throws tool_error (kExitFailed) naming the interface.
void send_datagram(socket_handle s, const std::string& ip, int port, std::string_view data,
                   const std::string& iface_name);
struct received {
  std::string src;  // sender's IPv4 address
  std::string data;
};
// A datagram already queued on the socket; never waits.
std::optional<received> take_datagram(socket_handle s);
// Returns once a socket has a datagram, `left` has passed or Ctrl-C was
// pressed (it may also return early; callers check again).
void wait_readable(const std::vector<socket_handle>& sockets, clock::duration left);

// Whether standard input is a terminal (a console on Windows).
bool stdin_is_terminal();
// A line typed at the terminal without echoing it (after `prompt` on stderr).
std::string read_hidden_line(const std::string& prompt);

// Writes a file that must not exist unless `replace`; a `secret` one is
// readable and writable by its owner only (mode 0600; on Windows a protected
// access list with the current user alone), and never widened. Refuses a
// link in its place. Throws tool_error with the system's reason.
void write_new_file(const std::string& path, const std::string& text, bool secret, bool replace);

// The last part of a path: after the last '/' (on Windows also '\\' or a
// drive's ':').
std::string base_name(const std::string& path);

// open_file (upgrade.h), interrupted() and install_interrupt_handler()
// (common.h) are defined beside these, once per system.

}  // namespace camtool::os
