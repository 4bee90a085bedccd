#include "video_out/sdi_probe.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/spi/spidev.h>

#include "fakes/fake_platform.h"
#include "fakes/fake_spi.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

using Bytes = std::vector<uint8_t>;

TEST(SdiProbeTest, Gv7600PassesOnlyWithTheExpectedRegisterFive) {
  FakeCamera cam;
  auto chip = std::make_shared<FakeGv7600>();
  FakeSpiBus bus(chip);
  chip->set_reg(5, 0x0403);
  CaptureStdout();
  EXPECT_EQ(gv7600_check(1), 1);
  EXPECT_THAT(GetCapturedStdout(), HasSubstr("gv7600 after set: value: 403 \n"));
  EXPECT_THAT(cam.platform().commands(), ElementsAre("himm 0x1204004C 0x01", "himm 0x12040050 0x01",
                                                     "himm 0x12040054 0x01", "himm 0x12040058 0x01"));
  EXPECT_THAT(bus.events(), ElementsAre("open:/dev/spidev2.0:r", "mode:3", "bits:8", "speed:2000000", "xfer:4",
                                        "close"));
  EXPECT_EQ(bus.transfers()[0].tx, (Bytes{0x80, 0x05, 0x00, 0x00}));

  chip->set_reg(5, 0x0402);
  EXPECT_EQ(gv7600_check(1), 0);
  EXPECT_EQ(gv7600_check(2), 0);  // other modes do nothing
  EXPECT_EQ(bus.transfers().size(), 2u);

  // Write frame; close twice.
  ASSERT_EQ(gv7600_spi_open(), 0);
  EXPECT_EQ(gv7600_write_reg(0x1234, 0xAB), 0);
  EXPECT_EQ(bus.transfers()[2].tx, (Bytes{0x12, 0x34, 0x00, 0xAB}));
  EXPECT_EQ(gv7600_read_reg(0x1234), 0xAB);
  EXPECT_EQ(gv7600_spi_close(), 0);
  EXPECT_EQ(gv7600_spi_close(), -1);
}

TEST(SdiProbeTest, Gv7600MissingDeviceOrRefusedSetting) {
  FakeCamera cam;
  auto chip = std::make_shared<FakeGv7600>();
  chip->set_reg(5, 0x0403);
  FakeSpiBus bus(chip);
  bus.present = false;
  CaptureStdout();
  EXPECT_EQ(gv7600_check(1), 0);
  bus.present = true;
  bus.fail_request = SPI_IOC_WR_BITS_PER_WORD;
  EXPECT_EQ(gv7600_spi_open(), -1);
  std::string out = GetCapturedStdout();
  EXPECT_THAT(out, HasSubstr("Open /dev/spidev2.0 error!\n"));
  EXPECT_THAT(out, HasSubstr("SPI_IOC_MESSAGE error \n"));
  EXPECT_THAT(out, HasSubstr("ioctl SPI_IOC_WR_BITS_PER_WORD err, value = 8 ret = -1\n"));
  EXPECT_EQ(gv7600_spi_close(), 0);  // the descriptor stayed open
}

TEST(SdiProbeTest, Gv7700EchoPassesTiedLowOrWrongModeFails) {
  FakeCamera cam;
  {
    FakeSpiBus bus(std::make_shared<FakeGv7700>());
    CaptureStdout();
    EXPECT_EQ(gv7700_check(1), 1);
    EXPECT_THAT(GetCapturedStdout(),
                HasSubstr("tx_buf[0-3] == rx_buf[0-3]gv7700 after set: value: 1 \n"));
    EXPECT_EQ(gv7700_check(2), 1);
    EXPECT_EQ(gv7700_check(3), 0);
    EXPECT_EQ(bus.transfers().size(), 2u);
    EXPECT_EQ(bus.transfers()[0].tx, (Bytes{0xA0, 0x00, 0x48, 0x7A}));
    ASSERT_EQ(gv7700_spi_open(), 0);
    EXPECT_EQ(gv7700_write_reg(0x12487A, 0x5C), 0);
    EXPECT_EQ(bus.transfers()[2].tx, (Bytes{0x20, 0x12, 0x48, 0x7A, 0x00, 0x5C}));
    EXPECT_EQ(gv7700_spi_close(), 0);
  }
  {
    FakeSpiBus bus(std::make_shared<MisoTiedLow>());
    EXPECT_EQ(gv7700_check(1), 0);
  }
  {
    FakeSpiBus bus(std::make_shared<FakeGv7700>());
    bus.fail_request = SPI_IOC_WR_MODE;  // left in the wrong mode, the chip stays silent
    EXPECT_EQ(gv7700_check(1), 0);
  }
}

}  // namespace
