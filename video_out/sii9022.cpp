#include "video_out/sii9022.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "core/dbgout.h"
#include "core/platform.h"

namespace {

I2cPort g_real_port;
std::atomic<I2cPort*> g_port{&g_real_port};

}  // namespace

int I2cPort::open_bus(const char* path) { return open(cam_path(path).c_str(), O_RDWR); }

int I2cPort::set_slave(int fd, int address) { return ioctl(fd, I2C_SLAVE, address); }

int I2cPort::write_bytes(int fd, const uint8_t* data, size_t len) {
  return write(fd, data, len) == static_cast<ssize_t>(len) ? 0 : -1;
}

int I2cPort::read_bytes(int fd, uint8_t* data, size_t len) {
  return read(fd, data, len) == static_cast<ssize_t>(len) ? 0 : -1;
}

void I2cPort::close_bus(int fd) { close(fd); }

I2cPort* set_i2c_port(I2cPort* p) { return g_port.exchange(p != nullptr ? p : &g_real_port); }

int check_9022_status(int type) {
  // Only the boards with the HDMI output carry the transmitter.
  if (type != 1 && type != 5 && type != 6 && type != 7 && type != 8) return 1;
  I2cPort* port = g_port.load();
  int fd = port->open_bus(kSii9022Bus);
  if (fd < 0) {
    if (errno == ENOENT || errno == ENODEV || errno == ENXIO) {
      DBG_INFO("%s not present, hdmi test skipped\n", kSii9022Bus);
      return 1;
    }
    DBG_ERR("open %s failed\n", kSii9022Bus);
    return -1;
  }
  int rc = -1;
  uint8_t id = 0;
  const uint8_t enable[2] = {kSii9022TpiEnableReg, 0x00};
  const uint8_t reg = kSii9022DeviceIdReg;
  if (port->set_slave(fd, kSii9022Address) != 0) {
    DBG_ERR("ioctl I2C_SLAVE failed\n");
  } else if (port->write_bytes(fd, enable, sizeof(enable)) != 0 ||
             port->write_bytes(fd, &reg, 1) != 0 || port->read_bytes(fd, &id, 1) != 0) {
    DBG_ERR("sii9022 does not answer\n");
  } else {
    DBG_INFO("sii9022 device id: 0x%02x\n", id);
    rc = id == kSii9022DeviceId ? 0 : -1;
  }
  port->close_bus(fd);
  return rc;
}
