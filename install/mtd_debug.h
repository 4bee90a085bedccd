// Raw flash access through the MTD character devices ("/dev/mtd%d").
//
// Offsets and lengths are unsigned 32-bit: flash beyond 4 GiB is not
// addressable. Numbers given as text are read with strtol in base 0.
#pragma once

#include <mtd/mtd-user.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

// The seam to the flash. On the camera: the kernel's MTD character devices
// (open/ioctl/lseek/read/write). In tests and benchmarks: the flash model
// in memory; in the sandbox: the same model in regular files (sim/flash).
// Calls return what the system calls return (-1 with errno on failure).
class MtdDevices {
 public:
  virtual ~MtdDevices() = default;
  virtual int open(const char* path, int flags);
  virtual int close(int fd);
  virtual int get_info(int fd, mtd_info_user* info);              // MEMGETINFO
  virtual int erase(int fd, const erase_info_user* ei);           // MEMERASE
  virtual int get_bad_block(int fd, loff_t offset);               // MEMGETBADBLOCK
  virtual int get_region_count(int fd, int* count);               // MEMGETREGIONCOUNT
  virtual int get_region_info(int fd, region_info_user* region);  // MEMGETREGIONINFO
  virtual off_t lseek(int fd, off_t offset, int whence);
  virtual ssize_t read(int fd, void* buf, size_t count);
  virtual ssize_t write(int fd, const void* buf, size_t count);
};

MtdDevices& mtd_devices();
// Installs `d` (nullptr restores the kernel devices); returns the previous one.
MtdDevices* set_mtd_devices(MtdDevices* d);

// Size in bytes of /dev/mtd<index>, 0 on any failure.
uint32_t orn_get_mtd_size(int index);

// Command interface: cmd "info", "read", "write" or "erase". 0 on success,
// -1 on an unknown word, an open failure or a failed operation.
int orn_mtd(const char* cmd, const char* device_path, const char* offset_text,
            const char* length_text, const char* file_path, const char* file_offset_text);
// Same, plus "erase_write" (incremental write with verification), which
// returns 0 whenever the device opened. `progress` is the caller's byte
// counter, advanced by one erase block per visited block. `unverified`, when
// given, counts the blocks that still differed from the file after the
// fourth write: the result does not tell, the caller checks this.
int orn_mtd2(uint32_t* progress, const char* cmd, const char* device_path, const char* offset_text,
             const char* length_text, const char* file_path, const char* file_offset_text,
             uint32_t* unverified = nullptr);

// Plain routines: 0 on success, 1 on failure.
int erase_flash(int fd, uint32_t offset, uint32_t length);
int flash_to_file(int fd, uint32_t offset, size_t length, const char* path);
int file_to_flash(int fd, uint32_t offset, uint32_t length, const char* path, uint32_t file_offset);
// Rewrites only the erase blocks that differ from the file: 0 done, 1 open,
// seek or MEMGETINFO failure, -1 argument, allocation or block failure. A
// block that will not verify is left as it is and counted in `unverified`.
int file_to_flash_erase_write(uint32_t* progress, int fd, uint32_t offset, uint32_t length,
                              const char* path, uint32_t file_offset,
                              uint32_t* unverified = nullptr);

// Diagnostic description of the device on stdout; 0, or 1 on failure.
int mtd_info_dump(int fd);
void print_size(uint32_t value);
// 1 when the first n bytes differ; 0 when equal, n is 0 or a pointer is null.
int buffers_differ(const void* a, const void* b, size_t n);
