// Ed25519 key and signature files in minisign's formats, on libsodium.
#include "wire/signature.h"

#include <sodium.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>

namespace wire {
namespace {

constexpr char kAlgEd[2] = {'E', 'd'};      // a key, or a signature of the file itself
constexpr char kAlgPrehashed[2] = {'E', 'D'};  // a signature of the file's BLAKE2b-512
constexpr char kKdfScrypt[2] = {'S', 'c'};
constexpr char kKdfNone[2] = {0, 0};
constexpr char kChkBlake2b[2] = {'B', '2'};
constexpr std::string_view kUntrusted = "untrusted comment: ";
constexpr std::string_view kTrusted = "trusted comment: ";
constexpr size_t kTrustedCommentMax = 1024;

bool init_sodium() {
  static const bool ok = sodium_init() >= 0;
  return ok;
}

// Splits off the next line (without "\r\n" or "\n"); false at the end.
bool next_line(std::string_view& rest, std::string_view& line) {
  if (rest.empty()) return false;
  size_t nl = rest.find('\n');
  line = rest.substr(0, nl);
  rest = nl == std::string_view::npos ? std::string_view{} : rest.substr(nl + 1);
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return true;
}

// Decodes one base64 line into exactly `want` bytes.
bool decode_exact(std::string_view b64, uint8_t* out, size_t want) {
  if (!init_sodium() || b64.empty() || b64.size() > 4096) return false;
  size_t got = 0;
  const char* end = nullptr;
  if (sodium_base642bin(out, want, b64.data(), b64.size(), nullptr, &got, &end,
                        sodium_base64_VARIANT_ORIGINAL) != 0)
    return false;
  return got == want && end == b64.data() + b64.size();
}

std::string encode(const uint8_t* data, size_t len) {
  init_sodium();
  std::string out(sodium_base64_ENCODED_LEN(len, sodium_base64_VARIANT_ORIGINAL), '\0');
  sodium_bin2base64(out.data(), out.size(), data, len, sodium_base64_VARIANT_ORIGINAL);
  out.resize(strlen(out.c_str()));
  return out;
}

uint64_t load_le64(const uint8_t* p) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

void store_le64(uint8_t* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

// The secret key file's binary layout.
struct secret_blob {
  char sig_alg[2];
  char kdf_alg[2];
  char chk_alg[2];
  uint8_t salt[32];
  uint8_t opslimit[8];
  uint8_t memlimit[8];
  uint8_t keynum[8];  // from here to the end: encrypted with the passphrase
  uint8_t sk[64];
  uint8_t chk[32];
};
static_assert(sizeof(secret_blob) == 158);
constexpr size_t kEncryptedLen = sizeof(secret_blob) - offsetof(secret_blob, keynum);
static_assert(kEncryptedLen == 8 + 64 + 32);

void key_checksum(const secret_blob& b, uint8_t out[32]) {
  crypto_generichash_state st;
  crypto_generichash_init(&st, nullptr, 0, 32);
  crypto_generichash_update(&st, reinterpret_cast<const uint8_t*>(b.sig_alg), 2);
  crypto_generichash_update(&st, b.keynum, sizeof b.keynum);
  crypto_generichash_update(&st, b.sk, sizeof b.sk);
  crypto_generichash_final(&st, out, 32);
}

// XORs the encrypted part with the scrypt stream of the passphrase.
bool crypt_secret(secret_blob& b, std::string_view passphrase) {
  uint8_t stream[kEncryptedLen];
  if (crypto_pwhash_scryptsalsa208sha256(stream, sizeof stream, passphrase.data(),
                                         passphrase.size(), b.salt, load_le64(b.opslimit),
                                         static_cast<size_t>(load_le64(b.memlimit))) != 0)
    return false;
  uint8_t* secret = reinterpret_cast<uint8_t*>(&b) + offsetof(secret_blob, keynum);
  for (size_t i = 0; i < kEncryptedLen; ++i) secret[i] ^= stream[i];
  sodium_memzero(stream, sizeof stream);
  return true;
}

const public_key* find_key(const std::vector<public_key>& keys, const key_id& id) {
  for (const public_key& k : keys)
    if (k.id == id) return &k;
  return nullptr;
}

sig_verdict check(const public_key& key, const detached_signature& sig, const uint8_t* msg,
                  size_t len) {
  if (crypto_sign_verify_detached(sig.sig.data(), msg, len, key.pk.data()) != 0)
    return sig_verdict::bad_signature;
  std::vector<uint8_t> global(sig.sig.begin(), sig.sig.end());
  global.insert(global.end(), sig.trusted_comment.begin(), sig.trusted_comment.end());
  if (crypto_sign_verify_detached(sig.global_sig.data(), global.data(), global.size(),
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
  static_assert(sizeof(crypto_generichash_state) <= sizeof(state_));
  init_sodium();
  auto* st = new (state_.data()) crypto_generichash_state;
  crypto_generichash_init(st, nullptr, 0, 64);
}

void prehash::update(const void* data, size_t len) {
  crypto_generichash_update(reinterpret_cast<crypto_generichash_state*>(state_.data()),
                            static_cast<const uint8_t*>(data), len);
}

std::array<uint8_t, 64> prehash::final() {
  std::array<uint8_t, 64> out{};
  crypto_generichash_final(reinterpret_cast<crypto_generichash_state*>(state_.data()),
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
  if (!init_sodium() || !sig.prehashed) return sig_verdict::bad_signature;
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

namespace {
std::string command_message(std::string_view body, std::string_view challenge) {
  return std::string(body) + std::string(kChallengeKey) + std::string(challenge);
}
}  // namespace

std::string sign_command(const secret_key& key, std::string_view command,
                         std::string_view challenge) {
  init_sodium();
  const std::string m = command_message(command, challenge);
  uint8_t raw[2 + kKeyIdLen + 64];
  memcpy(raw, kAlgEd, 2);
  memcpy(raw + 2, key.id.data(), kKeyIdLen);
  crypto_sign_detached(raw + 2 + kKeyIdLen, nullptr, reinterpret_cast<const uint8_t*>(m.data()),
                       m.size(), key.sk.data());
  return std::string(command) + std::string(kCommandSigKey) + encode(raw, sizeof raw);
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
  if (crypto_sign_verify_detached(raw + 2 + kKeyIdLen, reinterpret_cast<const uint8_t*>(m.data()),
                                  m.size(), key->pk.data()) != 0)
    return sig_verdict::bad_signature;
  return sig_verdict::good;
}

key_pair generate_key_pair() {
  init_sodium();
  key_pair kp;
  crypto_sign_keypair(kp.pub.pk.data(), kp.sec.sk.data());
  randombytes_buf(kp.pub.id.data(), kKeyIdLen);
  kp.sec.id = kp.pub.id;
  return kp;
}

std::string format_secret_key(const secret_key& key, std::string_view passphrase,
                              kdf_cost cost) {
  init_sodium();
  secret_blob b{};
  memcpy(b.sig_alg, kAlgEd, 2);
  memcpy(b.chk_alg, kChkBlake2b, 2);
  memcpy(b.keynum, key.id.data(), kKeyIdLen);
  memcpy(b.sk, key.sk.data(), 64);
  key_checksum(b, b.chk);
  if (passphrase.empty()) {
    memcpy(b.kdf_alg, kKdfNone, 2);
  } else {
    memcpy(b.kdf_alg, kKdfScrypt, 2);
    randombytes_buf(b.salt, sizeof b.salt);
    bool sensitive = cost == kdf_cost::sensitive;
    store_le64(b.opslimit, sensitive ? crypto_pwhash_scryptsalsa208sha256_OPSLIMIT_SENSITIVE
                                     : crypto_pwhash_scryptsalsa208sha256_OPSLIMIT_INTERACTIVE);
    store_le64(b.memlimit, sensitive ? crypto_pwhash_scryptsalsa208sha256_MEMLIMIT_SENSITIVE
                                     : crypto_pwhash_scryptsalsa208sha256_MEMLIMIT_INTERACTIVE);
    if (!crypt_secret(b, passphrase)) return {};
  }
  std::string out = std::string(kUntrusted) +
                    (passphrase.empty() ? "minisign secret key" : "minisign encrypted secret key") +
                    "\n" + encode(reinterpret_cast<const uint8_t*>(&b), sizeof b) + "\n";
  sodium_memzero(&b, sizeof b);
  return out;
}

secret_result parse_secret_key(std::string_view text, std::string_view passphrase,
                               secret_key& out) {
  std::string_view rest = text, line;
  if (!next_line(rest, line)) return secret_result::malformed;
  if (line.starts_with(kUntrusted) && !next_line(rest, line)) return secret_result::malformed;
  secret_blob b;
  bool encrypted = false;
  if (!decode_exact(line, reinterpret_cast<uint8_t*>(&b), sizeof b) ||
      memcmp(b.sig_alg, kAlgEd, 2) != 0 || memcmp(b.chk_alg, kChkBlake2b, 2) != 0)
    return secret_result::malformed;
  if (memcmp(b.kdf_alg, kKdfScrypt, 2) == 0) {
    encrypted = true;
    if (passphrase.empty()) return secret_result::need_passphrase;
    // A file may ask for any cost; refuse what no real key file asks for.
    if (load_le64(b.memlimit) > (uint64_t{1} << 31) || load_le64(b.opslimit) > (uint64_t{1} << 32))
      return secret_result::malformed;
    if (!crypt_secret(b, passphrase)) return secret_result::malformed;
  } else if (memcmp(b.kdf_alg, kKdfNone, 2) != 0) {
    return secret_result::malformed;
  }
  // The checksum tells a wrong passphrase; the signer leaves it zero in an
  // unencrypted file. Either way the key's public half must follow from its seed.
  uint8_t chk[32], zero[32] = {}, pk[32], sk[64];
  key_checksum(b, chk);
  bool ok = sodium_memcmp(chk, b.chk, sizeof chk) == 0 ||
            (!encrypted && sodium_memcmp(zero, b.chk, sizeof zero) == 0);
  ok = ok && crypto_sign_seed_keypair(pk, sk, b.sk) == 0 &&
       sodium_memcmp(pk, b.sk + 32, sizeof pk) == 0;
  sodium_memzero(sk, sizeof sk);
  if (ok) {
    memcpy(out.id.data(), b.keynum, kKeyIdLen);
    memcpy(out.sk.data(), b.sk, 64);
  }
  sodium_memzero(&b, sizeof b);
  if (ok) return secret_result::ok;
  return encrypted ? secret_result::wrong_passphrase : secret_result::malformed;
}

detached_signature sign_prehashed(const secret_key& key, const std::array<uint8_t, 64>& hash,
                                  std::string_view trusted_comment) {
  init_sodium();
  detached_signature s;
  s.prehashed = true;
  s.id = key.id;
  crypto_sign_detached(s.sig.data(), nullptr, hash.data(), hash.size(), key.sk.data());
  s.trusted_comment = std::string(trusted_comment.substr(0, kTrustedCommentMax));
  std::vector<uint8_t> global(s.sig.begin(), s.sig.end());
  global.insert(global.end(), s.trusted_comment.begin(), s.trusted_comment.end());
  crypto_sign_detached(s.global_sig.data(), nullptr, global.data(), global.size(), key.sk.data());
  return s;
}

}  // namespace wire
