// SDI transmitter probes (GV7600, GV7700) over spidev, used by the factory
// board test. Each driver keeps its own descriptor of "/dev/spidev2.0".
#pragma once

#include <cstdint>

// The spidev seam: open/ioctl/close of the SPI device node. The real one
// opens cam_path(path) and issues the ioctls; tests install fake chips.
class SpiDevice {
 public:
  virtual ~SpiDevice() = default;
  virtual int open(const char* path, int flags);
  virtual int ioctl(int fd, unsigned long request, void* arg);
  virtual int close(int fd);
};

SpiDevice& spidev();
// Installs `dev` (nullptr restores the real one); returns the previous one.
SpiDevice* set_spidev(SpiDevice* dev);

inline constexpr char kSdiSpiDevice[] = "/dev/spidev2.0";
inline constexpr uint8_t kSdiSpiMode = 3;
inline constexpr uint8_t kSdiSpiBits = 8;
inline constexpr uint32_t kSdiSpiSpeed = 2000000;

int gv7600_spi_open();
int gv7600_spi_close();
int gv7600_write_reg(uint16_t address, uint8_t value);
// The 16-bit register value, or -1.
int gv7600_read_reg(uint16_t address);
// 1 when register 5 reads 0x0403 (mode 1 only), else 0.
int gv7600_check(int mode);

int gv7700_spi_open();
int gv7700_spi_close();
int gv7700_write_reg(uint32_t address, uint8_t value);
// 1 when the four bytes clocked back equal the four sent, 0 if not, -1 on
// a transfer error.
int gv7700_probe_reg(uint32_t address);
// 1 when the probe of register 0x487A succeeds (modes 1 and 2), else 0.
int gv7700_check(int mode);
