// The LAN side of camtool: which interface it talks on, and the endpoints
// every command is written against through `transport`, so that tests can
// put a fake LAN there.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "camtool/common.h"

namespace camtool {

// The text protocol's three groups (wire/text.h); the partner protocol's two
// reply groups, whose requests go to its request group (wire/partner.h); and
// `direct`, a socket on the interface's address for datagrams to one address
// or the broadcast address, answered straight to it.
enum class channel { search, batch, status, partner, partner_alt, direct };
const char* channel_group(channel ch);  // the group it joins; "" for direct
int channel_port(channel ch);

struct datagram {
  channel ch;
  std::string src;  // sender's IPv4 address
  std::string data;
};

class transport {
 public:
  virtual ~transport() = default;
  // One datagram to the channel's group and port (for the partner
  // channels: the partner's request group).
  virtual void send(channel ch, std::string_view data) = 0;
  // One datagram from the channel's socket to ip:port (unicast or broadcast).
  virtual void send_to(channel ch, const std::string& ip, int port, std::string_view data) = 0;
  // The next datagram heard on any joined channel, or nothing once
  // `deadline` has passed (or the run was interrupted).
  virtual std::optional<datagram> receive(time_point deadline) = 0;
  virtual time_point now() = 0;
};

struct iface_info {
  std::string name, ipv4;  // ipv4 empty: none
  bool up = false, loopback = false;
};
struct iface_choice {
  std::string name, ipv4;
};

// `requested` when given, else the default route's interface, else the
// only interface that is up, not loopback and has an IPv4 address. Throws
// tool_error naming the interfaces when none fits.
iface_choice choose_interface(const std::vector<iface_info>& all, const std::string& requested,
                              const std::string& default_route);
std::vector<iface_info> list_interfaces();
std::string default_route_interface();  // from /proc/net/route; empty: none

// Sockets joined to each channel's group on the interface; throws tool_error
// when a socket cannot be bound or a group cannot be joined.
std::unique_ptr<transport> open_lan(const iface_choice& iface, const std::vector<channel>& channels);

// Opens the LAN on first use, so that input is checked before the
// interface is chosen and nothing is joined for a refused command.
class lazy_lan {
 public:
  using opener = std::function<std::unique_ptr<transport>()>;
  explicit lazy_lan(opener open) : open_(std::move(open)) {}
  transport& operator()() {
    if (!net_) net_ = open_();
    return *net_;
  }

 private:
  opener open_;
  std::unique_ptr<transport> net_;
};

}  // namespace camtool
