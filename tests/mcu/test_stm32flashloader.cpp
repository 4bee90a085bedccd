#include "mcu/stm32flashloader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "sim/stm32/stm32_sim.h"
#include "mcu_test_util.h"

namespace {

// Samples the reset line at every wait, to see the pulse.
class SamplingPlatform : public FakePlatform {
 public:
  const MemFile* mem = nullptr;
  uint32_t reset_addr = 0;
  std::vector<std::pair<uint64_t, uint32_t>> samples;  // (wait, reset line)
  void sleep_us(uint64_t usec) override {
    if (mem && reset_addr) samples.emplace_back(usec, mem->word(reset_addr));
    FakePlatform::sleep_us(usec);
  }
};

class Stm32ClientTest : public testing::Test {
 protected:
  void SetUp() override {
    previous_ = set_platform(&platform);
    link_serial(cam, sim.device());
  }
  void TearDown() override { set_platform(previous_); }
  void write_image(size_t size) {
    std::mt19937 gen(static_cast<unsigned>(size));
    image.resize(size);
    for (auto& b : image) b = static_cast<uint8_t>(gen());
    cam.write("/customer/m.bin", std::string(image.begin(), image.end()));
  }

  FakeCamera cam;
  MemFile mem{cam};
  SamplingPlatform platform;
  Stm32Sim sim;
  std::vector<uint8_t> image;
  Platform* previous_ = nullptr;
};

struct Wiring {
  int type;
  std::vector<std::pair<uint32_t, uint32_t>> pinmux;  // address, value written
  std::vector<std::pair<uint32_t, uint8_t>> dir;      // direction byte, bits set
  uint32_t reset_addr, reset_value;
  uint32_t boot0_addr, boot0_value;  // 0: BOOT0 not driven
};

// Names the case in test listings instead of dumping its bytes.
void PrintTo(const Wiring& w, std::ostream* os) { *os << "board type " << w.type; }

const Wiring kWirings[] = {
    {1, {{0x200F01E4, 0}, {0x200F01DC, 0}}, {{0x20210400, 0x50}}, 0x20210100, 0x40, 0x20210040, 0x10},
    {3, {{0x200F0078, 0}, {0x200F01DC, 0}}, {{0x201D0400, 0x04}, {0x20210400, 0x10}}, 0x201D0010, 0x04,
     0x20210040, 0x10},
    {5, {{0x12040098, 0}, {0x120401D8, 1}}, {{0x12145400, 0x10}, {0x12150400, 0x02}}, 0x12150008, 0x02,
     0x12145040, 0x10},
    {6, {{0x1203000C, 0xF0}, {0x12040098, 0}, {0x120400F0, 0}}, {{0x12145400, 0x10}, {0x12147400, 0x80}},
     0x12147200, 0x80, 0x12145040, 0x10},
    {7, {{0x120400A0, 0}, {0x120400A4, 0}}, {{0x12145400, 0xC0}}, 0x12145100, 0x40, 0x12145200, 0x80},
    {8, {{0x120400A0, 0}, {0x120400A4, 0}}, {{0x12145400, 0xC0}}, 0x12145100, 0x40, 0, 0},
    {2, {}, {}, 0, 0, 0, 0},  // unwired boards still sync
    {4, {}, {}, 0, 0, 0, 0},
};

class WiringTest : public Stm32ClientTest, public testing::WithParamInterface<Wiring> {};

TEST_P(WiringTest, EntersBootloaderThroughTheBoardPins) {
  const Wiring& w = GetParam();
  constexpr uint32_t kJunk = 0xA5A5A5A5;
  for (auto& [addr, value] : w.pinmux) mem.set_word(addr, kJunk);
  for (auto& [addr, bits] : w.dir) mem.set_byte(addr, 0x01);  // other pins keep their direction
  mem.set_word(w.reset_addr, kJunk);
  mem.set_word(0x12145200, kJunk);  // BOOT0 of types 7/8
  platform.mem = &mem;
  platform.reset_addr = w.reset_addr;

  EXPECT_EQ(check_arm_status(w.type, "/dev/ttyS1"), 0);
  for (auto& [addr, value] : w.pinmux) EXPECT_EQ(mem.word(addr), value) << std::hex << addr;
  for (auto& [addr, bits] : w.dir) EXPECT_EQ(mem.byte(addr), 0x01 | bits) << std::hex << addr;
  EXPECT_EQ(mem.word(0x12145200), w.type == 7 ? 0x80u : kJunk);
  if (w.boot0_addr) {
    EXPECT_EQ(mem.word(w.boot0_addr), w.boot0_value);
  }
  // High, low for 200 ms, high, 1 s for the bootloader, then 200 ms more;
  // unwired boards only wait the last 200 ms.
  using S = std::pair<uint64_t, uint32_t>;
  const std::vector<S> pulse = {{200000, 0}, {1000000, w.reset_value}, {200000, w.reset_value}};
  EXPECT_EQ(platform.samples, w.reset_addr ? pulse : std::vector<S>{});
  EXPECT_EQ(platform.slept_us(), w.reset_addr ? 1400000u : 200000u);
  EXPECT_EQ(sim.acks_sent(), 1);
}

INSTANTIATE_TEST_SUITE_P(BoardTypes, WiringTest, testing::ValuesIn(kWirings),
                         [](const auto& info) { return "type" + std::to_string(info.param.type); });

TEST_F(Stm32ClientTest, SerialLineSettings) {
  int fd = uartinit("/dev/ttyS1", B115200);
  ASSERT_GE(fd, 0);
  struct termios t;
  ASSERT_EQ(tcgetattr(fd, &t), 0);  // (a pty does not keep PARENB)
  EXPECT_EQ(t.c_cflag & (CSIZE | CSTOPB | CRTSCTS | CREAD | CLOCAL), static_cast<tcflag_t>(CS8 | CREAD | CLOCAL));
  EXPECT_EQ(t.c_lflag & (ICANON | ECHO | ECHOE | ISIG), 0u);
  EXPECT_EQ(t.c_oflag & (OPOST | ONLCR | OCRNL), 0u);
  EXPECT_EQ(t.c_iflag & (INLCR | ICRNL | IXON | IXOFF | IXANY), 0u);
  EXPECT_EQ(t.c_cc[VTIME], 255);
  EXPECT_EQ(t.c_cc[VMIN], 1);
  EXPECT_EQ(cfgetospeed(&t), static_cast<speed_t>(B115200));
  close(fd);
}

TEST_F(Stm32ClientTest, CheckFailsOnNackStrayByteAndMissingPort) {
  sim.inject(Stm32Sim::Fault::kNack, 1);
  CaptureStderr();
  EXPECT_EQ(check_arm_status(CAM_TYPE_K5, "/dev/ttyS1"), -1);
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("not 0x79!\n"));

  sim.reset();
  sim.inject(Stm32Sim::Fault::kStrayByte, 1, 0x00);
  CaptureStdout();
  EXPECT_EQ(check_arm_status(CAM_TYPE_K5, "/dev/ttyS1"), -1);
  EXPECT_THAT(GetCapturedStdout(), HasSubstr("revbuf: 0x0, stm32 connected!\n"));

  CaptureStderr();
  EXPECT_EQ(check_arm_status(CAM_TYPE_K5, "/dev/ttyS7"), -1);
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("uartinit fail!\n"));
}

TEST_F(Stm32ClientTest, SilentBootloaderTimesOutAfterThreeSeconds) {
  sim.inject(Stm32Sim::Fault::kSilence, 1);
  CaptureStderr();
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(check_arm_status(CAM_TYPE_K5, "/dev/ttyS1"), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2900));
  EXPECT_THAT(GetCapturedStderr(), testing::ContainsRegex("timeout\n.*read return -1, break;\n"));
}

class ImageSizeTest : public Stm32ClientTest, public testing::WithParamInterface<size_t> {};

TEST_P(ImageSizeTest, ErasesWritesInBlocksAndStarts) {
  size_t size = GetParam();
  write_image(size);
  sim.load_flash(0, std::vector<uint8_t>(4096, 0x00));  // an older firmware
  EXPECT_EQ(arm_upgrade("/dev/ttyS1", "/customer/m.bin", 0), 0);
  EXPECT_EQ(sim.mass_erases(), 1);
  EXPECT_EQ(sim.go_address(), std::optional<uint32_t>(kStm32FlashStart));
  auto flash = sim.flash();
  EXPECT_TRUE(std::equal(image.begin(), image.end(), flash.begin()));
  EXPECT_TRUE(std::all_of(flash.begin() + static_cast<long>(size), flash.end(), [](uint8_t b) { return b == 0xFF; }));
  auto blocks = sim.writes();
  ASSERT_EQ(blocks.size(), (size + 255) / 256);
  for (size_t i = 0; i < blocks.size(); ++i) {
    EXPECT_EQ(blocks[i].address, kStm32FlashStart + 256 * i);
    EXPECT_EQ(blocks[i].length, std::min<size_t>(256, size - 256 * i));  // last block unpadded
  }
}

INSTANTIATE_TEST_SUITE_P(Sizes, ImageSizeTest, testing::Values(0, 1, 256, 257, 4096));

// ACKs of a one-block run: 1 sync, 2 erase, 3 global erase, 4 write,
// 5 address, 6 data, 7 Go, 8 Go address.
class NackStepTest : public Stm32ClientTest, public testing::WithParamInterface<int> {};

TEST_P(NackStepTest, AnyNackEndsTheRun) {
  write_image(100);
  sim.inject(Stm32Sim::Fault::kNack, GetParam());
  CaptureStderr();
  EXPECT_EQ(arm_upgrade("/dev/ttyS1", "/customer/m.bin", 2), -1);
  EXPECT_THAT(GetCapturedStderr(), HasSubstr("not 0x79!\n"));
  EXPECT_FALSE(sim.go_address().has_value());
}

INSTANTIATE_TEST_SUITE_P(Steps, NackStepTest, testing::Range(1, 9));

TEST_F(Stm32ClientTest, MissingPortImageOrArguments) {
  CaptureStderr();
  EXPECT_EQ(arm_upgrade("/dev/ttyS1", "/customer/none.bin", 0), -1);
  EXPECT_EQ(arm_upgrade("/dev/ttyS4", "/customer/none.bin", 0), -1);
  std::string err = GetCapturedStderr();
  EXPECT_THAT(err, HasSubstr("stat /customer/none.bin fail!\n"));
  EXPECT_THAT(err, HasSubstr("uartinit fail!\n"));
  EXPECT_THROW(arm_upgrade(nullptr, "/customer/none.bin", 0), ProcessExited);
  sim.reset();
  EXPECT_THROW(arm_upgrade("/dev/ttyS1", nullptr, 0), ProcessExited);
  EXPECT_EQ(sim.acks_sent(), 0);
}

}  // namespace
