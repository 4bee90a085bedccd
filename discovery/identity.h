// Device identity, network settings and small camera facts. The records
// they fill (device and client IDs, net_info) are in core/daemon_state.h.
#pragma once

#include <sys/socket.h>

#include <cstddef>

#include "core/daemon_state.h"

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
int sockaddr_to_string(const struct sockaddr* addr, char* out, size_t size);
int check_ipv4_format(const char* text);
int check_mac_format(const char* text);
// Upgrade acknowledgement into buf (at least 256 bytes).
void build_upgrade_ack(char* buf, char code);
