// A camera for the partner tests on the fake LAN: identity, network listing,
// version files, a tracking service that records each request and answers
// from a script, and a local control service that hears the reboot notice.
// The replies the raw sender multicasts are read from the LAN's capture.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "discovery/disc_test_util.h"
#include "partner/param_mira.h"
#include "partner/search_mira.h"
#include "wire/partner.h"

namespace wp = wire::partner;

struct PartnerCamera : CameraFixtureBase, ::testing::Test {
  using B = std::vector<uint8_t>;
  // A datagram the camera sent through its raw sender.
  struct Sent {
    std::string src;
    int src_port;
    std::string dst;
    int dst_port;
    B payload;
  };

  int control = -1;
  int tracking = -1;
  std::vector<B> requests;                 // what the tracking service heard
  std::deque<std::optional<B>> answers;    // its next answers; none: no answer
  PartnerCamera() {
    control = local_control_service(lan);
    tracking = lan.serve(kTrackingServicePort, [this](const std::string& req) {
      requests.emplace_back(req.begin(), req.end());
      std::optional<std::string> out;
      if (!answers.empty() && answers.front()) out.emplace(answers.front()->begin(), answers.front()->end());
      if (!answers.empty()) answers.pop_front();
      return out;
    });
    cam.write("/customer/version_file", "V2.5.1\n");
    cam.write("/customer/device_model_file", "K1.T\n");
    net_info_t ni{};
    strcpy(ni.macaddr, "02:00:00:00:00:01");
    set_net_info(ni);
  }
  ~PartnerCamera() override {
    close_socket(control);
    close_socket(tracking);
  }
  // The tracking service's next answer (nothing: it does not answer).
  void answer(std::optional<B> bytes) { answers.push_back(std::move(bytes)); }
  // The raw sender's datagrams so far, in order.
  std::vector<Sent> sent() const {
    std::vector<Sent> out;
    for (const FakeLan::Datagram& d : lan.captured())
      if (d.raw)
        out.push_back({d.from_ip(), d.from_port(), d.to_ip(), d.to_port(), B(d.data.begin(), d.data.end())});
    return out;
  }
  void clear_sent() { lan.clear_capture(); }
  // The device model text the type code is read from.
  void model(const std::string& text) { cam.platform().on("cat /home/device_model_file", text); }
};

template <size_t N>
std::vector<uint8_t> vec(const std::array<uint8_t, N>& a) {
  return std::vector<uint8_t>(a.begin(), a.end());
}
