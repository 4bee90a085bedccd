// camtool's system seam (os.h) behaves alike on Linux and on Windows (these
// tests also run under wine): paths, the upgrade file read at any offset,
// and files that are written new or replaced only when asked.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "camtool/common.h"
#include "camtool/os.h"
#include "camtool/upgrade.h"

using namespace camtool;
namespace fs = std::filesystem;

namespace {

struct scratch {
  fs::path dir = fs::temp_directory_path() / ("camtool-os." + random_id());
  scratch() { fs::create_directories(dir); }
  ~scratch() { fs::remove_all(dir); }
  std::string at(const std::string& name) const { return (dir / name).string(); }
};

std::string slurp(const std::string& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::string error_of(const std::function<void()>& f) {
  try {
    f();
  } catch (const tool_error& e) {
    return e.what();
  }
  return "";
}

}  // namespace

TEST(Os, BaseNameIsWhatTheCamerasAreAnnounced) {
  EXPECT_EQ(os::base_name("app_V2.6.0.zip"), "app_V2.6.0.zip");
  EXPECT_EQ(os::base_name("fw/out/app_V2.6.0.zip"), "app_V2.6.0.zip");
#ifdef _WIN32
  EXPECT_EQ(os::base_name("C:\\fw\\app_V2.6.0.zip"), "app_V2.6.0.zip");
  EXPECT_EQ(os::base_name("C:app_V2.6.0.zip"), "app_V2.6.0.zip");
  EXPECT_EQ(os::base_name("\\\\server\\share/fw\\app.zip"), "app.zip");
#endif
}

TEST(Os, UpgradeFileReadAtAnyOffsetAndRefusedWhenNotAFile) {
  scratch s;
  std::string data(300000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>((i * 7919) >> 3);
  std::ofstream(s.at("fw.bin"), std::ios::binary) << data;

  auto f = open_file(s.at("fw.bin"));
  ASSERT_EQ(f->size(), data.size());
  for (uint64_t off : {uint64_t{0}, uint64_t{65535}, uint64_t{131072}, uint64_t{299990}}) {
    std::string got(10, '\0');
    f->read(off, got.data(), got.size());
    EXPECT_EQ(got, data.substr(off, 10)) << off;
  }
  EXPECT_EQ(file_md5(*f), file_md5(*memory_file(data)));

  EXPECT_NE(error_of([&] { open_file(s.at("missing.bin")); }).find("missing.bin"), std::string::npos);
  EXPECT_NE(error_of([&] { open_file(s.dir.string()); }), "");
}

TEST(Os, NewFilesAreNotOverwrittenUnlessReplacing) {
  scratch s;
  const std::string p = s.at("site.pub");
  os::write_new_file(p, "first\n", false, false);
  EXPECT_EQ(slurp(p), "first\n");
  EXPECT_NE(error_of([&] { os::write_new_file(p, "second\n", false, false); }).find("--force replaces it"),
            std::string::npos);
  EXPECT_EQ(slurp(p), "first\n");
  os::write_new_file(p, "2\n", true, true);  // shorter: nothing of the old text stays
  EXPECT_EQ(slurp(p), "2\n");
  EXPECT_NE(error_of([&] { os::write_new_file(s.at("no/such/folder/k.key"), "x", true, false); }), "");
#ifndef _WIN32
  fs::create_symlink(s.at("elsewhere"), s.at("link.key"));
  EXPECT_NE(error_of([&] { os::write_new_file(s.at("link.key"), "x", true, true); }), "");
  EXPECT_FALSE(fs::exists(s.at("elsewhere")));
#endif
}
