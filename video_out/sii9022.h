// HDMI transmitter (SiI9022A on I2C bus 2): the board-test status check.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr const char* kSii9022Bus = "/dev/i2c-2";
inline constexpr int kSii9022Address = 0x39;  // 7-bit TPI address
inline constexpr uint8_t kSii9022TpiEnableReg = 0xC7;
inline constexpr uint8_t kSii9022DeviceIdReg = 0x1B;
inline constexpr uint8_t kSii9022DeviceId = 0xB0;

// The I2C character device, behind a seam so tests can model the chip.
class I2cPort {
 public:
  virtual ~I2cPort() = default;
  // Descriptor, or -1 with errno set.
  virtual int open_bus(const char* path);
  virtual int set_slave(int fd, int address);  // ioctl I2C_SLAVE
  virtual int write_bytes(int fd, const uint8_t* data, size_t len);
  virtual int read_bytes(int fd, uint8_t* data, size_t len);
  virtual void close_bus(int fd);
};

// Installs p (nullptr restores the real device); returns the previous one.
I2cPort* set_i2c_port(I2cPort* p);

// 0 when the transmitter answers with its device ID, negative when it does
// not, positive when the test does not apply (board without the transmitter
// or without the I2C bus).
int check_9022_status(int type);
