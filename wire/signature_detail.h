// Pieces both halves of the signature code share: the files' algorithm
// tags, their lines, base64 through libsodium, little-endian numbers.
#pragma once

#include <sodium.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace wire::detail {

inline constexpr char kAlgEd[2] = {'E', 'd'};      // a key, or a signature of the file itself
inline constexpr char kAlgPrehashed[2] = {'E', 'D'};  // a signature of the file's BLAKE2b-512
inline constexpr char kKdfScrypt[2] = {'S', 'c'};
inline constexpr char kKdfNone[2] = {0, 0};
inline constexpr char kChkBlake2b[2] = {'B', '2'};
inline constexpr std::string_view kUntrusted = "untrusted comment: ";
inline constexpr std::string_view kTrusted = "trusted comment: ";
inline constexpr size_t kTrustedCommentMax = 1024;

inline bool init_sodium() {
  static const bool ok = sodium_init() >= 0;
  return ok;
}

// Splits off the next line (without its "\n" and the carriage returns before
// it, so that a line written back reads the same); false at the end.
inline bool next_line(std::string_view& rest, std::string_view& line) {
  if (rest.empty()) return false;
  size_t nl = rest.find('\n');
  line = rest.substr(0, nl);
  rest = nl == std::string_view::npos ? std::string_view{} : rest.substr(nl + 1);
  while (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return true;
}

// Decodes one base64 line into exactly `want` bytes.
inline bool decode_exact(std::string_view b64, uint8_t* out, size_t want) {
  if (!init_sodium() || b64.empty() || b64.size() > 4096) return false;
  size_t got = 0;
  const char* end = nullptr;
  if (sodium_base642bin(out, want, b64.data(), b64.size(), nullptr, &got, &end,
                        sodium_base64_VARIANT_ORIGINAL) != 0)
    return false;
  return got == want && end == b64.data() + b64.size();
}

inline std::string encode(const uint8_t* data, size_t len) {
  init_sodium();
  std::string out(sodium_base64_ENCODED_LEN(len, sodium_base64_VARIANT_ORIGINAL), '\0');
  sodium_bin2base64(out.data(), out.size(), data, len, sodium_base64_VARIANT_ORIGINAL);
  out.resize(strlen(out.c_str()));
  return out;
}

inline uint64_t load_le64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

inline void store_le64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}


// What a command's signature covers.
inline std::string command_message(std::string_view body, std::string_view challenge) {
  return std::string(body) + "\r\nChallenge:" + std::string(challenge);
}

}  // namespace wire::detail
