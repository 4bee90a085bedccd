// What the busybox tools and the resolver file print, as the network record
// reads it: ifconfig, the route listing, resolv.conf and the IPv6 listings,
// each from one piece of the input. Every field stays within its width.
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCamera& c = reset_camera();
  const std::vector<std::string_view> p = split_pieces(data, size);
  FakePlatform& sh = c.cam.platform();
  // Most specific first: the first matching rule answers.
  sh.on("ifconfig eth0 | grep Scope:Global", piece(p, 3));
  sh.on("ifconfig eth0 | grep HWaddr", piece(p, 5));
  sh.on("/bin/ip -6 route show dev eth0", piece(p, 4));
  sh.on("ip route show", piece(p, 1));
  sh.on("ifconfig", piece(p, 0));
  c.cam.write("/etc/resolv.conf", piece(p, 2));
  if (p.size() > 6) c.cam.write("/data/net.conf", piece(p, 6));

  get_net_info();
  net_info_t v4;
  copy_net_info(&v4);
  fuzz_require(terminated(v4.ipaddr) && terminated(v4.netmask) && terminated(v4.gateway) &&
                   terminated(v4.fdns) && terminated(v4.macaddr),
               "network record field");
  get_net_ipv6_info();
  net_info_ipv6_t v6;
  copy_net_info_ipv6(&v6);
  fuzz_require(terminated(v6.ip) && terminated(v6.prefix) && terminated(v6.gateway) &&
                   terminated(v6.mac),
               "IPv6 record field");
  return 0;
}
