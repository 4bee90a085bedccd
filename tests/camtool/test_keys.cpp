// camtool key new / sign: the files a technician makes verify against each
// other, the secret stays private, and mistakes write nothing.
#include <gtest/gtest.h>

#ifdef _WIN32
#include <windows.h>
#include <aclapi.h>
#else
#include <sys/stat.h>
#endif

#include <filesystem>
#include <fstream>
#include <iostream>
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

// Whether only the file's owner may open it: mode 0600, or on Windows an
// access list protected from the folder's with one entry, for this user.
bool owner_only(const std::string& path) {
#ifdef _WIN32
  PACL dacl = nullptr;
  PSECURITY_DESCRIPTOR sd = nullptr;
  if (GetNamedSecurityInfoA(path.c_str(), SE_FILE_OBJECT, DACL_SECURITY_INFORMATION, nullptr, nullptr,
                            &dacl, nullptr, &sd) != ERROR_SUCCESS)
    return false;
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  GetSecurityDescriptorControl(sd, &control, &revision);
  bool only_me = false;
  void* ace = nullptr;
  HANDLE token = nullptr;
  char user[256];
  DWORD size = 0;
  if ((control & SE_DACL_PROTECTED) != 0 && dacl != nullptr && dacl->AceCount == 1 &&
      GetAce(dacl, 0, &ace) && OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) {
    auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
    only_me = allowed->Header.AceType == ACCESS_ALLOWED_ACE_TYPE &&
              GetTokenInformation(token, TokenUser, user, sizeof(user), &size) &&
              EqualSid(reinterpret_cast<TOKEN_USER*>(user)->User.Sid, &allowed->SidStart);
    CloseHandle(token);
  }
  LocalFree(sd);
  return only_me;
#else
  struct stat st{};
  return stat(path.c_str(), &st) == 0 && (st.st_mode & 0777) == 0600;
#endif
}

// wine maps a file's access list onto Unix mode bits and keeps neither the
// protection nor the list as set: there the check is left to Windows.
bool access_lists_kept() {
#ifdef _WIN32
  HMODULE ntdll = GetModuleHandleA("ntdll.dll");
  if (ntdll != nullptr && GetProcAddress(ntdll, "wine_get_version") != nullptr) {
    std::cout << "[ NOTE     ] under wine: the secret key's access list is not checked\n";
    return false;
  }
#endif
  return true;
}

// Scrypt at its interactive cost: the file format is the same.
constexpr wire::kdf_cost kFast = wire::kdf_cost::interactive;

}  // namespace

TEST(Keys, NewKeySignsFilesThatVerifyAndMistakesWriteNothing) {
  fs::path dir = fs::temp_directory_path() / ("camtool-keys." + camtool::random_id());
  fs::create_directories(dir);
  std::string site = (dir / "site").string();
  std::ostringstream out;

  EXPECT_THROW(cmd_key_new({site, false, false, kFast}, answers({"one", "two"}), out), tool_error);
  EXPECT_FALSE(fs::exists(site + ".key"));

  ASSERT_EQ(cmd_key_new({site, false, false, kFast}, answers({"pw", "pw"}), out), 0);
  if (access_lists_kept()) {
    EXPECT_TRUE(owner_only(site + ".key"));
    EXPECT_FALSE(owner_only(site + ".pub"));
  }
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
