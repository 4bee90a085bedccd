#include "wire/broadcast.h"

#include <cstdlib>

#include "wire/text.h"

namespace wire::broadcast {

std::string discovery_request() { return kDiscovery; }

std::string netconfig_request(const net_params& p) {
  std::string out = kNetconfig;
  out += "\n";
  out += kDeviceIdKey + p.device_id + "\n";
  out += "dhcp=" + std::to_string(p.dhcp) + "\n";
  out += "ipaddr=" + p.ipaddr + "\n";
  out += "netmask=" + p.netmask + "\n";
  out += "gateway=" + p.gateway + "\n";
  out += "fdns=" + p.fdns + "\n";
  out += "macaddr=" + p.macaddr + "\n";
  return out;
}

std::string production_request(std::string_view device_id, std::string_view action,
                               std::string_view extra) {
  std::string out = kProduction;
  out += kFieldSep;
  out += kDeviceIdKey;
  out += device_id;
  out += kFieldSep;
  out += action;
  if (!extra.empty()) {
    out += kFieldSep;
    out += extra;
  }
  return out;
}

std::string discovery_reply(const net_params& p) {
  std::string out = kNetworkParameter;
  out += "\r\nDevice ID:" + p.device_id;
  out += p.dhcp == 1 ? "\r\ndhcp=1" : "\r\ndhcp=0";
  out += "\r\nipaddr=" + p.ipaddr;
  out += "\r\nnetmask=" + p.netmask;
  out += "\r\ngateway=" + p.gateway;
  out += "\r\nfdns=" + p.fdns;
  out += "\r\nmacaddr=" + p.macaddr;
  return out;
}

std::optional<net_params> parse_discovery_reply(std::string_view text) {
  if (text.substr(0, std::string_view(kNetworkParameter).size()) != kNetworkParameter)
    return std::nullopt;
  net_params p;
  bool named = false;
  for (const auto& [key, value] : reply_fields(text)) {
    if (key == "Device ID") {
      p.device_id = value;
      named = true;
    } else if (key == "dhcp") {
      p.dhcp = atoi(value.c_str());
    } else if (key == "ipaddr") {
      p.ipaddr = value;
    } else if (key == "netmask") {
      p.netmask = value;
    } else if (key == "gateway") {
      p.gateway = value;
    } else if (key == "fdns") {
      p.fdns = value;
    } else if (key == "macaddr") {
      p.macaddr = value;
    }
  }
  if (!named) return std::nullopt;
  return p;
}

std::string netconfig_reply(std::string_view device_id) {
  std::string out = kSetupCompleted;
  out += "\r\nDevice ID:";
  out += device_id;
  return out;
}

}  // namespace wire::broadcast
