// Ed25519 key and signature files in minisign's formats: parsing and
// checking (what a camera needs), on libsodium.
#include "wire/signature.h"

#include <cstddef>
#include <cstdio>
#include <new>

#include "wire/signature_detail.h"

namespace wire {
using namespace detail;
namespace {

const public_key* find_key(const std::vector<public_key>& keys, const key_id& id) {
  for (const public_key& k : keys)
    if (k.id == id) return &k;
  return nullptr;
}

sig_verdict check(const public_key& key, const detached_signature& sig, const uint8_t* msg,
                  size_t len) {
  if (crypto_sign_ed25519_verify_detached(sig.sig.data(), msg, len, key.pk.data()) != 0)
    return sig_verdict::bad_signature;
  std::vector<uint8_t> global(sig.sig.begin(), sig.sig.end());
  global.insert(global.end(), sig.trusted_comment.begin(), sig.trusted_comment.end());
  if (crypto_sign_ed25519_verify_detached(sig.global_sig.data(), global.data(), global.size(),
                                  key.pk.data()) != 0)
    return sig_verdict::bad_comment;
  return sig_verdict::good;
}


}  // namespace

std::string key_id_text(const key_id& id) {
  char buf[17];
  snprintf(buf, sizeof buf, "%016llX", static_cast<unsigned long long>(load_le64(id.data())));
  return buf;
}

std::optional<public_key> parse_public_key(std::string_view text) {
  std::string_view rest = text, line;
  if (!next_line(rest, line)) return std::nullopt;
  if (line.starts_with(kUntrusted) && !next_line(rest, line)) return std::nullopt;
  uint8_t raw[2 + kKeyIdLen + 32];
  if (!decode_exact(line, raw, sizeof raw) || memcmp(raw, kAlgEd, 2) != 0) return std::nullopt;
  public_key k;
  memcpy(k.id.data(), raw + 2, kKeyIdLen);
  memcpy(k.pk.data(), raw + 2 + kKeyIdLen, 32);
  return k;
}

std::string format_public_key(const public_key& key) {
  uint8_t raw[2 + kKeyIdLen + 32];
  memcpy(raw, kAlgEd, 2);
  memcpy(raw + 2, key.id.data(), kKeyIdLen);
  memcpy(raw + 2 + kKeyIdLen, key.pk.data(), 32);
  return std::string(kUntrusted) + "minisign public key " + key_id_text(key.id) + "\n" +
         encode(raw, sizeof raw) + "\n";
}

std::optional<detached_signature> parse_signature(std::string_view text) {
  std::string_view rest = text, line;
  if (!next_line(rest, line) || !line.starts_with(kUntrusted)) return std::nullopt;
  if (!next_line(rest, line)) return std::nullopt;
  uint8_t raw[2 + kKeyIdLen + 64];
  if (!decode_exact(line, raw, sizeof raw)) return std::nullopt;
  detached_signature s;
  if (memcmp(raw, kAlgPrehashed, 2) == 0)
    s.prehashed = true;
  else if (memcmp(raw, kAlgEd, 2) == 0)
    s.prehashed = false;
  else
    return std::nullopt;
  memcpy(s.id.data(), raw + 2, kKeyIdLen);
  memcpy(s.sig.data(), raw + 2 + kKeyIdLen, 64);
  if (!next_line(rest, line) || !line.starts_with(kTrusted)) return std::nullopt;
  line.remove_prefix(kTrusted.size());
  if (line.size() > kTrustedCommentMax) return std::nullopt;
  s.trusted_comment = std::string(line);
  if (!next_line(rest, line) || !decode_exact(line, s.global_sig.data(), 64))
    return std::nullopt;
  return s;
}

std::string format_signature(const detached_signature& sig) {
  uint8_t raw[2 + kKeyIdLen + 64];
  memcpy(raw, sig.prehashed ? kAlgPrehashed : kAlgEd, 2);
  memcpy(raw + 2, sig.id.data(), kKeyIdLen);
  memcpy(raw + 2 + kKeyIdLen, sig.sig.data(), 64);
  return std::string(kUntrusted) + "signature from minisign secret key\n" +
         encode(raw, sizeof raw) + "\n" + std::string(kTrusted) + sig.trusted_comment + "\n" +
         encode(sig.global_sig.data(), 64) + "\n";
}

const char* sig_verdict_text(sig_verdict v) {
  switch (v) {
    case sig_verdict::good: return "signature good";
    case sig_verdict::unknown_key: return "signed by an unknown key";
    case sig_verdict::bad_signature: return "signature does not match the file";
    case sig_verdict::bad_comment: return "trusted comment was altered";
    case sig_verdict::missing: return "not signed";
  }
  return "?";
}

prehash::prehash() {
  static_assert(sizeof(crypto_generichash_blake2b_state) <= sizeof(state_));
  init_sodium();
  auto* st = new (state_.data()) crypto_generichash_blake2b_state;
  crypto_generichash_blake2b_init(st, nullptr, 0, 64);
}

void prehash::update(const void* data, size_t len) {
  crypto_generichash_blake2b_update(reinterpret_cast<crypto_generichash_blake2b_state*>(state_.data()),
                            static_cast<const uint8_t*>(data), len);
}

std::array<uint8_t, 64> prehash::final() {
  std::array<uint8_t, 64> out{};
  crypto_generichash_blake2b_final(reinterpret_cast<crypto_generichash_blake2b_state*>(state_.data()),
                           out.data(), out.size());
  return out;
}

sig_verdict verify_signature(const std::vector<public_key>& keys, const detached_signature& sig,
                             std::span<const uint8_t> data) {
  if (!init_sodium()) return sig_verdict::bad_signature;
  if (sig.prehashed) {
    prehash h;
    h.update(data.data(), data.size());
    return verify_prehashed(keys, sig, h.final());
  }
  const public_key* key = find_key(keys, sig.id);
  if (key == nullptr) return sig_verdict::unknown_key;
  return check(*key, sig, data.data(), data.size());
}

sig_verdict verify_prehashed(const std::vector<public_key>& keys, const detached_signature& sig,
                             const std::array<uint8_t, 64>& hash) {
  if (!sig.prehashed) return sig_verdict::bad_signature;
  const public_key* key = find_key(keys, sig.id);
  if (key == nullptr) return sig_verdict::unknown_key;
  return check(*key, sig, hash.data(), hash.size());
}

std::string build_trailer(std::string_view signature_text) {
  std::string t(signature_text);
  uint8_t len[4];
  for (int i = 0; i < 4; ++i) len[i] = static_cast<uint8_t>(signature_text.size() >> (8 * i));
  t.append(reinterpret_cast<const char*>(len), 4);
  t.append(kTrailerMagic);
  return t;
}

std::optional<size_t> trailer_signature_length(const uint8_t* tail, uint64_t file_size) {
  if (file_size < kTrailerFixed) return std::nullopt;
  if (memcmp(tail + 4, kTrailerMagic.data(), kTrailerMagic.size()) != 0) return std::nullopt;
  size_t len = tail[0] | (tail[1] << 8) | (tail[2] << 16) | (static_cast<size_t>(tail[3]) << 24);
  if (len == 0 || len > kTrailerSignatureMax || len > file_size - kTrailerFixed) return std::nullopt;
  return len;
}

std::string new_challenge() {
  init_sodium();
  uint8_t raw[kChallengeLen / 2];
  randombytes_buf(raw, sizeof raw);
  char hex[kChallengeLen + 1];
  sodium_bin2hex(hex, sizeof hex, raw, sizeof raw);
  return hex;
}


sig_verdict verify_command(const std::vector<public_key>& keys, std::string_view text,
                           std::string_view challenge, size_t* body_len) {
  size_t at = text.rfind(kCommandSigKey);
  *body_len = at == std::string_view::npos ? text.size() : at;
  if (at == std::string_view::npos) return sig_verdict::missing;
  uint8_t raw[2 + kKeyIdLen + 64];
  std::string_view b64 = text.substr(at + kCommandSigKey.size());
  while (!b64.empty() && (b64.back() == '\r' || b64.back() == '\n' || b64.back() == '\0'))
    b64.remove_suffix(1);
  if (!decode_exact(b64, raw, sizeof raw) || memcmp(raw, kAlgEd, 2) != 0)
    return sig_verdict::bad_signature;
  key_id id;
  memcpy(id.data(), raw + 2, kKeyIdLen);
  const public_key* key = find_key(keys, id);
  if (key == nullptr) return sig_verdict::unknown_key;
  const std::string m = command_message(text.substr(0, at), challenge);
  if (crypto_sign_ed25519_verify_detached(raw + 2 + kKeyIdLen, reinterpret_cast<const uint8_t*>(m.data()),
                                  m.size(), key->pk.data()) != 0)
    return sig_verdict::bad_signature;
  return sig_verdict::good;
}


}  // namespace wire
