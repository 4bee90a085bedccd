// The one flash model behind the MtdDevices seam (install/mtd_debug.h),
// written after NOR and NAND chips: erased bytes read 0xFF, programming can
// only clear bits (NAND programs whole pages only), a bad block refuses erase
// and program on NAND (other types only report it), faults can be injected
// per block, and the power can be cut after the k-th erase or program.
//
// Two faces keep the bytes: memory (MemoryFlash, for unit tests and
// benchmarks) and regular files (sim/flash/file_flash.h, for the sandbox:
// the bytes of "/dev/mtdN" live in that camera file and outlive the process).
// The camera's own build links neither.
//
//   MemoryFlash flash;                    // installs itself, restores on exit
//   flash.add("/dev/mtd0", 0x80000, 0x10000);            // NOR
//   flash.add("/dev/mtd1", 0x100000, 0x20000, kNand, 2048);
//   flash.set_bad_map(1, "...B....");     // one character per erase block
//
// Operations counted for the power cut are erases and writes (programs).
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "install/mtd_debug.h"

inline constexpr uint8_t kNor = MTD_NORFLASH;
inline constexpr uint8_t kNand = MTD_NANDFLASH;

class FlashModel : public MtdDevices {
 public:
  FlashModel() = default;
  FlashModel(const FlashModel&) = delete;
  FlashModel& operator=(const FlashModel&) = delete;

  // Adds a device kept in memory (erased: all 0xFF); returns its index.
  int add(const std::string& path, uint32_t size, uint32_t erasesize, uint8_t type = kNor,
          uint32_t writesize = 1);
  // Adds /dev/mtd0.. with the given sizes, all with the same erase size and type.
  void add_chain(const std::vector<uint32_t>& sizes, uint32_t erasesize, uint8_t type = kNor);
  // Adds a device whose bytes are the camera file `path` itself: created
  // when missing and extended with 0xFF to `size` when opened.
  int add_file(const std::string& path, uint32_t size, uint32_t erasesize, uint8_t type,
               uint32_t writesize);
  // Paths the model does not hold: ENOENT, or with `on` the kernel's devices.
  void pass_unknown_to_kernel(bool on) { locked([&] { pass_unknown_ = on; }); }

  // Contents of a memory device (the test may read or preset them freely).
  std::vector<uint8_t>& data(int dev) { return dev_.at(dev).bytes; }

  // Bad blocks: 'B' bad, anything else good; "..B." marks block 2.
  void set_bad_map(int dev, const std::string& map);
  void mark_bad(int dev, uint32_t block) { locked([&] { dev_.at(dev).bad.at(block) = true; }); }
  // Erased blocks since the last reset_counters(): 'E' erased, '.' not.
  std::string erase_map(int dev) const;

  // Faults (block numbers within the device).
  void fail_erase(int dev, uint32_t block) { locked([&] { dev_.at(dev).erase_fail.insert(block); }); }
  void fail_write(int dev, uint32_t block) { locked([&] { dev_.at(dev).write_fail.insert(block); }); }
  void fail_read(int dev, uint32_t block) { locked([&] { dev_.at(dev).read_fail.insert(block); }); }
  // A read that starts in this block returns at most `keep` bytes, no error.
  void short_read(int dev, uint32_t block, size_t keep) {
    locked([&] { dev_.at(dev).read_short[block] = keep; });
  }
  // The next `times` programs of this block store a corrupted copy.
  void fail_verify(int dev, uint32_t block, int times) {
    locked([&] { dev_.at(dev).weak[block] = times; });
  }
  void fail_open(const std::string& path) { locked([&] { open_fail_.push_back(path); }); }
  void fail_get_info(bool on) { locked([&] { info_fail_ = on; }); }
  void fail_bad_block_query(bool on) { locked([&] { badq_fail_ = on; }); }
  void fail_close(bool on) { locked([&] { close_fail_ = on; }); }
  void set_regions(int dev, const std::vector<region_info_user>& regions) {
    locked([&] { dev_.at(dev).regions = regions; });
  }

  // Power cut after the k-th erase/write: everything after it fails.
  void power_cut_after(long k) { locked([&] { cut_after_ = k; }); }
  bool power_lost() const { return locked([&] { return lost_; }); }

  // Counters.
  long erases() const { return locked([&] { return erases_; }); }
  long bytes_programmed() const { return locked([&] { return programmed_; }); }
  long bytes_read() const { return locked([&] { return read_; }); }
  long operations() const { return locked([&] { return ops_; }); }
  int open_count() const { return locked([&] { return static_cast<int>(fds_.size()); }); }
  void reset_counters();

  // MtdDevices.
  int open(const char* path, int flags) override;
  int close(int fd) override;
  int get_info(int fd, mtd_info_user* info) override;
  int erase(int fd, const erase_info_user* ei) override;
  int get_bad_block(int fd, loff_t offset) override;
  int get_region_count(int fd, int* count) override;
  int get_region_info(int fd, region_info_user* region) override;
  off_t lseek(int fd, off_t offset, int whence) override;
  ssize_t read(int fd, void* buf, size_t count) override;
  ssize_t write(int fd, const void* buf, size_t count) override;

 private:
  struct Device {
    std::string path;
    mtd_info_user info{};
    bool in_file = false;        // the bytes are the camera file `path`
    std::vector<uint8_t> bytes;  // memory devices
    std::vector<bool> bad;
    std::vector<bool> erased;
    std::set<uint32_t> erase_fail, write_fail, read_fail;
    std::map<uint32_t, size_t> read_short;
    std::map<uint32_t, int> weak;
    std::vector<region_info_user> regions;
  };
  struct Handle {
    int dev;
    uint64_t pos;
    int file_fd;  // the open camera file of a file device, else -1
  };
  template <typename F>
  auto locked(F f) const -> decltype(f()) {
    std::lock_guard<std::mutex> lock(mu_);
    return f();
  }
  int add_device(Device d, uint32_t size, uint32_t erasesize, uint8_t type, uint32_t writesize);
  // Counts one mutating operation; false once the power is gone.
  bool powered_op();
  Device* dev_of(int fd, Handle** h);
  // The bytes of a device, in memory or in its file.
  bool load(const Device& d, const Handle& h, uint64_t at, uint8_t* buf, size_t n) const;
  bool store(Device& d, const Handle& h, uint64_t at, const uint8_t* buf, size_t n);

  mutable std::mutex mu_;
  std::vector<Device> dev_;
  std::map<int, Handle> fds_;
  int next_fd_ = 1000;
  bool pass_unknown_ = false;
  std::vector<std::string> open_fail_;
  bool info_fail_ = false, badq_fail_ = false, close_fail_ = false;
  long cut_after_ = -1;
  bool lost_ = false;
  long ops_ = 0, erases_ = 0, programmed_ = 0, read_ = 0;
};

// The in-memory face: installs itself as the flash for its lifetime.
class MemoryFlash : public FlashModel {
 public:
  MemoryFlash() { previous_ = set_mtd_devices(this); }
  ~MemoryFlash() override { set_mtd_devices(previous_); }

 private:
  MtdDevices* previous_ = nullptr;
};
