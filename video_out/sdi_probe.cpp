#include "video_out/sdi_probe.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/platform.h"

int SpiDevice::open(const char* path, int flags) {
  return ::open(cam_path(path).c_str(), flags | O_CLOEXEC);
}
int SpiDevice::ioctl(int fd, unsigned long request, void* arg) { return ::ioctl(fd, request, arg); }
int SpiDevice::close(int fd) { return ::close(fd); }

namespace {

SpiDevice g_real_spidev;
std::atomic<SpiDevice*> g_spidev{&g_real_spidev};

int g_gv7600_fd = -1;
int g_gv7700_fd = -1;

// Opens the device once and sets mode 3, 8 bits, 2 MHz.
int spi_open(int* fd) {
  if (*fd >= 0) return 0;
  *fd = spidev().open(kSdiSpiDevice, O_RDONLY);
  if (*fd < 0) {
    printf("Open %s error!\n", kSdiSpiDevice);
    return -1;
  }
  uint8_t mode = kSdiSpiMode;
  int ret = spidev().ioctl(*fd, SPI_IOC_WR_MODE, &mode);
  if (ret < 0) {
    printf("ioctl SPI_IOC_WR_MODE err, value = %d ret = %d\n", mode, ret);
    return ret;
  }
  uint8_t bits = kSdiSpiBits;
  ret = spidev().ioctl(*fd, SPI_IOC_WR_BITS_PER_WORD, &bits);
  if (ret < 0) {
    printf("ioctl SPI_IOC_WR_BITS_PER_WORD err, value = %d ret = %d\n", bits, ret);
    return ret;
  }
  uint32_t speed = kSdiSpiSpeed;
  ret = spidev().ioctl(*fd, SPI_IOC_WR_MAX_SPEED_HZ, &speed);
  if (ret < 0) {
    printf("ioctl SPI_IOC_WR_MAX_SPEED_HZ err, value = %d ret = %d\n", static_cast<int>(speed), ret);
    return ret;
  }
  return 0;
}

int spi_close(int* fd) {
  if (*fd < 0) return -1;
  spidev().close(*fd);
  *fd = -1;
  return 0;
}

// One full-duplex transfer; speed, delay, word size and chip-select change
// are left to the driver.
int spi_transfer(int fd, const uint8_t* tx, uint8_t* rx, uint32_t len) {
  struct spi_ioc_transfer xfer;
  memset(&xfer, 0, sizeof(xfer));
  xfer.tx_buf = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(tx));
  xfer.rx_buf = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(rx));
  xfer.len = len;
  int ret = spidev().ioctl(fd, SPI_IOC_MESSAGE(1), &xfer);
  if (ret < 0) {
    puts("SPI_IOC_MESSAGE error ");
    fflush(stdout);
    return -1;
  }
  return 0;
}

// The pin set-up both probes need (four pin-mux registers set to 1).
void sdi_pin_setup() {
  sys().shell("himm 0x1204004C 0x01");
  sys().shell("himm 0x12040050 0x01");
  sys().shell("himm 0x12040054 0x01");
  sys().shell("himm 0x12040058 0x01");
}

}  // namespace

SpiDevice& spidev() { return *g_spidev.load(); }

SpiDevice* set_spidev(SpiDevice* dev) {
  return g_spidev.exchange(dev != nullptr ? dev : &g_real_spidev);
}

int gv7600_spi_open() { return spi_open(&g_gv7600_fd); }
int gv7600_spi_close() { return spi_close(&g_gv7600_fd); }

// Frame: command word (read bit 15, address in bits 0-14), then data word,
// both big-endian.
int gv7600_write_reg(uint16_t address, uint8_t value) {
  uint8_t tx[4] = {static_cast<uint8_t>((address >> 8) & 0x7F), static_cast<uint8_t>(address), 0,
                   value};
  uint8_t rx[4] = {};
  return spi_transfer(g_gv7600_fd, tx, rx, sizeof(tx));
}

int gv7600_read_reg(uint16_t address) {
  uint8_t tx[4] = {static_cast<uint8_t>(0x80 | ((address >> 8) & 0x7F)),
                   static_cast<uint8_t>(address), 0, 0};
  uint8_t rx[4] = {};
  if (spi_transfer(g_gv7600_fd, tx, rx, sizeof(tx)) < 0) return -1;
  return (rx[2] << 8) | rx[3];
}

int gv7600_check(int mode) {
  if (mode != 1) return 0;
  sdi_pin_setup();
  gv7600_spi_open();
  int value = gv7600_read_reg(static_cast<uint16_t>(strtol("005", nullptr, 16)));
  printf("gv7600 after set: value: %x \n", static_cast<unsigned>(value));
  fflush(stdout);
  gv7600_spi_close();
  return value == 0x0403 ? 1 : 0;
}

int gv7700_spi_open() { return spi_open(&g_gv7700_fd); }
int gv7700_spi_close() { return spi_close(&g_gv7700_fd); }

// Frame: command byte (0x20 write, 0xA0 read), 24-bit address big-endian,
// then data.
int gv7700_write_reg(uint32_t address, uint8_t value) {
  uint8_t tx[6] = {0x20, static_cast<uint8_t>(address >> 16), static_cast<uint8_t>(address >> 8),
                   static_cast<uint8_t>(address), 0, value};
  uint8_t rx[6] = {};
  return spi_transfer(g_gv7700_fd, tx, rx, sizeof(tx));
}

int gv7700_probe_reg(uint32_t address) {
  uint8_t tx[4] = {0xA0, static_cast<uint8_t>(address >> 16), static_cast<uint8_t>(address >> 8),
                   static_cast<uint8_t>(address)};
  uint8_t rx[4] = {};
  if (spi_transfer(g_gv7700_fd, tx, rx, sizeof(tx)) < 0) return -1;
  if (memcmp(tx, rx, sizeof(tx)) != 0) return 0;
  printf("tx_buf[0-3] == rx_buf[0-3]");
  fflush(stdout);
  return 1;
}

int gv7700_check(int mode) {
  if (mode != 1 && mode != 2) return 0;
  // Modes 1 and 2 run the same probe.
  sdi_pin_setup();
  gv7700_spi_open();
  int value = gv7700_probe_reg(static_cast<uint32_t>(strtol("487A", nullptr, 16)));
  printf("gv7700 after set: value: %x \n", static_cast<unsigned>(value));
  fflush(stdout);
  gv7700_spi_close();
  return value == 1 ? 1 : 0;
}
