// The bootloader simulator checked against an independent client of the
// same protocol (stm32flash), so the controller tests rest on a faithful
// device model.
#include "sim/stm32/stm32_sim.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

constexpr char kStm32flash[] = "/usr/bin/stm32flash";

struct RunResult {
  int status;
  std::string output;
};

RunResult run(const std::string& cmd) {
  RunResult r{-1, ""};
  FILE* p = popen((cmd + " 2>&1").c_str(), "r");
  if (p == nullptr) return r;
  char buf[512];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) r.output.append(buf, n);
  r.status = pclose(p);
  return r;
}

class Stm32flashTest : public testing::TestWithParam<uint8_t> {
 protected:
  void SetUp() override {
    if (access(kStm32flash, X_OK) != 0) GTEST_SKIP() << "stm32flash not installed";
    char tmpl[] = "/tmp/stm32sim.XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
  }
  void TearDown() override {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }
  std::string dir_;
};

TEST_P(Stm32flashTest, WritesVerifiesAndReadsBack) {
  Stm32Sim::Options opt;
  opt.listed_erase = GetParam();
  Stm32Sim sim(opt);
  sim.load_flash(0, std::vector<uint8_t>(8192, 0x00));  // an older firmware

  std::vector<char> image(5000);
  std::mt19937 gen(7);
  for (auto& c : image) c = static_cast<char>(gen());
  std::string in = dir_ + "/in.bin", out = dir_ + "/out.bin";
  std::ofstream(in, std::ios::binary).write(image.data(), static_cast<std::streamsize>(image.size()));

  // Ptys carry no parity: the line is set up as 8N1.
  std::string base = std::string(kStm32flash) + " -m 8n1 -b 115200 ";
  RunResult w = run(base + "-w " + in + " -v " + sim.device());
  ASSERT_EQ(w.status, 0) << w.output;
  EXPECT_THAT(w.output, testing::HasSubstr("Done."));
  EXPECT_GT(sim.pages_erased() + sim.mass_erases(), 0);
  auto flash = sim.flash();
  EXPECT_TRUE(std::equal(image.begin(), image.end(), flash.begin(),
                         [](char a, uint8_t b) { return static_cast<uint8_t>(a) == b; }));

  sim.reset();  // as after a board reset with BOOT0 high
  RunResult r = run(base + "-r " + out + " -S 0x08000000:5000 " + sim.device());
  ASSERT_EQ(r.status, 0) << r.output;
  std::ifstream f(out, std::ios::binary);
  std::vector<char> back((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  EXPECT_EQ(back, image);
}

INSTANTIATE_TEST_SUITE_P(EraseCommands, Stm32flashTest, testing::Values(0x43, 0x44),
                         [](const auto& info) { return info.param == 0x43 ? "Erase" : "ExtendedErase"; });

// A reset in the middle of a command: the simulator drops it and waits for
// the sync byte again (the bound only decides when a missing answer fails).
TEST(Stm32SimTest, ResetEndsAHalfSentCommandAndWaitsForSyncAgain) {
  Stm32Sim sim;
  int fd = open(sim.device().c_str(), O_RDWR | O_NOCTTY);
  ASSERT_GE(fd, 0);
  auto send = [fd](std::vector<uint8_t> b) {
    return write(fd, b.data(), b.size()) == static_cast<ssize_t>(b.size());
  };
  auto answer = [fd] {
    struct pollfd p = {fd, POLLIN, 0};
    uint8_t b = 0;
    return poll(&p, 1, 10000) == 1 && read(fd, &b, 1) == 1 ? b : -1;
  };
  ASSERT_TRUE(send({0x7F}));
  ASSERT_EQ(answer(), 0x79);
  ASSERT_TRUE(send({0x31, 0xCE}));
  ASSERT_EQ(answer(), 0x79);
  ASSERT_TRUE(send({0x08, 0x00}));  // two of the five address bytes

  sim.reset();
  EXPECT_EQ(sim.acks_sent(), 0);
  ASSERT_TRUE(send({0x7F}));
  EXPECT_EQ(answer(), 0x79);
  EXPECT_EQ(sim.acks_sent(), 1);
  EXPECT_TRUE(sim.writes().empty());
  close(fd);
}

}  // namespace
