// Ed25519 signatures in the key and signature files release pipelines
// already use (minisign's formats): parsing, verifying and, for the LAN
// tool, making keys and signatures. The cryptography is libsodium's.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace wire {

inline constexpr size_t kKeyIdLen = 8;
using key_id = std::array<uint8_t, kKeyIdLen>;

struct public_key {
  key_id id{};
  std::array<uint8_t, 32> pk{};
};

struct secret_key {
  key_id id{};
  std::array<uint8_t, 64> sk{};  // seed and public key, as libsodium keeps it
};

struct detached_signature {
  bool prehashed = true;  // "ED": the signature covers the file's BLAKE2b-512
  key_id id{};
  std::array<uint8_t, 64> sig{};
  std::string trusted_comment;  // the text after "trusted comment: "
  std::array<uint8_t, 64> global_sig{};  // over sig || trusted comment
};

// The key ID as minisign prints it: the 8 bytes as a little-endian number
// in upper-case hexadecimal.
std::string key_id_text(const key_id& id);

// A public key file ("untrusted comment: ..." then the base64 line) or the
// bare base64 line. Nothing when the text is not a well-formed Ed25519 key.
std::optional<public_key> parse_public_key(std::string_view text);
std::string format_public_key(const public_key& key);

// A signature file: untrusted comment, signature line, trusted comment,
// global signature line. Nothing when any of the four is malformed.
std::optional<detached_signature> parse_signature(std::string_view text);
std::string format_signature(const detached_signature& sig);

enum class sig_verdict {
  good,
  unknown_key,      // signed by a key that is not among the trusted ones
  bad_signature,    // the file does not match its signature
  bad_comment,      // the trusted comment was changed
  missing,          // nothing signed it
};
const char* sig_verdict_text(sig_verdict v);

// The file's BLAKE2b-512, fed in pieces (for "ED" signatures).
class prehash {
 public:
  prehash();
  void update(const void* data, size_t len);
  std::array<uint8_t, 64> final();

 private:
  alignas(64) std::array<uint8_t, 384> state_{};
};

// Checks `sig` over a file given either whole (`data`, both kinds) or by its
// prehash (`hash`, "ED" only), against the trusted keys.
sig_verdict verify_signature(const std::vector<public_key>& keys, const detached_signature& sig,
                             std::span<const uint8_t> data);
sig_verdict verify_prehashed(const std::vector<public_key>& keys, const detached_signature& sig,
                             const std::array<uint8_t, 64>& hash);

// A signature carried at the end of the file it signs, so that a transfer
// moves both as one file: payload, signature file text, the text's length
// (4 bytes, little-endian) and kTrailerMagic. The md5 covers all of it.
inline constexpr std::string_view kTrailerMagic = "CAMSIG01";
inline constexpr size_t kTrailerFixed = 4 + kTrailerMagic.size();
inline constexpr size_t kTrailerSignatureMax = 2048;
std::string build_trailer(std::string_view signature_text);
// The signature text's length from the last kTrailerFixed bytes of a file of
// `file_size` bytes; nothing when they are not a trailer's end or the text
// would not fit in the file.
std::optional<size_t> trailer_signature_length(const uint8_t* tail, uint64_t file_size);

// Commands to a keyed camera end in kCommandSigKey and the base64 of "Ed",
// the key ID and the Ed25519 signature of the command before it followed by
// kChallengeKey and the challenge the camera published in its search reply
// (so a captured command is worth nothing once the challenge has changed).
inline constexpr std::string_view kCommandSigKey = "\r\nSig:";
inline constexpr std::string_view kChallengeKey = "\r\nChallenge:";
inline constexpr size_t kChallengeLen = 32;  // hexadecimal digits
// The command that adds ("\r\nAdd:" and a public key's base64 line) or
// removes ("\r\nRemove:" and a key ID) a camera's site key.
inline constexpr const char* kKeyCommand = "CAMERA_KY";
std::string new_challenge();
std::string sign_command(const secret_key& key, std::string_view command,
                         std::string_view challenge);
// `*body_len` is the command's length without its signature (the whole
// text when there is none).
sig_verdict verify_command(const std::vector<public_key>& keys, std::string_view text,
                           std::string_view challenge, size_t* body_len);

// Making keys and signatures (the LAN tool).
struct key_pair {
  public_key pub;
  secret_key sec;
};
key_pair generate_key_pair();
// A secret key file, encrypted with the passphrase when one is given, at
// scrypt's "sensitive" cost (1 GiB, as release keys are made) or its
// "interactive" one (16 MiB).
enum class kdf_cost { sensitive, interactive };
std::string format_secret_key(const secret_key& key, std::string_view passphrase,
                              kdf_cost cost = kdf_cost::sensitive);
enum class secret_result { ok, malformed, need_passphrase, wrong_passphrase };
secret_result parse_secret_key(std::string_view text, std::string_view passphrase,
                               secret_key& out);
// An "ED" signature of a file with this prehash; the trusted comment is
// stored as given.
detached_signature sign_prehashed(const secret_key& key, const std::array<uint8_t, 64>& hash,
                                  std::string_view trusted_comment);

}  // namespace wire
