// camtool key new / sign: the files a technician makes verify against each
// other, the secret stays private, and mistakes write nothing.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "camtool/common.h"
#include "camtool/keys.h"

using namespace camtool;
namespace fs = std::filesystem;

namespace {

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

passphrase_source answers(std::vector<std::string> said) {
  auto left = std::make_shared<std::vector<std::string>>(std::move(said));
  return [left](const std::string&) {
    if (left->empty()) return std::string();
    std::string a = left->front();
    left->erase(left->begin());
    return a;
  };
}

// Scrypt at its interactive cost: the file format is the same.
constexpr wire::kdf_cost kFast = wire::kdf_cost::interactive;

}  // namespace

TEST(Keys, NewKeySignsFilesThatVerifyAndMistakesWriteNothing) {
  fs::path dir = fs::temp_directory_path() / ("camtool-keys." + std::to_string(getpid()));
  fs::create_directories(dir);
  std::string site = (dir / "site").string();
  std::ostringstream out;

  EXPECT_THROW(cmd_key_new({site, false, false, kFast}, answers({"one", "two"}), out), tool_error);
  EXPECT_FALSE(fs::exists(site + ".key"));

  ASSERT_EQ(cmd_key_new({site, false, false, kFast}, answers({"pw", "pw"}), out), 0);
  struct stat st{};
  ASSERT_EQ(stat((site + ".key").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_THROW(cmd_key_new({site, true, false}, answers({}), out), tool_error);  // exists

  std::string pkg = (dir / "pkg.zip").string();
  std::ofstream(pkg, std::ios::binary) << std::string(200000, 'z');
  EXPECT_THROW(cmd_sign({pkg, site + ".key", ""}, answers({"wrong"}), out), tool_error);
  EXPECT_FALSE(fs::exists(pkg + ".minisig"));
  ASSERT_EQ(cmd_sign({pkg, site + ".key", ""}, answers({"pw"}), out), 0);

  auto pub = wire::parse_public_key(slurp(site + ".pub"));
  auto sig = wire::parse_signature(slurp(pkg + ".minisig"));
  ASSERT_TRUE(pub && sig);
  EXPECT_NE(sig->trusted_comment.find("\tfile:pkg.zip\thashed"), std::string::npos);
  std::string data = slurp(pkg);
  std::span<const uint8_t> bytes(reinterpret_cast<const uint8_t*>(data.data()), data.size());
  EXPECT_EQ(wire::verify_signature({*pub}, *sig, bytes), wire::sig_verdict::good);
  data[100] ^= 1;
  EXPECT_EQ(wire::verify_signature({*pub}, *sig, bytes), wire::sig_verdict::bad_signature);

  // What `upgrade --key` and `upgrade --signature` send: the file, then a
  // trailer whose signature verifies over the file alone.
  for (bool detached : {false, true}) {
    auto sent = signed_upgrade_file(memory_file("the package"), "pkg.zip",
                                    detached ? "" : site + ".key", detached ? pkg + ".minisig" : "",
                                    answers({"pw"}));
    std::string all(sent->size(), '\0');
    sent->read(0, all.data(), 5);
    sent->read(5, all.data() + 5, all.size() - 5);
    ASSERT_EQ(all.rfind("the package", 0), 0u);
    auto len = wire::trailer_signature_length(
        reinterpret_cast<const uint8_t*>(all.data()) + all.size() - wire::kTrailerFixed, all.size());
    ASSERT_TRUE(len);
    EXPECT_EQ(all.size(), 11 + *len + wire::kTrailerFixed);
    auto trailer_sig = wire::parse_signature(all.substr(11, *len));
    ASSERT_TRUE(trailer_sig);
    const std::string body = detached ? slurp(pkg) : "the package";
    std::span<const uint8_t> signed_bytes(reinterpret_cast<const uint8_t*>(body.data()), body.size());
    EXPECT_EQ(wire::verify_signature({*pub}, *trailer_sig, signed_bytes), wire::sig_verdict::good);
  }
  fs::remove_all(dir);
}
