// Device identity, network settings and small camera facts.
//
// The identity and network records are shared by the listener threads, the
// DHCP watcher and the handlers; they live behind accessors that copy under
// one lock, so a reader always sees a whole record.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>

#include "core/dbgout.h"
#include "wire/text.h"

inline constexpr size_t kIdLen = wire::kIdLen;  // device and client IDs: 32 hex characters

// IPv4 network settings of eth0 (each text NUL-terminated).
struct net_info_t {
  int32_t dhcp;  // 1 = DHCP, 0 = static
  char ipaddr[32];
  char netmask[32];
  char gateway[32];
  char fdns[32];
  char macaddr[32];
};

struct net_info_ipv6_t {
  int32_t dhcp;
  char ip[64];
  char prefix[64];  // with its slash, "/64"
  char gateway[64];
  char fdns[64];
  char mac[64];
};

// ---- shared records -------------------------------------------------------
// Copies into out (kIdLen + 1 bytes at least).
void get_device_id(char* out);
void set_device_id(const char* id);
void get_client_id(char* out);
// Takes at most kIdLen characters of id (fewer when a NUL comes first).
void set_client_id(const char* id);
// The tool that started the current multicast upgrade.
void get_upgrade_client_id(char* out);
void set_upgrade_client_id(const char* id);
// Set from an accepted multicast announcement to the next acknowledgement:
// a new announcement is answered '9' and the firmware query is ignored.
int mcast_upgrade_in_progress();
void set_mcast_upgrade_in_progress(int on);

void copy_net_info(net_info_t* out);
void set_net_info(const net_info_t& in);
void copy_net_info_ipv6(net_info_ipv6_t* out);

// ---- identity -------------------------------------------------------------
void gain_uuid();
void read_uuid();
// 0 when msg names this camera; the client ID is then taken into client_id.
int check_uuid(const char* msg);
int check_uuid_only_deviceid(const char* msg);
int check_uuid_bat(const char* msg);

// ---- network settings -------------------------------------------------------
int get_net_info();
int get_gateway(char* out);
int get_dns_server(char* out);
void read_net_info(const char* msg);
void read_net_info_only_deviceid(const char* msg);
int set_resolv_nameserver(const char* text);
int update_conf_2(const char* path, const char* key, const char* line);
void update_serialNo_and_mac(const char* msg);
int get_local_ip(const char* ifname, char* out, size_t size);

int get_net_ipv6_info();
int get_ipv6_global_addr(const char* ifname, char* out, size_t size);
int get_ipv6_prefix(const char* ifname, char* out, size_t size);
int get_local_gateway_ipv6(const char* ifname, const char* ip, const char* prefix, char* out,
                           size_t size);
int get_ipv6_mac(const char* ifname, char* out, size_t size);
int get_mac_by_ioctl(const char* ifname, char* out, size_t size);

// ---- small facts and helpers ---------------------------------------------------
long get_sys_uptime();
int read_boot_times();
int read_curve_times();
int check_usb_disk_mount();
// Local control service (127.0.0.1:1259; tests move the port).
inline constexpr int kLocalControlPort = wire::kLocalControlPort;
void set_local_control_port(int port);
void send_local_control(const void* buf, size_t len);
int sockaddr_to_string(const struct sockaddr* addr, char* out, size_t size);
int check_ipv4_format(const char* text);
int check_mac_format(const char* text);
// Upgrade acknowledgement into buf (at least 256 bytes).
void build_upgrade_ack(char* buf, char code);

// ---- bounded text helpers shared by the protocol code --------------------------
// Copies at most size-1 bytes of [src, src+len), stopping at a NUL.
void copy_text(char* dst, size_t size, const char* src, size_t len);
// Appends a NUL-terminated text to dst (size bytes), truncating.
void append_text(char* dst, size_t size, const char* src);
