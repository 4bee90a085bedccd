// Raw flash access through the MTD character devices ("/dev/mtd%d").
#pragma once

#include <mtd/mtd-user.h>
#include <sys/types.h>

#include <cstdint>

// The seam to the flash. On the camera: the kernel's MTD character devices
// (open/ioctl/lseek/read/write). In tests: an in-memory flash.
// Calls return what the system calls return (-1 with errno on failure).
class MtdDevices {
 public:
  virtual ~MtdDevices() = default;
  virtual int open(const char* path, int flags);
  virtual int close(int fd);
  virtual int get_info(int fd, mtd_info_user* info);                // MEMGETINFO
  virtual int erase(int fd, const erase_info_user* ei);             // MEMERASE
  virtual int get_bad_block(int fd, loff_t offset);                 // MEMGETBADBLOCK
  virtual int get_region_count(int fd, int* count);                 // MEMGETREGIONCOUNT
  virtual int get_region_info(int fd, region_info_user* region);    // MEMGETREGIONINFO
  virtual off_t lseek(int fd, off_t offset, int whence);
  virtual ssize_t read(int fd, void* buf, size_t count);
  virtual ssize_t write(int fd, const void* buf, size_t count);
};

MtdDevices& mtd_devices();
// Installs `d` (nullptr restores the kernel devices); returns the previous one.
MtdDevices* set_mtd_devices(MtdDevices* d);

// Size in bytes of /dev/mtd<index>, 0 on any failure.
uint32_t orn_get_mtd_size(int index);
