// A MiraNet that touches no network: it records the raw datagrams and the
// tracking-service requests and answers them from a script.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "partner/mira_net.h"

class FakeMiraNet : public MiraNet {
 public:
  struct Sent {
    std::string src;
    int src_port;
    std::string dst;
    int dst_port;
    std::vector<uint8_t> payload;
  };
  struct Exchange {
    std::vector<uint8_t> request;
    uint64_t pause_us;
  };

  // Installed for the object's lifetime.
  FakeMiraNet();
  ~FakeMiraNet() override;
  FakeMiraNet(const FakeMiraNet&) = delete;
  FakeMiraNet& operator=(const FakeMiraNet&) = delete;

  int local_address(const char* ifname, char* out, size_t size) override;
  int raw_send(const char* src_addr, int src_port, const char* dst_addr, int dst_port,
               const void* payload, size_t len) override;
  int tracking_exchange(const void* req, size_t len, uint64_t pause_us, void* answer,
                        size_t max) override;

  // eth0's address ("" for none).
  std::string address = "192.168.77.2";
  // The next exchange's answer; nothing makes it fail (-1). With no answer
  // queued the exchange fails.
  void answer(std::optional<std::vector<uint8_t>> bytes) { answers_.push_back(std::move(bytes)); }

  std::vector<Sent> sent;
  std::vector<Exchange> exchanges;

 private:
  std::deque<std::optional<std::vector<uint8_t>>> answers_;
  MiraNet* previous_ = nullptr;
};
