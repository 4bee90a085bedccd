// Broadcast commissioning datagrams (port 12811) as any host may send them,
// and the discovery reply as the LAN tool parses it. Only a datagram naming
// this camera may rewrite its network settings.
#include "discovery/broadcast.h"
#include "harness.h"
#include "wire/broadcast.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCamera& c = reset_camera();
  // The listener reads at most 512 bytes and ends them with a NUL.
  const std::string msg(reinterpret_cast<const char*>(data), std::min<size_t>(size, 512));
  broadcast_ctx ctx;
  ctx.sock = c.ep.sock.load();
  ctx.peer = c.ep.tool_addr;
  const std::string before = c.cam.read("/data/net.conf");
  broadcast_receive(&ctx, msg.c_str());
  fuzz_require(names_this_camera(msg) || c.cam.read("/data/net.conf") == before,
               "net.conf changed by a datagram for another camera");
  wire::broadcast::parse_discovery_reply(msg);
  return 0;
}
