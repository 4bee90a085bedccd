// Site keys: the public keys in "/customer/keys" ("*.pub", in the release
// signer's format). A camera that holds any is keyed: it installs only files
// that one of them signed. A camera without keys behaves as it always did.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "wire/signature.h"

inline constexpr const char* kSiteKeyDir = "/customer/keys";
inline constexpr size_t kSiteKeysMax = 8;

struct site_key {
  std::string file;  // path of the .pub file
  wire::public_key key;
};

// The readable keys, at most kSiteKeysMax; `files` counts every "*.pub"
// entry, readable or not (one unreadable key file still makes the camera
// keyed: a damaged key never opens the camera).
std::vector<site_key> load_site_keys(size_t* files = nullptr);
bool camera_is_keyed();

struct signature_check {
  bool ok = false;
  std::string why;  // for the console and trace line when not ok
};

// The first `len` bytes of the file at `path` against a signature file's text.
signature_check check_signature(const std::vector<site_key>& keys, const std::string& path,
                                uint64_t len, std::string_view signature_text);

// The prehash of a file while it is received, for a keyed camera: bytes
// that can no longer belong to a signature trailer are hashed as they come,
// so that once the file is whole only its last few kilobytes remain to be
// hashed before the signature is checked.
class streamed_prehash {
 public:
  // A new file of at most `announced` bytes; with `on` false nothing is hashed.
  void start(uint64_t announced, bool on);
  // The next `len` bytes of the file, in order.
  void feed(const void* data, size_t len);
  bool on() const { return on_; }
  // The hash of the file's first `payload` bytes, the rest read from
  // `file` (the whole file as stored); nothing when the stream did not see
  // exactly that file.
  std::optional<std::array<uint8_t, 64>> finish(const uint8_t* file, uint64_t file_size,
                                                uint64_t payload);

 private:
  wire::prehash hash_;
  uint64_t limit_ = 0;  // bytes that may be hashed before the end is known
  uint64_t seen_ = 0;
  bool on_ = false;
};

// A received file that may end in a signature trailer. A keyed camera needs
// the trailer and a good signature; the trailer is then cut off and
// `*payload_size` set. A camera without keys only cuts a trailer off.
// On failure nothing is cut. `streamed`, when given, holds the prehash of
// the file as it was received ("ED" signatures only; else the file is read).
signature_check take_signature_trailer(const std::string& path, uint64_t* payload_size,
                                       streamed_prehash* streamed = nullptr);

// An image whose signature lies beside it (image + ".minisig"); always ok on
// a camera without keys.
signature_check check_detached_signature(const std::string& image);
