// The partner protocol's touches of the network stack beyond plain UDP: the
// camera's own address, the raw-socket sender of the multicast replies and
// the exchange with the camera's tracking service. The real backend is used
// on the camera; unit tests install a fake.
#pragma once

#include <cstddef>
#include <cstdint>

// The camera's tracking service.
inline constexpr const char* kTrackingServiceAddr = "127.0.0.1";
inline constexpr int kTrackingServicePort = 14791;

class MiraNet {
 public:
  virtual ~MiraNet() = default;

  // IPv4 address of `ifname` as dotted text (the interface-address ioctl);
  // -1 with out empty when the interface has none.
  virtual int local_address(const char* ifname, char* out, size_t size);
  // One UDP datagram with a hand-made IP header (ip_udp_send).
  virtual int raw_send(const char* src_addr, int src_port, const char* dst_addr, int dst_port,
                       const void* payload, size_t len);
  // Sends `req` to the tracking service from a fresh unbound UDP socket,
  // pauses `pause_us`, then waits for one answer without a time limit.
  // Returns the answer's length (at most `max`) or -1.
  virtual int tracking_exchange(const void* req, size_t len, uint64_t pause_us, void* answer,
                                size_t max);
};

// The backend in use (the real one unless a test installed another).
MiraNet& mira_net();
// Installs `n` (nullptr restores the real backend); returns the previous one.
MiraNet* set_mira_net(MiraNet* n);
