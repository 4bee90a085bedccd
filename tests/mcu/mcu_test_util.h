// Shared set-up for the controller tests: the fake camera's "/dev/mem" is a
// sparse file (register writes can be read back) and its "/dev/ttyS1" can
// lead to a pseudo-terminal.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_platform.h"
#include "mcu/memmap.h"

using testing::HasSubstr;
using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

class MemFile {
 public:
  explicit MemFile(const FakeCamera& cam) : path_(cam.path("/dev/mem")) {
    std::filesystem::create_directories(cam.path("/dev"));
    int fd = open(path_.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd >= 0) {
      (void)!ftruncate(fd, 0x20300000);  // past 0x20210000 + 64 KiB
      close(fd);
    }
    memmap_release_all();
  }
  ~MemFile() { memmap_release_all(); }

  // Unwritten bytes of the sparse file read as 0; a failed read leaves the
  // marker value in place.
  uint32_t word(uint32_t phys) const { return get<uint32_t>(phys, 0xFFFFFFFFu); }
  uint8_t byte(uint32_t phys) const { return get<uint8_t>(phys, 0xEE); }
  void set_word(uint32_t phys, uint32_t v) const { io(phys, &v, sizeof(v), true); }
  void set_byte(uint32_t phys, uint8_t v) const { io(phys, &v, 1, true); }

 private:
  template <typename T>
  T get(uint32_t phys, T v) const {
    io(phys, &v, sizeof(v), false);
    return v;
  }
  void io(uint32_t phys, void* v, size_t n, bool write) const {
    int fd = open(path_.c_str(), O_RDWR);
    if (fd < 0) return;
    ssize_t r = write ? pwrite(fd, v, n, phys) : pread(fd, v, n, phys);
    (void)r;
    close(fd);
  }
  std::string path_;
};

// Points the camera's serial device at `target` (a pty slave).
inline void link_serial(const FakeCamera& cam, const std::string& target) {
  std::filesystem::create_directories(cam.path("/dev"));
  std::filesystem::remove(cam.path("/dev/ttyS1"));
  std::filesystem::create_symlink(target, cam.path("/dev/ttyS1"));
}
