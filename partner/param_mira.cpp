#include "partner/param_mira.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "core/dbgout.h"
#include "core/helpers.h"
#include "core/network.h"
#include "core/platform.h"
#include "discovery/identity.h"
#include "discovery/mcast.h"
#include "partner/search_mira.h"
#include "wire/partner.h"

namespace wp = wire::partner;

namespace {

constexpr uint64_t kGetPauseUs = 300000;

// Sends `req` to the tracking service from a fresh unbound UDP socket,
// pauses `pause_us`, then waits for one answer without a time limit.
// Returns the answer's length (at most `max`) or -1.
int tracking_exchange(const void* req, size_t len, uint64_t pause_us, void* answer, size_t max) {
  int fd = net().socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) return -1;
  struct sockaddr_in to;
  memset(&to, 0, sizeof(to));
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(kTrackingServicePort));
  to.sin_addr.s_addr = inet_addr(kTrackingServiceAddr);
  // A lost request shows as a missing answer.
  net().sendto(fd, req, len, 0, reinterpret_cast<struct sockaddr*>(&to), sizeof(to));
  if (pause_us > 0) sys().sleep_us(pause_us);
  ssize_t n = net().recvfrom(fd, answer, max, 0, nullptr, nullptr);
  net().close(fd);
  return static_cast<int>(n);
}

// Top of the service's scale, 0 for a type without one.
int raw_max(int type) {
  if (type == TRACK_HKW7) return 4;
  if (type == TRACK_DKW7) return 8;
  return 0;
}

// One exchange with the tracking service for `func`; `answer` is zeroed
// first, so bytes a short answer did not carry read as 0.
int exchange(const char* func, const void* msg, size_t len, uint64_t pause_us,
             uint8_t (&answer)[kTrackAnswerMax]) {
  memset(answer, 0, sizeof(answer));
  int n = tracking_exchange(msg, len, pause_us, answer, sizeof(answer));
  if (n < 0) {
    DBG_ERR_AS(func, "recvfrom failed\n");
    DBG_ERR_AS(func, "recv: %d\n", n);
  }
  DBG_INFO_AS(func, "nbytes: %d, 0x%x, 0x%x, 0x%x, : 0x%x, 0x%x, 0x%x, 0x%x\n", n, answer[0],
              answer[1], answer[2], answer[3], answer[4], answer[5], answer[6]);
  return n;
}

void short_frame(size_t length) {
  DBG_ERR_AS("param_receive_mira", "frame too short: %d bytes\n", static_cast<int>(length));
}

}  // namespace

int tracking_type_of(const char* type_code) {
  if (strcmp(type_code, kTypeCodeHkw7) == 0) return TRACK_HKW7;
  if (strcmp(type_code, kTypeCodeDkw7) == 0) return TRACK_DKW7;
  return TRACK_OTHER;
}

std::array<uint8_t, 7> track_set_message(uint8_t raw) { return {0xBB, 0xE1, 0x04, raw, 0, 0, 0}; }

int tracking_tool_to_raw(int type, int value) {
  int top = raw_max(type);
  if (top == 0) return value;
  value = std::clamp(value, 0, wp::kSensitivityMax);
  return static_cast<int>(value * static_cast<double>(top) / wp::kSensitivityMax + 0.5);
}

int tracking_raw_to_tool(int type, int raw) {
  int top = raw_max(type);
  if (top == 0) return raw;
  return static_cast<int>(raw * static_cast<double>(wp::kSensitivityMax) / top);
}

int get_tracking_sensitivity(int type) {
  uint8_t answer[kTrackAnswerMax];
  exchange(__func__, kTrackGetMessage, sizeof(kTrackGetMessage), kGetPauseUs, answer);
  int raw = answer[kTrackGetValueAt];
  if (raw_max(type) == 0) return raw;
  DBG_INFO("1. ret: %d\n", raw);
  int value = tracking_raw_to_tool(type, raw);
  DBG_INFO("2. ret: %d\n", value);
  return value;
}

int set_tracking_sensitivity(int type, int value) {
  int raw = value;
  if (raw_max(type) != 0) {
    value = std::clamp(value, 0, wp::kSensitivityMax);
    DBG_INFO("1. val: %d\n", value);
    raw = tracking_tool_to_raw(type, value);
    DBG_INFO("2. val: %d\n", raw);
  }
  auto msg = track_set_message(static_cast<uint8_t>(raw));
  uint8_t answer[kTrackAnswerMax];
  exchange(__func__, msg.data(), msg.size(), 0, answer);
  return answer[kTrackSetResultAt];
}

int init_param_mira(int* sock, struct sockaddr_in* addr) {
  DBG_INFO("enter\n");
  int fd = net().socket(AF_INET, SOCK_DGRAM, 0);
  *sock = fd;
  if (fd < 0) {
    DBG_INFO("failed create socket\n");
    return -1;
  }
  memset(addr, 0, sizeof(*addr));
  addr->sin_family = AF_INET;
  addr->sin_addr.s_addr = htonl(INADDR_ANY);
  addr->sin_port = htons(static_cast<uint16_t>(wp::kParamPort));
  if (net().bind(fd, reinterpret_cast<struct sockaddr*>(addr), sizeof(*addr)) < 0) {
    DBG_INFO("failed listen\n");
    return -1;
  }
  register_listener_socket(fd);
  DBG_ERR("leave\n");
  return 0;
}

void* param_mira_func(void*) {
  int sock = -1;
  struct sockaddr_in addr;
  init_param_mira(&sock, &addr);
  for (;;) param_mira_serve_once(sock);
}

int param_mira_serve_once(int sock) {
  return mira_serve_once(sock, "param_mira_func", param_receive_mira);
}

void param_receive_mira(int sock, const struct sockaddr_in& requester, const uint8_t* datagram,
                        size_t length) {
  auto h = wp::parse_header(datagram, length);
  if (!h) return short_frame(length);
  DBG_INFO("Group Code: 0x%x\n", h->group_code);
  DBG_INFO("Command ID: 0x%x\n", h->command);
  if (h->command != wp::CMD_CTRL_TRACK_SENSITIVITY) return;
  DBG_INFO("##### CMD_CTRL_TRACK_SENSITIVITY\n");
  get_device_type_info();
  auto req = wp::decode_track_request(datagram, length);
  if (!req) return short_frame(length);
  DBG_INFO("SerialNumber: %s\n", req->serial.c_str());
  char dev[kIdLen + 1];
  get_device_id(dev);
  if (req->serial != dev) {
    DBG_INFO("dev_uuid != SerialNumber\n");
    return;
  }
  DBG_INFO("dev_uuid == SerialNumber\n");

  uint32_t op = req->operation;
  DBG_INFO("Operation status: %d, 0x%x\n", static_cast<int>(op), op);
  char code[kTypeCodeLen];
  get_device_type_code(code);
  int type = tracking_type_of(code);
  if (op == wp::kTrackGet) {
    DBG_INFO("get track sensitivity\n");
  } else if (op == wp::kTrackSet) {
    if (length < wp::kTrackSetLen) return short_frame(length);
    DBG_INFO("set track sensitivity\n");
    DBG_INFO("Track sensitivity: %d\n", static_cast<int>(req->sensitivity));
    if (type != TRACK_OTHER) {
      int rc = set_tracking_sensitivity(type, req->sensitivity);
      if (rc == 1) DBG_INFO("set tracking sensitivity success\n");
      if (rc == 0) DBG_INFO("set tracking sensitivity failed\n");
    }
  }

  // A set is always followed by a fresh reading.
  wp::track_frame r;
  r.serial = dev;
  DBG_INFO("uuid: %s\n", dev);
  r.operation = op;
  r.sensitivity = get_tracking_sensitivity(type);
  DBG_INFO("get sensitivity: %d\n", static_cast<int>(r.sensitivity));
  auto frame = wp::encode_track_reply(r);
  ssize_t ret = net().sendto(sock, frame.data(), frame.size(), MSG_DONTWAIT,
                       reinterpret_cast<const struct sockaddr*>(&requester), sizeof(requester));
  DBG_INFO("ret: %d\n", static_cast<int>(ret));
}
