// The broadcast commissioning protocol as both ends see it: UDP port 12811,
// reached by broadcast or unicast, answered straight to the sender. Commands
// and fields are found by substring anywhere in a datagram.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace wire::broadcast {

inline constexpr int kPort = 12811;
// The camera reads at most this much of a datagram.
inline constexpr size_t kDatagramMax = 512;

// Command words, tested in this order; the first one found wins.
inline constexpr const char* kDiscovery = "Discovery camera";
inline constexpr const char* kNetconfig = "Camera netconfig";
inline constexpr const char* kProduction = "Production mode";

// Reply words.
inline constexpr const char* kNetworkParameter = "Network parameter";
inline constexpr const char* kSetupCompleted = "Network setup completed";

// Production-mode actions, tested in this order. The doubled prefix of the
// factory reset is the word as tools send it.
inline constexpr const char* kActionTestEnable = "action=test enable";
inline constexpr const char* kActionCentralCross = "action=central cross";
inline constexpr const char* kActionUpdateModel = "action=update model";
inline constexpr const char* kPlainActions[] = {
    "action=lens calibration", "action=zoom test",     "action=focus test",
    "action=ptz test",         "action=complete test", "action=update number",
    "action=action=restore factory setting",
};
inline constexpr const char* kEnableOn = "enable=on";
inline constexpr const char* kEnableOff = "enable=off";
inline constexpr const char* kModelKey = "model=";

// The network parameters a discovery reply carries and a netconfig sets.
struct net_params {
  std::string device_id;
  int dhcp = 0;
  std::string ipaddr, netmask, gateway, fdns, macaddr;
};

std::string discovery_request();
// "Camera netconfig", the device ID and the settings as "key=value" lines
// ending in "\n": the camera stores everything after the ID's line as
// "/data/net.conf", so every key is sent, the MAC included.
std::string netconfig_request(const net_params& p);
// "Production mode", the device ID, the action and any further fields
// ("enable=on", "model=...") each on its own "\r\n" line.
std::string production_request(std::string_view device_id, std::string_view action,
                               std::string_view extra = {});

// "Network parameter" with "\r\n"-separated "Device ID:" and key=value fields.
std::string discovery_reply(const net_params& p);
// Nothing unless the text starts with the reply word and names a device.
std::optional<net_params> parse_discovery_reply(std::string_view text);
std::string netconfig_reply(std::string_view device_id);

}  // namespace wire::broadcast
