// Any datagram on the search and batch groups (and the IPv6 search), with
// every keyword, and on the status group: no crash, no read past the
// datagram, and a datagram that does not carry this camera's ID neither
// reboots it, nor rewrites its files, nor confirms its status report.
#include "discovery/commands.h"
#include "discovery/dhcp_status.h"
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  FuzzCamera& c = reset_camera();
  // First byte: keyword (low four bits; 14 and 15 send the bytes as they
  // are), the listener (bit 4: search or batch size), IPv6 (bit 5).
  const uint8_t how = data[0];
  const int kw = how & 0x0F;
  if (kw == KW_CAMERA_UP) return 0;  // the multicast upgrade has its own target
  std::string dgram = kw < kKeywordCount ? wire::kKeywords[kw] : "";
  dgram.append(reinterpret_cast<const char*>(data + 1), size - 1);
  dgram.resize(std::min(dgram.size(), (how & 0x10) ? kBatchDatagram : kSearchDatagram));

  std::vector<char> exact = exact_copy(dgram);
  const std::string before = c.cam.read("/data/net.conf");
  if (how & 0x20)
    mcast_receive_ipv6(&c.ep.ep, exact.data(), exact.size());
  else
    mcast_receive(&c.ep.ep, exact.data(), exact.size());

  const bool confirmed = mcast_receive_status(&c.ep.ep, exact.data(), exact.size()) == 0;

  if (!names_this_camera(dgram)) {
    fuzz_require(!confirmed, "status confirmed by a datagram for another camera");
    fuzz_require(c.cam.platform().reboots() == 0, "rebooted by a datagram for another camera");
    fuzz_require(c.cam.read("/data/net.conf") == before,
                 "net.conf changed by a datagram for another camera");
  }
  return 0;
}
