// Signature files: what a release pipeline's own signer makes is accepted,
// what was tampered with, truncated or signed by another key is not.
#include "wire/signature.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using namespace wire;

namespace {

std::vector<uint8_t> payload(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 131 + 7);
  return v;
}

detached_signature sign(const secret_key& k, const std::vector<uint8_t>& data,
                        std::string comment = "timestamp:1\tfile:x.zip\thashed") {
  prehash h;
  h.update(data.data(), data.size());
  return sign_prehashed(k, h.final(), comment);
}

std::string slurp(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void spit(const std::filesystem::path& p, const std::string& s) {
  std::ofstream(p, std::ios::binary) << s;
}

}  // namespace

TEST(SignatureTest, GoodTamperedForeignAndRotatedKeys) {
  key_pair old_key = generate_key_pair(), new_key = generate_key_pair();
  std::vector<uint8_t> data = payload(100000);
  auto through_files = [](const detached_signature& s) {
    auto back = parse_signature(format_signature(s));
    EXPECT_TRUE(back.has_value());
    return *back;
  };
  detached_signature by_old = through_files(sign(old_key.sec, data));
  detached_signature by_new = through_files(sign(new_key.sec, data));
  auto old_pub = parse_public_key(format_public_key(old_key.pub));
  auto new_pub = parse_public_key(format_public_key(new_key.pub));
  ASSERT_TRUE(old_pub && new_pub);

  // Rotation: while both keys are trusted both signatures pass; once the
  // old key is removed its signatures are from an unknown key.
  std::vector<public_key> both{*old_pub, *new_pub}, only_new{*new_pub};
  EXPECT_EQ(verify_signature(both, by_old, data), sig_verdict::good);
  EXPECT_EQ(verify_signature(both, by_new, data), sig_verdict::good);
  EXPECT_EQ(verify_signature(only_new, by_old, data), sig_verdict::unknown_key);
  EXPECT_EQ(verify_signature(only_new, by_new, data), sig_verdict::good);

  std::vector<uint8_t> changed = data;
  changed[54321] ^= 1;
  EXPECT_EQ(verify_signature(both, by_new, changed), sig_verdict::bad_signature);
  std::vector<uint8_t> shorter(data.begin(), data.end() - 1);
  EXPECT_EQ(verify_signature(both, by_new, shorter), sig_verdict::bad_signature);

  detached_signature recommented = by_new;
  recommented.trusted_comment = "timestamp:1\tfile:other.zip\thashed";
  EXPECT_EQ(verify_signature(both, recommented, data), sig_verdict::bad_comment);

  // A signature whose key ID names a trusted key but was made by another.
  detached_signature forged = sign(old_key.sec, data);
  forged.id = new_key.pub.id;
  EXPECT_EQ(verify_signature(both, forged, data), sig_verdict::bad_signature);
}

TEST(SignatureTest, MalformedFilesAreRefusedWhole) {
  key_pair k = generate_key_pair();
  std::string sig_text = format_signature(sign(k.sec, payload(10)));
  std::string key_text = format_public_key(k.pub);
  ASSERT_TRUE(parse_signature(sig_text));
  // Every cut short of the last line's end is refused (a file cut in the
  // middle of a transfer must not pass as another signature).
  size_t last_line = sig_text.rfind('\n', sig_text.size() - 2) + 1;
  for (size_t n = 0; n < last_line + 86; ++n)
    EXPECT_FALSE(parse_signature(sig_text.substr(0, n))) << n;
  for (size_t n = 0; n < key_text.size() - 1; ++n)
    EXPECT_FALSE(parse_public_key(key_text.substr(0, n))) << n;

  std::string wrong_alg = sig_text;
  wrong_alg[wrong_alg.find('\n') + 1] = 'A';  // the base64 of "ED" changes
  EXPECT_FALSE(parse_signature(wrong_alg));
  EXPECT_FALSE(parse_signature("untrusted comment: x\n!!!!\ntrusted comment: x\n!!!!\n"));
  EXPECT_FALSE(parse_public_key("untrusted comment: x\n"));
  EXPECT_FALSE(parse_public_key(std::string(5000, 'A')));
  // CRLF files (made on a Windows laptop) are the same file.
  std::string crlf;
  for (char c : sig_text) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  EXPECT_TRUE(parse_signature(crlf));
}

TEST(SignatureTest, SecretKeyFilesWithAndWithoutPassphrase) {
  key_pair k = generate_key_pair();
  secret_key back;
  ASSERT_EQ(parse_secret_key(format_secret_key(k.sec, ""), "", back), secret_result::ok);
  EXPECT_EQ(back.sk, k.sec.sk);
  EXPECT_EQ(back.id, k.sec.id);

  std::string locked = format_secret_key(k.sec, "correct horse", kdf_cost::interactive);
  EXPECT_EQ(parse_secret_key(locked, "", back), secret_result::need_passphrase);
  EXPECT_EQ(parse_secret_key(locked, "wrong", back), secret_result::wrong_passphrase);
  secret_key unlocked;
  ASSERT_EQ(parse_secret_key(locked, "correct horse", unlocked), secret_result::ok);
  EXPECT_EQ(unlocked.sk, k.sec.sk);
  EXPECT_EQ(parse_secret_key("untrusted comment: x\nAAAA\n", "", back), secret_result::malformed);
}

// The real signer on this machine, both ways: its keys and signatures (the
// prehashed default and the legacy kind) pass here, ours pass there.
TEST(SignatureTest, InteroperatesWithTheReleaseSigner) {
  if (access("/usr/bin/minisign", X_OK) != 0) GTEST_SKIP() << "minisign is not installed";
  namespace fs = std::filesystem;
  fs::path dir = fs::temp_directory_path() / ("sigtest." + std::to_string(getpid()));
  fs::create_directories(dir);
  std::vector<uint8_t> data = payload(300000);
  spit(dir / "pkg.zip", std::string(data.begin(), data.end()));
  std::string d = dir.string();
  auto run = [](const std::string& cmd) { return system((cmd + " >/dev/null 2>&1").c_str()); };

  ASSERT_EQ(run("minisign -G -W -p " + d + "/their.pub -s " + d + "/their.key"), 0);
  ASSERT_EQ(run("minisign -S -W -s " + d + "/their.key -m " + d + "/pkg.zip"), 0);
  ASSERT_EQ(run("minisign -S -l -W -s " + d + "/their.key -x " + d + "/legacy.minisig -m " + d +
                "/pkg.zip"),
            0);
  auto their_pub = parse_public_key(slurp(dir / "their.pub"));
  auto hashed = parse_signature(slurp(dir / "pkg.zip.minisig"));
  auto legacy = parse_signature(slurp(dir / "legacy.minisig"));
  ASSERT_TRUE(their_pub && hashed && legacy);
  EXPECT_TRUE(hashed->prehashed);
  EXPECT_FALSE(legacy->prehashed);
  EXPECT_EQ(verify_signature({*their_pub}, *hashed, data), sig_verdict::good);
  EXPECT_EQ(verify_signature({*their_pub}, *legacy, data), sig_verdict::good);
  secret_key theirs;
  ASSERT_EQ(parse_secret_key(slurp(dir / "their.key"), "", theirs), secret_result::ok);

  key_pair ours = generate_key_pair();
  spit(dir / "our.pub", format_public_key(ours.pub));
  spit(dir / "our.key", format_secret_key(ours.sec, ""));
  spit(dir / "pkg.zip.minisig", format_signature(sign(ours.sec, data)));
  EXPECT_EQ(run("minisign -V -p " + d + "/our.pub -m " + d + "/pkg.zip"), 0);
  EXPECT_EQ(run("minisign -V -p " + d + "/their.pub -m " + d + "/pkg.zip"), 256);
  // The signer takes our secret key file too.
  ASSERT_EQ(run("minisign -S -W -s " + d + "/our.key -x " + d + "/again.minisig -m " + d +
                "/pkg.zip"),
            0);
  auto again = parse_signature(slurp(dir / "again.minisig"));
  ASSERT_TRUE(again);
  EXPECT_EQ(verify_signature({ours.pub}, *again, data), sig_verdict::good);
  fs::remove_all(dir);
}
