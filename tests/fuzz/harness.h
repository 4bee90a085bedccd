// Shared set-up of the fuzz targets: one fake camera for the whole run (a
// temporary root, a fake shell answering like busybox, the keyword table and
// this camera's identity), put back to its start before every input, and the
// input cut into the datagrams or files it stands for.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "discovery/disc_test_util.h"

// The camera of every target. Its replies go to a loopback tool socket that
// reset_camera() drains.
struct FuzzCamera : CameraFixtureBase {
  LoopEndpoint ep;
  int control = -1;  // stands in for the local control service
  FuzzCamera();
  ~FuzzCamera();
};

// Created at the first call; console output is left to the fuzzer's flags.
FuzzCamera& fuzz_camera();
// Identity, network record, keyword table, camera files, shell rules and
// recorded events back to where the first input found them.
FuzzCamera& reset_camera();

// Pieces of an input separated by kPieceSeparator (a line of its own in the
// seed files, so that a piece may hold any other bytes); piece i, or "" past
// the last.
inline constexpr std::string_view kPieceSeparator = "\n--8<--\n";
std::vector<std::string_view> split_pieces(const uint8_t* data, size_t size);
inline std::string piece(const std::vector<std::string_view>& p, size_t i) {
  return i < p.size() ? std::string(p[i]) : std::string();
}

// A heap copy of exactly the first `max` bytes (or all): a read past it is
// caught by the address sanitizer.
template <typename T = char>
std::vector<T> exact_copy(std::string_view bytes, size_t max = SIZE_MAX) {
  const auto* p = reinterpret_cast<const T*>(bytes.data());
  return std::vector<T>(p, p + std::min(bytes.size(), max));
}

// Whether the text, read up to its first NUL as the daemon reads it, names
// this camera.
inline bool names_this_camera(const std::string& text) {
  return strstr(text.c_str(), kDevId.c_str()) != nullptr;
}

// A fixed-width text field ends within its width.
template <size_t N>
bool terminated(const char (&field)[N]) {
  return strnlen(field, N) < N;
}

// Aborts with `what` when `ok` is false: the fuzzer then keeps the input.
void fuzz_require(bool ok, const char* what);
