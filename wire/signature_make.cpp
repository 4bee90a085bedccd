// Making keys and signatures (the LAN tool's half): key pairs, secret key
// files with an optional scrypt-encrypted passphrase, signatures of files and
// of commands.
#include <cstddef>

#include "wire/signature.h"
#include "wire/signature_detail.h"

namespace wire {
using namespace detail;
namespace {

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
