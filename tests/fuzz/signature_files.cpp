// Key and signature files come from a LAN tool, a USB disk or the tail of a
// transfer: parsing never reads past them, and whatever parses writes back
// to the same key, signature and trusted comment.
#include "harness.h"
#include "wire/signature.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  if (auto sig = wire::parse_signature(text)) {
    auto again = wire::parse_signature(wire::format_signature(*sig));
    fuzz_require(again.has_value(), "a parsed signature does not parse after writing it back");
    fuzz_require(again->sig == sig->sig && again->id == sig->id &&
                     again->prehashed == sig->prehashed &&
                     again->trusted_comment == sig->trusted_comment &&
                     again->global_sig == sig->global_sig,
                 "a signature changed on its way through a file");
    fuzz_require(sig->trusted_comment.find('\n') == std::string::npos,
                 "a trusted comment holds a line break");
  }
  if (auto key = wire::parse_public_key(text)) {
    auto again = wire::parse_public_key(wire::format_public_key(*key));
    fuzz_require(again && again->pk == key->pk && again->id == key->id,
                 "a public key changed on its way through a file");
  }
  // A trailer's end and a signed command: bounds from untrusted lengths.
  if (size >= wire::kTrailerFixed) {
    if (auto len = wire::trailer_signature_length(data + size - wire::kTrailerFixed, size))
      fuzz_require(*len <= size - wire::kTrailerFixed, "a trailer reaches before the file");
  }
  size_t body = 0;
  wire::verify_command({}, text, "0123456789abcdef0123456789abcdef", &body);
  fuzz_require(body <= size, "a command's body is longer than the command");
  wire::secret_key sk;
  // No passphrase: an encrypted file stops before the (costly) key derivation.
  wire::parse_secret_key(text, "", sk);
  return 0;
}
