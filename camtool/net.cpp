#include "camtool/net.h"

#include <arpa/inet.h>
#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "wire/partner.h"
#include "wire/text.h"

namespace camtool {

const char* channel_group(channel ch) {
  switch (ch) {
    case channel::search: return wire::kSearchEndpoint.group;
    case channel::batch: return wire::kBatchEndpoint.group;
    case channel::status: return wire::kStatusEndpoint.group;
    case channel::partner: return wire::partner::kReplyGroups[0];
    case channel::partner_alt: return wire::partner::kReplyGroups[1];
    case channel::direct: return "";
  }
  return "";
}

int channel_port(channel ch) {
  switch (ch) {
    case channel::search: return wire::kSearchEndpoint.port;
    case channel::batch: return wire::kBatchEndpoint.port;
    case channel::status: return wire::kStatusEndpoint.port;
    case channel::partner:
    case channel::partner_alt: return wire::partner::kPort;
    case channel::direct: return 0;
  }
  return 0;
}

namespace {

std::string describe(const std::vector<iface_info>& all) {
  std::string out;
  for (const iface_info& i : all) {
    if (!out.empty()) out += ", ";
    out += i.name + " (" + (i.ipv4.empty() ? "no IPv4" : i.ipv4) + (i.up ? "" : ", down") + ")";
  }
  return out.empty() ? "none" : out;
}

sockaddr_in address(const std::string& ip, int port) {
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, ip.c_str(), &a.sin_addr);
  return a;
}

sockaddr_in group_address(channel ch) { return address(channel_group(ch), channel_port(ch)); }

// Where send() goes: the partner's requests to its request group.
std::string send_group(channel ch) {
  return ch == channel::partner || ch == channel::partner_alt ? wire::partner::kRequestGroup
                                                               : channel_group(ch);
}

class lan_transport : public transport {
 public:
  lan_transport(const iface_choice& iface, const std::vector<channel>& channels) : iface_(iface) {
    for (channel ch : channels) open(ch);
  }
  ~lan_transport() override {
    for (const endpoint& e : endpoints_) close(e.fd);
  }

  void send(channel ch, std::string_view data) override {
    if (ch == channel::direct) throw tool_error("internal: a direct datagram needs an address", kExitFailed);
    send_to(ch, send_group(ch), channel_port(ch), data);
  }

  void send_to(channel ch, const std::string& ip, int port, std::string_view data) override {
    const endpoint& e = find(ch);
    sockaddr_in to = address(ip, port);
    // A fast stream can fill the socket's send queue: wait for room.
    for (int tries = 0;; ++tries) {
      ssize_t n = sendto(e.fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&to),
                         sizeof(to));
      if (n == static_cast<ssize_t>(data.size())) return;
      if (n < 0 && (errno == ENOBUFS || errno == EAGAIN || errno == EINTR) && tries < 1000) {
        pollfd p = {e.fd, POLLOUT, 0};
        poll(&p, 1, 1);
        continue;
      }
      throw tool_error("sending to " + ip + ":" + std::to_string(port) + " on " + iface_.name +
                           ": " + (n < 0 ? strerror(errno) : "short send"),
                       kExitFailed);
    }
  }

  std::optional<datagram> receive(time_point deadline) override {
    std::vector<pollfd> fds;
    for (const endpoint& e : endpoints_) fds.push_back({e.fd, POLLIN, 0});
    for (;;) {
      // Read what is already queued before waiting, one channel after the other.
      for (size_t k = 0; k < endpoints_.size(); ++k) {
        size_t i = (next_ + k) % endpoints_.size();
        char buf[65536];
        sockaddr_in from = {};
        socklen_t len = sizeof(from);
        ssize_t n = recvfrom(endpoints_[i].fd, buf, sizeof(buf), MSG_DONTWAIT,
                             reinterpret_cast<sockaddr*>(&from), &len);
        if (n >= 0) {
          next_ = i + 1;
          char ip[INET_ADDRSTRLEN] = {};
          inet_ntop(AF_INET, &from.sin_addr, ip, sizeof(ip));
          return datagram{endpoints_[i].ch, ip, std::string(buf, static_cast<size_t>(n))};
        }
      }
      if (interrupted()) return std::nullopt;
      auto left = deadline - clock::now();
      if (left <= clock::duration::zero()) return std::nullopt;
      auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
      timespec ts = {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
      int r = ppoll(fds.data(), fds.size(), &ts, nullptr);
      if (r == 0) return std::nullopt;
      if (r < 0 && errno != EINTR)
        throw tool_error(std::string("waiting for replies: ") + strerror(errno), kExitFailed);
    }
  }

  time_point now() override { return clock::now(); }

 private:
  struct endpoint {
    channel ch;
    int fd;
  };

  const endpoint& find(channel ch) const {
    for (const endpoint& e : endpoints_)
      if (e.ch == ch) return e;
    throw tool_error("internal: channel not open", kExitFailed);
  }

  [[noreturn]] void fail(int fd, const std::string& what) {
    std::string msg = what + ": " + strerror(errno);
    close(fd);
    throw tool_error(msg, kExitFailed);
  }

  void open(channel ch) {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) throw tool_error(std::string("socket: ") + strerror(errno), kExitFailed);
    if (ch == channel::direct) return open_direct(fd);
    std::string where = std::string(channel_group(ch)) + ":" + std::to_string(channel_port(ch));
    int one = 1, zero = 0, ttl = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in bind_to = group_address(ch);  // only this group's datagrams
    if (bind(fd, reinterpret_cast<sockaddr*>(&bind_to), sizeof(bind_to)) != 0)
      fail(fd, "cannot bind " + where);
    ip_mreq m = {};
    inet_pton(AF_INET, channel_group(ch), &m.imr_multiaddr);
    inet_pton(AF_INET, iface_.ipv4.c_str(), &m.imr_interface);
    if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof(m)) != 0)
      fail(fd, std::string("cannot join ") + channel_group(ch) + " on " + iface_.name + " (" +
                   iface_.ipv4 + ")");
    if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &m.imr_interface, sizeof(m.imr_interface)) != 0)
      fail(fd, "cannot send multicast on " + iface_.name);
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &zero, sizeof(zero));
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl));
    int rcvbuf = 1 << 20;  // bursts of replies from a whole site
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
    endpoints_.push_back({ch, fd});
  }

  // Bound to the interface's address: the replies come back to it, and the
  // kernel sends a datagram for 255.255.255.255 out of this interface.
  void open_direct(int fd) {
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof(one));
    sockaddr_in local = address(iface_.ipv4, 0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0)
      fail(fd, "cannot bind a socket to " + iface_.ipv4 + " on " + iface_.name);
    endpoints_.push_back({channel::direct, fd});
  }

  iface_choice iface_;
  std::vector<endpoint> endpoints_;
  size_t next_ = 0;
};

}  // namespace

iface_choice choose_interface(const std::vector<iface_info>& all, const std::string& requested,
                              const std::string& default_route) {
  auto usable = [](const iface_info& i) { return i.up && !i.ipv4.empty(); };
  if (!requested.empty()) {
    for (const iface_info& i : all) {
      if (i.name != requested) continue;
      if (i.ipv4.empty()) throw tool_error("interface " + i.name + " has no IPv4 address");
      if (!i.up) throw tool_error("interface " + i.name + " is down");
      return {i.name, i.ipv4};
    }
    throw tool_error("no interface named " + requested + "; interfaces: " + describe(all));
  }
  if (!default_route.empty()) {
    for (const iface_info& i : all)
      if (i.name == default_route && usable(i)) return {i.name, i.ipv4};
  }
  std::vector<const iface_info*> candidates;
  for (const iface_info& i : all)
    if (usable(i) && !i.loopback) candidates.push_back(&i);
  if (candidates.size() == 1) return {candidates[0]->name, candidates[0]->ipv4};
  throw tool_error(std::string(candidates.empty() ? "no interface with an IPv4 address"
                                                  : "more than one interface could be meant") +
                   (default_route.empty() ? " and no default route" : "") +
                   "; choose one with --iface (interfaces: " + describe(all) + ")");
}

std::vector<iface_info> list_interfaces() {
  std::vector<iface_info> out;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return out;
  for (ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
    iface_info* info = nullptr;
    for (iface_info& i : out)
      if (i.name == a->ifa_name) info = &i;
    if (info == nullptr) {
      out.push_back({a->ifa_name, "", (a->ifa_flags & IFF_UP) != 0,
                     (a->ifa_flags & IFF_LOOPBACK) != 0});
      info = &out.back();
    }
    if (a->ifa_addr != nullptr && a->ifa_addr->sa_family == AF_INET && info->ipv4.empty()) {
      char ip[INET_ADDRSTRLEN] = {};
      inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr, ip, sizeof(ip));
      info->ipv4 = ip;
    }
  }
  freeifaddrs(list);
  return out;
}

std::string default_route_interface() {
  std::ifstream in("/proc/net/route");
  std::string line;
  std::getline(in, line);  // header
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string name, dest, gateway, flags, refcnt, use, metric, mask;
    fields >> name >> dest >> gateway >> flags >> refcnt >> use >> metric >> mask;
    if (dest == "00000000" && mask == "00000000") return name;
  }
  return "";
}

std::unique_ptr<transport> open_lan(const iface_choice& iface, const std::vector<channel>& channels) {
  return std::make_unique<lan_transport>(iface, channels);
}

}  // namespace camtool
