#include "camtool/net.h"

#include "camtool/os.h"
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

// Where send() goes: the partner's requests to its request group.
std::string send_group(channel ch) {
  return ch == channel::partner || ch == channel::partner_alt ? wire::partner::kRequestGroup
                                                               : channel_group(ch);
}

// The LAN through the system's sockets (os.h): one socket per channel.
class lan_transport : public transport {
 public:
  lan_transport(const iface_choice& iface, const std::vector<channel>& channels) : iface_(iface) {
    try {
      for (channel ch : channels)
        endpoints_.push_back({ch, ch == channel::direct
                                      ? os::open_direct_socket(iface_)
                                      : os::open_group_socket(channel_group(ch), channel_port(ch), iface_)});
    } catch (...) {
      for (const endpoint& e : endpoints_) os::close_socket(e.s);
      throw;
    }
    for (const endpoint& e : endpoints_) handles_.push_back(e.s);
  }
  ~lan_transport() override {
    for (const endpoint& e : endpoints_) os::close_socket(e.s);
  }

  void send(channel ch, std::string_view data) override {
    if (ch == channel::direct) throw tool_error("internal: a direct datagram needs an address", kExitFailed);
    send_to(ch, send_group(ch), channel_port(ch), data);
  }

  void send_to(channel ch, const std::string& ip, int port, std::string_view data) override {
    os::send_datagram(find(ch).s, ip, port, data, iface_.name);
  }

  std::optional<datagram> receive(time_point deadline) override {
    for (;;) {
      // Read what is already queued before waiting, one channel after the other.
      for (size_t k = 0; k < endpoints_.size(); ++k) {
        size_t i = (next_ + k) % endpoints_.size();
        if (auto got = os::take_datagram(endpoints_[i].s)) {
          next_ = i + 1;
          return datagram{endpoints_[i].ch, std::move(got->src), std::move(got->data)};
        }
      }
      if (interrupted()) return std::nullopt;
      auto left = deadline - clock::now();
      if (left <= clock::duration::zero()) return std::nullopt;
      os::wait_readable(handles_, left);
    }
  }

  time_point now() override { return clock::now(); }

 private:
  struct endpoint {
    channel ch;
    os::socket_handle s;
  };

  const endpoint& find(channel ch) const {
    for (const endpoint& e : endpoints_)
      if (e.ch == ch) return e;
    throw tool_error("internal: channel not open", kExitFailed);
  }

  iface_choice iface_;
  std::vector<endpoint> endpoints_;
  std::vector<os::socket_handle> handles_;
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

// list_interfaces() and default_route_interface() ask the system: os_*.cpp.

std::unique_ptr<transport> open_lan(const iface_choice& iface, const std::vector<channel>& channels) {
  return std::make_unique<lan_transport>(iface, channels);
}

}  // namespace camtool
