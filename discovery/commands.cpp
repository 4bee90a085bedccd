// The text commands: dispatch on the nine-character keyword and one handler
// per command. Every handler works on a NUL-terminated copy of the datagram,
// so no search runs past the bytes received.
#include "discovery/commands.h"


#include <sys/reboot.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/helpers.h"
#include "core/local_control.h"
#include "core/platform.h"
#include "core/text.h"
#include "discovery/command_auth.h"
#include "discovery/identity.h"
#include "discovery/mcast_upgrade.h"
#include "discovery/oem_serial.h"
#include "install/udisk_upgrade.h"
#include "mcu/stm32flashloader.h"
#include "video_out/sdi_probe.h"
#include "video_out/sii9022.h"

namespace {

constexpr size_t kReplyLen = 2048;

// Appends printf-style text to a reply buffer, truncating at its end.
void reply_add(char* reply, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void reply_add(char* reply, const char* fmt, ...) {
  size_t used = strnlen(reply, kReplyLen);
  if (used + 1 >= kReplyLen) return;
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(reply + used, kReplyLen - used, fmt, ap);
  va_end(ap);
}

int addressed(const char* msg) {
  if (check_uuid(msg) != 0) {
    DBG_ERR("uuid check failed\n");
    return 0;
  }
  DBG_INFO("uuid check succeed\n");
  return 1;
}

// "SUCCEED *" with the two IDs.
void send_succeed(mcast_endpoint* ep) {
  char client[kIdLen + 1], dev[kIdLen + 1];
  get_client_id(client);
  get_device_id(dev);
  char reply[kReplyLen] = {};
  reply_add(reply, "SUCCEED *\r\nClient ID:%s\r\nDevice ID:%s", client, dev);
  mcast_send_data(ep, reply);
}

// The reply has gone out: sync, give the tool 2 s, tell the control service
// and restart.
void reboot_after_reply(bool last_line) {
  sys().sync();
  sys().sleep_us(2000000);
  DBG_INFO("system reboot...\n");
  send_local_control(kRebootNotice, sizeof(kRebootNotice));
  sys().sleep_us(5000000);
  if (last_line) DBG_INFO("start reboot(RB_AUTOBOOT)\n");
  sys().reboot(RB_AUTOBOOT);
}

// The search reply; ipv6 leaves out the serial and uses the IPv6 record.
void build_search_reply(char* reply, const char* msg, size_t len, bool ipv6) {
  char requester[35] = {};
  if (len > 28) copy_text(requester, sizeof(requester), msg + 28, kIdLen);
  char ver[32], model[32], dev[kIdLen + 1];
  refresh_version(ver, model);
  get_device_id(dev);
  reply_add(reply, "REPLY OK ");
  if (ver[0] != '\0') reply_add(reply, "\r\nVERSION:%s", ver);
  if (model[0] != '\0') reply_add(reply, "\r\nDEVICE_MODEL:%s", model);
  reply_add(reply, "\r\nClient ID:%s\r\nDevice ID:%s\r\nUptime=%ld", requester, dev,
            get_sys_uptime());
  if (ipv6) {
    net_info_ipv6_t v6;
    copy_net_info_ipv6(&v6);
    reply_add(reply, "\r\nDHCP=%d", v6.dhcp == 1 ? 1 : 0);
    reply_add(reply, "\r\nIP=%s\r\nMASK=%s\r\nGATEWAY=%s\r\nMAC=%s\r\nFDNS=%s", v6.ip, v6.prefix,
              v6.gateway, v6.mac, v6.fdns);
    return;
  }
  net_info_t ni;
  copy_net_info(&ni);
  reply_add(reply, "\r\nDHCP=%d", ni.dhcp == 1 ? 1 : 0);
  char serial[kOemSerialLen] = {};
  oem_serial_read(serial, sizeof(serial));
  reply_add(reply, "\r\nLUM_Serial_No=%s", serial);
  reply_add(reply, "\r\nIP=%s\r\nMASK=%s\r\nGATEWAY=%s\r\nMAC=%s\r\nFDNS=%s", ni.ipaddr, ni.netmask,
            ni.gateway, ni.macaddr, ni.fdns);
  const std::string challenge = current_challenge();
  if (!challenge.empty()) reply_add(reply, "\r\nCHALLENGE=%s", challenge.c_str());
}

void handle_search(mcast_endpoint* ep, const char* msg, size_t len) {
  DBG_INFO("receive search command\n");
  get_net_info();
  char reply[kReplyLen] = {};
  build_search_reply(reply, msg, len, false);
  mcast_send_data(ep, reply);
}

void handle_confignet(mcast_endpoint* ep, const char* msg) {
  DBG_INFO("receive confignet command\n");
  if (!addressed(msg)) return;
  read_net_info(msg);
  send_succeed(ep);
  reboot_after_reply(true);
}

void handle_camera_reboot(const char* msg) {
  DBG_INFO("receive reboot command\n");
  if (!addressed(msg)) return;
  DBG_ERR("system reboot...\n");
  send_local_control(kRebootNotice, sizeof(kRebootNotice));
  sys().sleep_us(5000000);
  DBG_INFO("start reboot(RB_AUTOBOOT)\n");
  sys().reboot(RB_AUTOBOOT);
}

void handle_lumconfig(mcast_endpoint* ep, const char* msg) {
  if (!addressed(msg)) return;
  update_serialNo_and_mac(msg);
  send_succeed(ep);
  reboot_after_reply(false);
}

void handle_led_flicker(const char* msg) {
  DBG_INFO("receive led status flicker command\n");
  if (!addressed(msg)) return;
  if (strstr(msg, "status=open") != nullptr) {
    DBG_INFO("status=open\n");
    send_local_control(kLedFlickerOn, sizeof(kLedFlickerOn));
  } else if (strstr(msg, "status=close") != nullptr) {
    DBG_INFO("status=close\n");
    send_local_control(kLedFlickerOff, sizeof(kLedFlickerOff));
  }
}

int board_type(const char* msg) {
  static const struct {
    const char* field;
    int type;
    const char* line;
  } kTypes[] = {
      {"TYPE=K1", 1, "type = CAM_TYPE_K1"},         {"TYPE=K2/K3", 2, "type = CAM_TYPE_K2_K3"},
      {"TYPE=K4", 3, "type = CAM_TYPE_K4"},         {"TYPE=K5", 4, "type = CAM_TYPE_K5"},
      {"TYPE=RQ500S", 7, "type = CAM_TYPE_RQ500S"}, {"TYPE=RQ500T", 6, "type = CAM_TYPE_RQ500T"},
      {"TYPE=RQ500", 5, "type = CAM_TYPE_RQ500"},   {"TYPE=R300I", 8, "type = CAM_TYPE_R300I"},
  };
  for (const auto& t : kTypes) {
    if (strstr(msg, t.field) != nullptr) {
      DBG_INFO("%s\n", t.line);
      return t.type;
    }
  }
  return 0;
}

void handle_board_test(mcast_endpoint* ep, const char* msg) {
  DBG_INFO("receive board test command\n");
  if (!addressed(msg)) return;
  if (daemon_state.pid_num > 0) kill_pid(daemon_state.pid_list[0], "2");
  sys().sleep_us(2000000);
  kill_pid("autofocus", "9");

  char client[kIdLen + 1], dev[kIdLen + 1], ver[32], model[32];
  get_client_id(client);
  get_device_id(dev);
  net_info_t ni;
  copy_net_info(&ni);  // as last read: the board test does not refresh it
  char reply[kReplyLen] = {};
  reply_add(reply, "BOARD_TEST\r\nClient ID:%s\r\nDevice ID:%s\r\nIP=%s\r\nMAC=%s", client, dev,
            ni.ipaddr, ni.macaddr);
  refresh_version(ver, model);
  reply_add(reply, "\r\n%s", ver);

  int type = board_type(msg);
  if (strstr(msg, "USB_Test=true") != nullptr)
    reply_add(reply, "\r\nUSB=%d", check_usb_disk_mount() == 0 ? 1 : 0);
  bool controller_board = type == 1 || type == 5 || type == 6 || type == 7 || type == 8;
  if (controller_board) {
    int arm = check_arm_status(type, "/dev/ttyS1");
    if (arm == 0) reply_add(reply, "\r\nARM=1");
    if (arm < 0) reply_add(reply, "\r\nARM=0");
  }
  if (controller_board && strstr(msg, "HDMI_Test=true") != nullptr) {
    int hdmi = check_9022_status(type);
    if (hdmi == 0) reply_add(reply, "\r\nHDMI=1");
    if (hdmi < 0) reply_add(reply, "\r\nHDMI=0");
  }
  bool sdi = strstr(msg, "SDI_Test=true") != nullptr;
  if (type == 4 && sdi) {
    int found = gv7600_check(1) == 1 || gv7700_check(1) == 1;
    reply_add(reply, "\r\nSDI=%d", found ? 1 : 0);
  }
  if (type == 8 && sdi) {
    sys().shell("himm 0x120400cc 0x0");
    sys().shell("himm 0x12146400 0x80");
    sys().shell("himm 0x12146200 0x80");
    reply_add(reply, "\r\nSDI=%d", gv7700_check(2) == 1 ? 1 : 0);
    sys().shell("himm 0x12146200 0x0");
  }
  reply_add(reply, "\r\nSTATUS=Test finish");
  mcast_send_data(ep, reply);
}

void handle_camera_query(mcast_endpoint* ep, const char* msg) {
  if (mcast_upgrade_in_progress()) return;
  if (check_uuid_bat(msg) != 0) {
    DBG_ERR("uuid check failed\n");
    return;
  }
  DBG_INFO("uuid check succeed\n");
  char client[kIdLen + 1], dev[kIdLen + 1], ver[32], model[32];
  refresh_version(ver, model);
  get_client_id(client);
  get_device_id(dev);
  DBG_ERR("cur_client_id_555:%s\n", client);
  char reply[kReplyLen] = {};
  reply_add(reply, "REPLYQ OK\r\nClient ID:%s\r\nDevice ID:%s\r\nVersion:%s\r\nMtdInfo:%s", client,
            dev, ver, daemon_state.mtd_summary);
  mcast_send_data(ep, reply);
}

void handle_production(mcast_endpoint* ep, const char* msg) {
  DBG_INFO("receive get production status\n");
  if (!addressed(msg)) return;
  int boot = read_boot_times();
  int curve = read_curve_times();
  char client[kIdLen + 1], dev[kIdLen + 1];
  get_client_id(client);
  get_device_id(dev);
  char reply[kReplyLen] = {};
  reply_add(reply, "%s\r\nClient ID:%s\r\nDevice ID:%s\r\nboot_times:%d\r\ncurve_times:%d",
            "PRODUCTIO", client, dev, boot, curve);
  mcast_send_data(ep, reply);
}

}  // namespace

void refresh_version(char* version, char* model) {
  const version_texts now = read_version();
  copy_text(version, 32, now.version, sizeof(now.version));
  copy_text(model, 32, now.model, sizeof(now.model));
}

int keyword_code_of(const char* buf, size_t len) {
  char word[10] = {};
  if (len > 0) memcpy(word, buf, len < 9 ? len : 9);
  for (int i = 0; i < kKeywordCount; ++i)
    if (strcmp(word, daemon_state.protocol_keywords[i]) == 0) return i;
  return KW_REPLY_OK;
}

void mcast_receive(mcast_endpoint* ep, const char* buf, size_t len) {
  if (std::string_view(buf, len).starts_with(kKeyCommand)) {
    handle_key_command(ep, buf, len);
    return;
  }
  int code = keyword_code_of(buf, len);
  if (code >= KW_EMPTY) return;
  // Transfer packets carry binary data: the upgrade reads the datagram
  // itself, without a copy per packet.
  if (code == KW_CAMERA_UP) {
    handle_camera_upgrade(ep, buf, len);
    return;
  }
  // A NUL-terminated copy: every search below stops at the datagram's end.
  std::string copy = len > 0 ? std::string(buf, len) : std::string();
  if (code == KW_CONFIGNET || code == KW_CAMERA_RE || code == KW_LUMCONFIG ||
      code == KW_CAMERA_FL || code == KW_BOARD_TES) {
    // A keyed camera runs a changing command only when a site key signed it.
    std::optional<size_t> body = admit_command(copy.c_str(), copy.size());
    if (!body) return;
    copy.resize(*body);
  }
  const char* msg = copy.c_str();
  switch (code) {
    case KW_SEARCH:
      handle_search(ep, msg, len);
      break;
    case KW_CONFIGNET:
      handle_confignet(ep, msg);
      break;
    case KW_CAMERA_RE:
      handle_camera_reboot(msg);
      break;
    case KW_LUMCONFIG:
      handle_lumconfig(ep, msg);
      break;
    case KW_CAMERA_FL:
      handle_led_flicker(msg);
      break;
    case KW_BOARD_TES:
      handle_board_test(ep, msg);
      break;
    case KW_CAMERA_QU:
      handle_camera_query(ep, msg);
      break;
    case KW_PRODUCTIO:
      handle_production(ep, msg);
      break;
    default:
      break;  // replies heard from other cameras
  }
}

void mcast_receive_ipv6(mcast_endpoint* ep, const char* buf, size_t len) {
  if (keyword_code_of(buf, len) != KW_SEARCH) return;
  std::string copy = len > 0 ? std::string(buf, len) : std::string();
  DBG_INFO("receive search command\n");
  get_net_ipv6_info();
  char reply[kReplyLen] = {};
  build_search_reply(reply, copy.c_str(), len, true);
  mcast_send_data_ipv6(ep, reply);
}
