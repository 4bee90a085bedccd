// A camera for the partner tests: identity, network listing, version files,
// the fake raw sender and tracking service, and a local control service that
// records the reboot notice.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "discovery/disc_test_util.h"
#include "fakes/fake_mira_net.h"
#include "partner/search_mira.h"
#include "wire/partner.h"

namespace wp = wire::partner;

struct PartnerCamera : CameraFixtureBase, ::testing::Test {
  FakeMiraNet net;
  int control = -1;
  PartnerCamera() {
    sockaddr_in a;
    control = bound_udp(&a);
    set_local_control_port(ntohs(a.sin_port));
    cam.write("/customer/version_file", "V2.5.1\n");
    cam.write("/customer/device_model_file", "K1.T\n");
    net_info_t ni{};
    strcpy(ni.macaddr, "02:00:00:00:00:01");
    set_net_info(ni);
  }
  ~PartnerCamera() override {
    set_local_control_port(kLocalControlPort);
    close(control);
  }
  // The device model text the type code is read from.
  void model(const std::string& text) { cam.platform().on("cat /home/device_model_file", text); }
};

template <size_t N>
std::vector<uint8_t> vec(const std::array<uint8_t, N>& a) {
  return std::vector<uint8_t>(a.begin(), a.end());
}
