// The partner's binary frames: search, network query and network setting on
// 236.5.7.1:8000, the tracking requests on 8001 with the tracking service's
// answer, and the replies as the LAN tool decodes them. The first piece is
// the request, the second the tracking service's answer.
#include <optional>
#include <string>

#include "harness.h"
#include "partner/param_mira.h"
#include "partner/search_mira.h"
#include "wire/partner.h"

namespace wp = wire::partner;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCamera& c = reset_camera();
  c.cam.platform().on("cat /home/device_model_file", "T2\n");

  const std::vector<std::string_view> p = split_pieces(data, size);
  std::vector<uint8_t> exact = exact_copy<uint8_t>(p[0], wp::kDatagramMax);
  mcast_receive_mira(exact.size(), exact.data());
  // The tracking service answers the first request with the second piece.
  std::optional<std::string> answer;
  if (p.size() > 1) answer = std::string(p[1]);
  const int service = c.lan.serve(kTrackingServicePort, [&answer](const std::string&) {
    std::optional<std::string> a = answer;
    answer.reset();
    return a;
  });
  param_receive_mira(c.ep.sock.load(), c.ep.tool_addr, exact.data(), exact.size());
  c.lan.close(service);

  for (const FakeLan::Datagram& d : c.lan.captured())
    if (d.raw) fuzz_require(d.data.size() <= wp::kDatagramMax, "reply size");
  wp::decode_search_reply(exact.data(), exact.size());
  wp::decode_net_reply(exact.data(), exact.size());
  wp::decode_track_reply(exact.data(), exact.size());
  return 0;
}
