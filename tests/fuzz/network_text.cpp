// What the busybox tools and the resolver file print, as the network record
// reads it: ifconfig, the route listing, resolv.conf and the IPv6 listings,
// each from one piece of the input. Every field stays within its width.
#include <cstring>

#include "harness.h"

namespace {

template <size_t N>
void terminated(const char (&field)[N], const char* what) {
  fuzz_require(strnlen(field, N) < N, what);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCamera& c = fuzz_camera();
  reset_camera();
  const std::vector<std::string_view> p = split_pieces(data, size);
  auto piece = [&p](size_t i) { return i < p.size() ? std::string(p[i]) : std::string(); };
  FakePlatform& sh = c.cam.platform();
  // Most specific first: the first matching rule answers.
  sh.on("ifconfig eth0 | grep Scope:Global", piece(3));
  sh.on("ifconfig eth0 | grep HWaddr", piece(5));
  sh.on("/bin/ip -6 route show dev eth0", piece(4));
  sh.on("ip route show", piece(1));
  sh.on("ifconfig", piece(0));
  c.cam.write("/etc/resolv.conf", piece(2));
  if (p.size() > 6) c.cam.write("/data/net.conf", piece(6));

  get_net_info();
  net_info_t v4;
  copy_net_info(&v4);
  terminated(v4.ipaddr, "ipaddr");
  terminated(v4.netmask, "netmask");
  terminated(v4.gateway, "gateway");
  terminated(v4.fdns, "fdns");
  terminated(v4.macaddr, "macaddr");
  get_net_ipv6_info();
  net_info_ipv6_t v6;
  copy_net_info_ipv6(&v6);
  terminated(v6.ip, "ipv6 address");
  terminated(v6.prefix, "ipv6 prefix");
  terminated(v6.gateway, "ipv6 gateway");
  terminated(v6.mac, "ipv6 mac");
  return 0;
}
