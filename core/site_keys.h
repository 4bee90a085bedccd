// Site keys: the public keys in "/customer/keys" ("*.pub", in the release
// signer's format). A camera that holds any is keyed: it installs only files
// that one of them signed. A camera without keys behaves as it always did.
#pragma once

#include <cstdint>
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

// A received file that may end in a signature trailer. A keyed camera needs
// the trailer and a good signature; the trailer is then cut off and
// `*payload_size` set. A camera without keys only cuts a trailer off.
// On failure nothing is cut.
signature_check take_signature_trailer(const std::string& path, uint64_t* payload_size);

// An image whose signature lies beside it (image + ".minisig"); always ok on
// a camera without keys.
signature_check check_detached_signature(const std::string& image);
