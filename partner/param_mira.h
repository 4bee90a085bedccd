// The tracking-sensitivity relay: requests in the partner's framing on UDP
// 8001, relayed to the camera's tracking service (127.0.0.1:14791) with the
// tool's 0..15 scale converted to the service's, answered to the requester.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>

// The camera's tracking service.
inline constexpr const char* kTrackingServiceAddr = "127.0.0.1";
inline constexpr int kTrackingServicePort = 14791;

// Scale of the tracking service per device type code: "HKW7" counts 0..4,
// "DKW7" 0..8; any other code passes values through unchanged.
enum tracking_type : int { TRACK_DKW7 = 0, TRACK_HKW7 = 1, TRACK_OTHER = -1 };
int tracking_type_of(const char* type_code);

// The service's messages and the answer bytes that count.
inline constexpr uint8_t kTrackGetMessage[3] = {0xBB, 0xD1, 0x00};
inline constexpr size_t kTrackGetValueAt = 3;   // raw sensitivity
inline constexpr size_t kTrackSetResultAt = 2;  // 1 success, 0 failure
inline constexpr size_t kTrackAnswerMax = 103;
std::array<uint8_t, 7> track_set_message(uint8_t raw);

// Tool scale (clamped to 0..15) -> raw, rounded; raw -> tool scale, truncated.
int tracking_tool_to_raw(int type, int value);
int tracking_raw_to_tool(int type, int raw);

// UDP socket bound to port 8001; -1 when it cannot be created or bound (a
// socket that failed to bind is kept in *sock).
int init_param_mira(int* sock, struct sockaddr_in* addr);
// Thread started by init_search_mira_server: opens the socket and serves it.
void* param_mira_func(void* arg);
int param_mira_serve_once(int sock);
// Handles one request; the reply goes back on `sock` to `requester`.
void param_receive_mira(int sock, const struct sockaddr_in& requester, const uint8_t* datagram,
                        size_t length);

// Both ask the tracking service and wait for its answer without a limit.
// The current sensitivity on the tool's scale.
int get_tracking_sensitivity(int type);
// Byte 2 of the service's answer: 1 success, 0 failure.
int set_tracking_sensitivity(int type, int value);
