#include "harness.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/local_control.h"
#include "core/network.h"
#include "discovery/identity.h"
#include "discovery/broadcast.h"
#include "partner/search_mira.h"

FuzzCamera::FuzzCamera() {
  control = local_control_service(lan);
  set_network_log_open(0);
}

FuzzCamera::~FuzzCamera() {
  close_socket(control);
}

FuzzCamera& fuzz_camera() {
  static FuzzCamera camera;  // its temporary root goes at the process's end
  return camera;
}

namespace {

// A camera file written in place (its folder exists): cheaper than
// FakeCamera::write at every input.
void put_file(const std::string& path, const char* text) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return;
  const size_t len = strlen(text);
  if (write(fd, text, len) != static_cast<ssize_t>(len)) fuzz_require(false, "camera file write");
  close(fd);
}

void drain(int fd) {
  char buf[8192];
  while (net().recvfrom(fd, buf, sizeof(buf), MSG_DONTWAIT, nullptr, nullptr) > 0) {
  }
}

}  // namespace

FuzzCamera& reset_camera() {
  FuzzCamera& c = fuzz_camera();
  reset_camera_state();
  daemon_state.work_mode = WORK_NORMAL;
  set_upgrade_client_id("");
  put_file(c.cam.path("/data/net.conf"), "dhcp=0\nipaddr=192.168.77.2\nmacaddr=02:00:00:00:00:01\n");
  put_file(c.cam.path("/etc/resolv.conf"), "nameserver 8.8.8.8\n");
  put_file(c.cam.path("/customer/version_file"), "V2.5.1\n");
  put_file(c.cam.path("/customer/device_model_file"), "K1.T\n");
  c.cam.platform().clear();
  c.lan.clear_capture();
  drain(c.ep.tool);
  drain(c.control);
  return c;
}

std::vector<std::string_view> split_pieces(const uint8_t* data, size_t size) {
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  std::vector<std::string_view> out;
  for (;;) {
    size_t at = rest.find(kPieceSeparator);
    out.push_back(rest.substr(0, at));
    if (at == std::string_view::npos) break;
    rest.remove_prefix(at + kPieceSeparator.size());
  }
  return out;
}

void fuzz_require(bool ok, const char* what) {
  if (ok) return;
  fprintf(stderr, "fuzz: %s\n", what);
  abort();
}
