// The partner's binary discovery protocol: search, network query and network
// setting on 236.5.7.1:8000, answered on 236.5.7.2 and 236.5.7.3 from the
// camera's own address; starting it also starts the tracking relay.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

#include "discovery/identity.h"

inline constexpr const char* kTypeCodeHkw7 = "HKW7";
inline constexpr const char* kTypeCodeDkw7 = "DKW7";
inline constexpr const char* kDeviceName = "ORN Camera";
inline constexpr const char* kDeviceTypeFile = "/home/device_model_file";

// Reads the version and the device model, sets the type code from the model
// and starts search_mira_func and param_mira_func. 0, or -1 when a thread
// could not be created.
int init_search_mira_server();

// Opens the request endpoint: bound to port 8000, joined to 236.5.7.1 on
// eth0's address (kept for the replies). Socket and bind failures end the
// process; later failures leave *sock at -1.
int init_mcast_mira(int* sock, struct sockaddr_in* local, struct sockaddr_in* group);

// Thread: waits 3 s, opens the endpoint and serves it for ever.
void* search_mira_func(void* arg);
// One receive on the endpoint: the request is handled by mcast_receive_mira.
int search_mira_serve_once(int sock);

// One receive of a partner thread (`thread` names its console lines): at
// most 512 bytes, handed to `handle` with the sender, then a 300 ms pause.
// Returns the byte count, or -1 when recvfrom failed.
using mira_handler = void (*)(int sock, const struct sockaddr_in& from, const uint8_t* buf,
                              size_t len);
int mira_serve_once(int sock, const char* thread, mira_handler handle);
inline constexpr uint64_t kMiraPauseUs = 300000;

// Handles one request of `length` bytes.
void mcast_receive_mira(size_t length, const uint8_t* datagram);

// The type code a device model names after its first '.' ("K1.T" and
// "K1.T2" are HKW7, anything else DKW7); nullptr without a '.'.
const char* type_code_of_model(const char* model);
// Refreshes the type code from the device-type file; 0, or -1 when the file
// gave nothing (the code is then unchanged).
int get_device_type_info();
// The type code itself (get_device_type_code, set_device_type_code) is in
// core/daemon_state.h: the search and relay threads share it.

// Writes "/data/net.conf" from `settings` and points the resolver at its DNS.
void update_network_mira(const net_info_t& settings);
