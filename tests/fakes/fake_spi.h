// A fake SPI bus behind the spidev seam, with models of the chips the SDI
// probes talk to. Transfers are decoded from spi_ioc_transfer exactly as the
// kernel driver would receive them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "video_out/sdi_probe.h"

// A device on the bus: clocks `len` bytes in from MOSI and out on MISO.
class SpiChip {
 public:
  virtual ~SpiChip() = default;
  virtual void exchange(const uint8_t* mosi, uint8_t* miso, size_t len) = 0;
};

// GV7600: 16-bit command word (bit 15 = read, 15-bit address), 16-bit data
// word; a read returns the register in the data word.
class FakeGv7600 : public SpiChip {
 public:
  void set_reg(uint16_t address, uint16_t value) { regs_[address] = value; }
  uint16_t reg(uint16_t address) const;
  void exchange(const uint8_t* mosi, uint8_t* miso, size_t len) override;

 private:
  std::map<uint16_t, uint16_t> regs_;
};

// GV7700 as the probe sees it: the bytes of a read command are clocked back
// on MISO while they are sent.
class FakeGv7700 : public SpiChip {
 public:
  void exchange(const uint8_t* mosi, uint8_t* miso, size_t len) override;
};

// Nothing answers: MISO tied low.
class MisoTiedLow : public SpiChip {
 public:
  void exchange(const uint8_t*, uint8_t* miso, size_t len) override;
};

class FakeSpiBus : public SpiDevice {
 public:
  struct Transfer {
    std::vector<uint8_t> tx;
    std::vector<uint8_t> rx;
  };

  // Installs itself as the spidev seam until destroyed.
  explicit FakeSpiBus(std::shared_ptr<SpiChip> chip);
  ~FakeSpiBus() override;

  int open(const char* path, int flags) override;
  int ioctl(int fd, unsigned long request, void* arg) override;
  int close(int fd) override;

  // Settings.
  bool present = true;            // the device node exists
  unsigned long fail_request = 0;  // this ioctl request fails with -1

  std::vector<Transfer> transfers() const;
  std::vector<std::string> events() const;  // "open:<path>:<r|rw>", "mode:3", "xfer:4", "close"

 private:
  std::shared_ptr<SpiChip> chip_;
  SpiDevice* previous_ = nullptr;
  mutable std::mutex mu_;
  std::map<int, bool> open_;
  int next_fd_ = 100;
  uint8_t mode_ = 0;
  uint8_t bits_ = 0;
  std::vector<Transfer> transfers_;
  std::vector<std::string> events_;
};
