#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <vector>

#include "fakes/fake_platform.h"
#include "video_out/sii9022.h"

namespace {

// The transmitter as the I2C bus sees it: the TPI register file answers at
// 0x39 once TPI mode is enabled through 0xC7.
class FakeSii9022 : public I2cPort {
 public:
  bool bus_present = true;
  bool chip_present = true;
  uint8_t device_id = 0xB0;
  int slave = -1;
  bool tpi = false;
  uint8_t pointer = 0;
  std::vector<std::string> log;

  int open_bus(const char* path) override {
    log.push_back(std::string("open ") + path);
    if (!bus_present) {
      errno = ENOENT;
      return -1;
    }
    return 7;
  }
  int set_slave(int, int address) override {
    slave = address;
    return 0;
  }
  int write_bytes(int, const uint8_t* d, size_t n) override {
    if (!chip_present || slave != 0x39 || n == 0) return -1;  // no ACK
    pointer = d[0];
    if (n == 2 && d[0] == 0xC7 && d[1] == 0x00) tpi = true;
    return 0;
  }
  int read_bytes(int, uint8_t* d, size_t n) override {
    if (!chip_present || n != 1) return -1;
    *d = (tpi && pointer == 0x1B) ? device_id : 0xFF;
    return 0;
  }
  void close_bus(int) override { log.push_back("close"); }
};

struct Sii9022 : ::testing::Test {
  FakeCamera cam;
  FakeSii9022 chip;
  I2cPort* prev = set_i2c_port(&chip);
  ~Sii9022() override { set_i2c_port(prev); }
};

TEST_F(Sii9022, AnsweringChipPassesOthersFailOtherBoardsSkip) {
  EXPECT_EQ(check_9022_status(1), 0);
  EXPECT_EQ(chip.log, (std::vector<std::string>{"open /dev/i2c-2", "close"}));
  chip.device_id = 0x00;
  EXPECT_EQ(check_9022_status(5), -1);
  chip.chip_present = false;
  EXPECT_LT(check_9022_status(8), 0);

  // Other boards, or no bus at all: the check does not apply.
  chip.log.clear();
  EXPECT_GT(check_9022_status(4), 0);
  EXPECT_TRUE(chip.log.empty());
  chip.bus_present = false;
  EXPECT_GT(check_9022_status(1), 0);
  set_i2c_port(nullptr);  // the real port: the camera root has no /dev/i2c-2
  EXPECT_GT(check_9022_status(1), 0);
}

}  // namespace
