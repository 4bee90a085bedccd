// Shared pieces of the discovery tests: a camera with a busybox network
// listing on the fake LAN, and endpoints on the camera's loopback whose
// replies a test can read back. The socket helpers work on whatever network
// is installed (the fake LAN, or the real one for the raw-socket test).
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "core/daemon_state.h"
#include "core/network.h"
#include "core/local_control.h"
#include "core/text.h"
#include "discovery/dhcp_status.h"
#include "discovery/identity.h"
#include "discovery/mcast.h"
#include "discovery/command_auth.h"
#include "discovery/mcast_upgrade.h"
#include "fakes/fake_lan.h"
#include "fakes/fake_platform.h"

inline const std::string kDevId = "0123456789abcdef0123456789abcdef";
inline const std::string kCliId = "fedcba9876543210fedcba9876543210";

// busybox ifconfig: eth0 first, then lo.
inline const std::string kIfconfig =
    "eth0      Link encap:Ethernet  HWaddr 02:00:00:00:00:01  \n"
    "          inet addr:192.168.77.2  Bcast:192.168.77.255  Mask:255.255.255.0\n"
    "          UP BROADCAST RUNNING MULTICAST  MTU:1500  Metric:1\n"
    "          RX packets:12 errors:0 dropped:0 overruns:0 frame:0\n"
    "lo        Link encap:Local Loopback  \n"
    "          inet addr:127.0.0.1  Mask:255.0.0.0\n";

inline sockaddr_in loopback_addr(uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(port);
  return a;
}

// A UDP socket of the camera's host bound to 127.0.0.1 (port picked).
inline int bound_udp(sockaddr_in* out) {
  int fd = net().socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in a = loopback_addr(0);
  net().bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a));
  if (FakeLan* lan = FakeLan::installed()) {
    a = lan->address_of(fd);
  } else {
    socklen_t len = sizeof(a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
  }
  if (out != nullptr) *out = a;
  return fd;
}

inline void close_socket(int fd) { net().close(fd); }

inline void send_text(int fd, const sockaddr_in& to, const std::string& data) {
  net().sendto(fd, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to),
               sizeof(to));
}

// The last n events the fake platform recorded (a reboot's tail, say).
inline std::vector<std::string> last_events(FakeCamera& cam, size_t n) {
  auto ev = cam.platform().events();
  return std::vector<std::string>(ev.end() - static_cast<std::ptrdiff_t>(std::min(n, ev.size())),
                                  ev.end());
}

// Next datagram on fd within timeout_ms, or nothing.
inline std::optional<std::string> recv_text(int fd, int timeout_ms = 300) {
  pollfd p{fd, POLLIN, 0};
  if (net().poll(&p, 1, timeout_ms) <= 0) return std::nullopt;
  char buf[8192];
  ssize_t n = net().recvfrom(fd, buf, sizeof(buf), 0, nullptr, nullptr);
  if (n < 0) return std::nullopt;
  return std::string(buf, static_cast<size_t>(n));
}

// An endpoint record linked to the storage start-up gives it: its sockets
// and addresses.
struct EndpointStorage {
  std::atomic<int> sock{-1};
  std::atomic<int> sock6{-1};
  sockaddr_in bind{}, group{};
  sockaddr_in6 bind6{}, group6{};
  mcast_endpoint ep;
  int tool = -1;

  EndpointStorage() {
    ep.sock = &sock;
    ep.bind_addr = &bind;
    ep.group_addr = &group;
    ep.sock6 = &sock6;
    ep.bind_addr6 = &bind6;
    ep.group_addr6 = &group6;
  }
  EndpointStorage(const EndpointStorage&) = delete;
  EndpointStorage& operator=(const EndpointStorage&) = delete;
};

// An endpoint whose socket ("the camera") is bound on 127.0.0.1 and whose
// group address is the tool socket, so replies land on `tool`.
struct LoopEndpoint : EndpointStorage {
  sockaddr_in cam_addr{}, tool_addr{};

  LoopEndpoint() {
    sock = bound_udp(&cam_addr);
    tool = bound_udp(&tool_addr);
    group = tool_addr;
    ep.port = ntohs(cam_addr.sin_port);
    strcpy(ep.group, "127.0.0.1");
  }
  ~LoopEndpoint() {
    if (sock.load() >= 0) close_socket(sock.load());
    close_socket(tool);
  }
  // The tool sends a command to the camera socket.
  void send_to_camera(const std::string& data) const { send_text(tool, cam_addr, data); }
  std::optional<std::string> reply(int timeout_ms = 300) const {
    return recv_text(tool, timeout_ms);
  }
};

// An endpoint record as start-up fills it (its group and port, its socket
// not yet open), and a tool on the fake LAN that listens on the group (it
// does not hear its own datagrams) and sends to it.
struct GroupEndpoint : EndpointStorage {
  explicit GroupEndpoint(const wire::group_port& gp) {
    ep.port = gp.port;
    copy_text(ep.group, sizeof(ep.group), gp.group, strlen(gp.group));
    FakeLan& lan = *FakeLan::installed();
    tool = lan.udp(FakeLan::kTool, "0.0.0.0", gp.port);
    lan.join(tool, gp.group);
    int off = 0;
    lan.setsockopt(tool, IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof(off));
  }
  ~GroupEndpoint() {
    if (sock.load() > 0) close_socket(sock.load());
    close_socket(tool);
  }
  // The tool multicasts to the group.
  void send_to_camera(const std::string& data) const {
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = inet_addr(ep.group);
    to.sin_port = htons(static_cast<uint16_t>(ep.port));
    send_text(tool, to, data);
  }
  std::optional<std::string> reply(int timeout_ms = 300) const {
    return recv_text(tool, timeout_ms);
  }
};

// The daemon's records as at start-up, with this camera's identity; the
// multicast transfer and the command challenge forgotten.
inline void reset_camera_state() {
  reset_mcast_upgrade();  // first: it waits for a transfer's thread to end
  reset_daemon_state();
  fill_protocol_keywords();
  set_device_id(kDevId.c_str());
  reset_command_auth();
}

// The camera's local control service: a socket on its loopback port 1259.
inline int local_control_service(FakeLan& lan) {
  return lan.udp(FakeLan::kCamera, "127.0.0.1", kLocalControlPort);
}

// A camera with an identity, a network listing and the keyword table, on
// the fake LAN.
struct CameraFixtureBase {
  FakeLan lan;
  FakeCamera cam;
  CameraFixtureBase() {
    reset_camera_state();
    cam.write("/data/net.conf", "dhcp=0\nipaddr=192.168.77.2\nmacaddr=02:00:00:00:00:01\n");
    cam.write("/etc/resolv.conf", "nameserver 8.8.8.8\n");
    // More specific commands first: the first matching rule answers.
    cam.platform().on("ifconfig eth0 | grep Scope:Global",
                      "          inet6 addr: 2001:db8:1:2::5/64 Scope:Global\n");
    cam.platform().on("ifconfig eth0 | grep HWaddr",
                      "eth0      Link encap:Ethernet  HWaddr 02:00:00:00:00:01  \n");
    cam.platform().on("/bin/ip -6 route show dev eth0",
                      "2001:db8:1:2::/64 proto kernel metric 256 pref medium\n");
    cam.platform().on("ip route show", "192.168.77.1\n");
    cam.platform().on("ifconfig", kIfconfig);
  }
};
