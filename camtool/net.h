// The LAN side of camtool: which interface it talks on, and the multicast
// endpoints (search, batch and status groups) every command is written
// against through `transport`, so that tests can put a fake LAN there.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "camtool/common.h"

namespace camtool {

// The three groups camtool joins (wire/text.h gives their addresses).
enum class channel { search, batch, status };
const char* channel_group(channel ch);
int channel_port(channel ch);

struct datagram {
  channel ch;
  std::string src;  // sender's IPv4 address
  std::string data;
};

class transport {
 public:
  virtual ~transport() = default;
  // One datagram to the channel's group and port.
  virtual void send(channel ch, std::string_view data) = 0;
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
