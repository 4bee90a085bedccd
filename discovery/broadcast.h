// Broadcast commissioning on UDP 12811: discovery, network setting and the
// production-mode switches, for tools that reach the camera by broadcast or
// unicast. Replies go straight back to the sender.
#pragma once

#include <netinet/in.h>

// What a handler needs to answer one datagram.
struct broadcast_ctx {
  int sock = -1;
  struct sockaddr_in local {};  // where the socket is bound
  struct sockaddr_in peer {};   // the sender, as recvfrom filled it in
};

// Thread: opens the socket on port 12811 and serves it for ever.
void* broadcast_func(void* arg);
// Blocking UDP socket bound to any address and `port`, no options; a failed
// bind is logged and the socket used unbound. -1 when none can be made.
int broadcast_open(int port, struct sockaddr_in* local);
// One receive of at most 512 bytes, NUL-terminated, handed to
// broadcast_receive; -1 when recvfrom failed.
int broadcast_serve_once(broadcast_ctx* ctx);
// Handles one NUL-terminated datagram: the sendto result of its reply, or 0.
int broadcast_receive(broadcast_ctx* ctx, const char* message);

// The production-mode switch (daemon_state.production_mode): set by
// "action=test enable" with "enable=on", never cleared by a command (only a
// restart clears it).
int production_mode_enable();
