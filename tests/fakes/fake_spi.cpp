#include "fakes/fake_spi.h"

#include <fcntl.h>
#include <linux/spi/spidev.h>

#include <cerrno>
#include <cstring>

namespace {
// Fails a call the way the kernel does: -1 with errno set.
int fail(int error) {
  errno = error;
  return -1;
}
}  // namespace

uint16_t FakeGv7600::reg(uint16_t address) const {
  auto it = regs_.find(address);
  return it == regs_.end() ? 0 : it->second;
}

void FakeGv7600::exchange(const uint8_t* mosi, uint8_t* miso, size_t len) {
  memset(miso, 0, len);
  if (len < 4) return;
  uint16_t command = static_cast<uint16_t>((mosi[0] << 8) | mosi[1]);
  uint16_t address = command & 0x7FFF;
  if (command & 0x8000) {
    uint16_t value = reg(address);
    miso[2] = static_cast<uint8_t>(value >> 8);
    miso[3] = static_cast<uint8_t>(value);
  } else {
    regs_[address] = static_cast<uint16_t>((mosi[2] << 8) | mosi[3]);
  }
}

void FakeGv7700::exchange(const uint8_t* mosi, uint8_t* miso, size_t len) {
  memcpy(miso, mosi, len);
}

void MisoTiedLow::exchange(const uint8_t*, uint8_t* miso, size_t len) { memset(miso, 0, len); }

FakeSpiBus::FakeSpiBus(std::shared_ptr<SpiChip> chip) : chip_(std::move(chip)) {
  previous_ = set_spidev(this);
}

FakeSpiBus::~FakeSpiBus() { set_spidev(previous_); }

int FakeSpiBus::open(const char* path, int flags) {
  std::lock_guard<std::mutex> lock(mu_);
  events_.push_back(std::string("open:") + path + ":" + ((flags & O_ACCMODE) == O_RDONLY ? "r" : "rw"));
  if (!present) return fail(ENOENT);
  int fd = next_fd_++;
  open_[fd] = true;
  return fd;
}

int FakeSpiBus::ioctl(int fd, unsigned long request, void* arg) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!open_.count(fd)) return fail(EBADF);
  if (request == fail_request) return fail(EINVAL);
  if (request == SPI_IOC_WR_MODE || request == SPI_IOC_WR_BITS_PER_WORD) {
    const bool mode = request == SPI_IOC_WR_MODE;
    (mode ? mode_ : bits_) = *static_cast<uint8_t*>(arg);
    events_.push_back((mode ? "mode:" : "bits:") + std::to_string(mode ? mode_ : bits_));
    return 0;
  }
  if (request == SPI_IOC_WR_MAX_SPEED_HZ) {
    events_.push_back("speed:" + std::to_string(*static_cast<uint32_t*>(arg)));
    return 0;
  }
  if (request == SPI_IOC_MESSAGE(1)) {
    auto* xfer = static_cast<spi_ioc_transfer*>(arg);
    const auto* tx = reinterpret_cast<const uint8_t*>(static_cast<uintptr_t>(xfer->tx_buf));
    auto* rx = reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(xfer->rx_buf));
    Transfer t;
    t.tx.assign(tx, tx + xfer->len);
    t.rx.assign(xfer->len, 0);
    // Clocked in the wrong mode or word size the chip sees noise and does
    // not drive MISO.
    if (mode_ == kSdiSpiMode && bits_ == kSdiSpiBits && xfer->speed_hz == 0 && chip_)
      chip_->exchange(t.tx.data(), t.rx.data(), t.tx.size());
    memcpy(rx, t.rx.data(), t.rx.size());
    events_.push_back("xfer:" + std::to_string(xfer->len));
    transfers_.push_back(std::move(t));
    return static_cast<int>(xfer->len);
  }
  return fail(ENOTTY);
}

int FakeSpiBus::close(int fd) {
  std::lock_guard<std::mutex> lock(mu_);
  events_.push_back("close");
  open_.erase(fd);
  return 0;
}

std::vector<FakeSpiBus::Transfer> FakeSpiBus::transfers() const {
  std::lock_guard<std::mutex> lock(mu_);
  return transfers_;
}

std::vector<std::string> FakeSpiBus::events() const {
  std::lock_guard<std::mutex> lock(mu_);
  return events_;
}
