// DHCP watcher (re-creates the listeners' sockets once DHCP gave eth0 its
// address) and the post-upgrade status report, which waits for that address.
#include "discovery/dhcp_status.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/network.h"
#include "core/platform.h"
#include "discovery/commands.h"
#include "discovery/identity.h"

namespace {

constexpr const char* kDhcpOkPath = "/dev/dhcp_ok";
constexpr const char* kFinishFlagPath = "/customer/upgrade_finish_flag";
constexpr const char* kArmVersionPath = "/customer/arm_version_file";

// The two threads' work runs in helpers; their lines carry the thread
// function's name.
constexpr const char* kWatcherName = "check_dhcp_status_main";
constexpr const char* kReporterName = "mcast_upgradeStatus_func";

bool camera_file_exists(const char* path) { return access(cam_path(path).c_str(), F_OK) == 0; }

}  // namespace

void check_dhcp_status() {
  const char* cmd = "cat /data/net.conf | grep dhcp";
  char out[129] = {};
  int n = sys().shell_read(cmd, out, 128);
  if (n < 0) {
    DBG_ERR_AS(kWatcherName, "fopen %s failed\n", cmd);
    // Nobody will know better: whatever eth0 has is taken as its address.
    mark_ipv4_address_ready();
    sys().end_thread();
  }
  if (n == 0) DBG_ERR_AS(kWatcherName, "fread %s failed\n", cmd);
  // Any '0' in the dhcp line counts as a static address.
  if (memchr(out, '0', static_cast<size_t>(n > 0 ? n : 0)) != nullptr) {
    DBG_INFO_AS(kWatcherName, "dchp is off, return\n");
    mark_ipv4_address_ready();
    return;
  }
  while (!camera_file_exists(kDhcpOkPath)) sys().sleep_us(2000000);

  DBG_INFO_AS(kWatcherName, "dhcp get ip success, reset mcast service\n");
  mcast_endpoint* search = &daemon_state.endpoints[0];
  mcast_endpoint* batch = &daemon_state.endpoints[1];
  mcast_search_switch().store(0);
  mcast_batch_switch().store(0);
  mcast_drop_endpoint(search);
  mcast_drop_endpoint(batch);
  // Lets a listener inside its short wait see the cleared switch.
  sys().sleep_us(1000000);
  // A listener that opened its socket meanwhile has it replaced.
  mcast_reopen_endpoint(search);
  mcast_reopen_endpoint(batch);
  for (mcast_endpoint* ep : {search, batch}) {
    int fd = ep->sock->load();
    if (fd >= 0) set_nonblocking(fd, 1);
  }
  mcast_search_switch().store(1);
  mcast_batch_switch().store(1);
  mark_ipv4_address_ready();
  DBG_INFO_AS(kWatcherName, "leave\n");
}

void* check_dhcp_status_main(void*) {
  check_dhcp_status();
  return nullptr;
}

int mcast_receive_status(mcast_endpoint*, const char* buf, size_t len) {
  if (keyword_code_of(buf, len) != KW_STATUS) return -1;
  std::string copy = len > 0 ? std::string(buf, len) : std::string();
  const char* msg = copy.c_str();
  DBG_INFO("receive upgrade status msg\n");
  if (check_uuid(msg) != 0) {
    DBG_ERR("uuid check failed\n");
    return -1;
  }
  DBG_INFO("uuid check succeed\n");
  return strstr(msg, "Status=2") != nullptr ? 0 : -1;
}

int mcast_status_listen_once(mcast_endpoint* ep) {
  int fd = ep->sock->load();
  struct pollfd pfd = {fd, POLLIN, 0};
  int ready = net().poll(&pfd, 1, 50);
  if (ready == 0) return 0;
  char buf[kSearchDatagram];
  ssize_t n = -1;
  if (ready > 0 && (pfd.revents & POLLIN) != 0)
    n = net().recvfrom(fd, buf, sizeof(buf), MSG_DONTWAIT, nullptr, nullptr);
  if (n < 0) {
    sys().sleep_us(50000);
    return 0;
  }
  int done = mcast_receive_status(ep, buf, static_cast<size_t>(n)) == 0;
  if (!done) sys().sleep_us(300000);
  return done;
}

void mcast_upgrade_status_report(mcast_endpoint* ep) {
  if (camera_file_exists(kFinishFlagPath)) {
    DBG_INFO_AS(kReporterName, "found %s\n", kFinishFlagPath);
    return;
  }
  DBG_INFO_AS(kReporterName, "not found %s\n", kFinishFlagPath);
  if (!camera_file_exists(kArmVersionPath)) {
    DBG_INFO_AS(kReporterName, "not found %s\n", kArmVersionPath);
    return;
  }
  DBG_INFO_AS(kReporterName, "found %s\n", kArmVersionPath);
  // A DHCP camera has no address at boot: the report, sent once, would be
  // lost and the camera would wait for ever.
  wait_for_ipv4_address();
  mcast_open_endpoint(ep);

  char dev[kIdLen + 1], ver[32], model[32];
  get_device_id(dev);
  get_net_info();
  net_info_t ni;
  copy_net_info(&ni);
  refresh_version(ver, model);
  std::string report = std::string("STATUS * \r\nDevice ID:") + dev + "\r\nMAC=" + ni.macaddr;
  if (ver[0] != '\0') report += std::string("\r\nVERSION:") + ver;
  if (model[0] != '\0') report += std::string("\r\nDEVICE_MODEL:") + model;
  report += "\r\nStatus=1";
  mcast_send_data(ep, report.c_str());

  // Sent once; then wait, without a limit, for the tool's confirmation.
  while (mcast_status_listen_once(ep) == 0) {
  }
  DBG_INFO_AS(kReporterName, "Report status finish!\n");
  sys().shell("touch /customer/upgrade_finish_flag");
  leave_mcast_group(ep->sock, ep->group);
}

void* mcast_upgradeStatus_func(void* arg) {
  mcast_upgrade_status_report(static_cast<mcast_endpoint*>(arg));
  return nullptr;
}
