// MTD flash access (mtd_debug.h): the kernel devices behind the seam, the
// copy routines and the command interface; the info dump is mtd_info.cpp.
#include "install/mtd_debug.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/dbgout.h"
#include "core/platform.h"

int MtdDevices::open(const char* path, int flags) { return ::open(cam_path(path).c_str(), flags); }
int MtdDevices::close(int fd) { return ::close(fd); }
int MtdDevices::get_info(int fd, mtd_info_user* info) { return ::ioctl(fd, MEMGETINFO, info); }
int MtdDevices::erase(int fd, const erase_info_user* ei) { return ::ioctl(fd, MEMERASE, ei); }
int MtdDevices::get_bad_block(int fd, loff_t offset) {
  return ::ioctl(fd, MEMGETBADBLOCK, &offset);
}
int MtdDevices::get_region_count(int fd, int* count) {
  return ::ioctl(fd, MEMGETREGIONCOUNT, count);
}
int MtdDevices::get_region_info(int fd, region_info_user* region) {
  return ::ioctl(fd, MEMGETREGIONINFO, region);
}
off_t MtdDevices::lseek(int fd, off_t offset, int whence) { return ::lseek(fd, offset, whence); }
ssize_t MtdDevices::read(int fd, void* buf, size_t count) { return ::read(fd, buf, count); }
ssize_t MtdDevices::write(int fd, const void* buf, size_t count) { return ::write(fd, buf, count); }

namespace {
MtdDevices g_kernel_mtd;
std::atomic<MtdDevices*> g_mtd{&g_kernel_mtd};

constexpr uint32_t kCopyBuffer = 0x10000;
// The erase-and-write loop reads a block in two pieces: this much first
// (rounded up to one page), the rest only when the first piece equals the
// image. A block of a new image then costs one page read before its erase,
// not a whole block; on NAND every page read waits for the chip.
constexpr uint32_t kFirstPiece = 0x800;

uint32_t text_number(const char* text) {
  return static_cast<uint32_t>(strtol(text != nullptr ? text : "0", nullptr, 0));
}

bool seek_to(MtdDevices& dev, int fd, uint32_t offset) {
  return dev.lseek(fd, static_cast<off_t>(offset), SEEK_SET) == static_cast<off_t>(offset);
}

// Reads `bs` bytes of flash at `addr` into `buf`: nullptr, or the trace
// line telling which step failed. A short read fails too: the bytes it did
// not fill would compare as flash content.
const char* read_block(MtdDevices& dev, int fd, uint32_t addr, unsigned char* buf, uint32_t bs) {
  if (!seek_to(dev, fd, addr)) return "lseek error\n";
  if (dev.read(fd, buf, bs) != static_cast<ssize_t>(bs)) return "read error\n";
  return nullptr;
}

// Opens the image at `path` positioned at `file_offset`; nullptr (after
// perror) when it cannot.
FILE* open_image_at(const char* path, uint32_t file_offset) {
  FILE* fp = fopen(cam_path(path).c_str(), "r");
  if (fp == nullptr) {
    perror("fopen()");
    return nullptr;
  }
  if (fseeko(fp, static_cast<off_t>(file_offset), SEEK_SET) != 0) {
    perror("fseek()");
    fclose(fp);
    return nullptr;
  }
  return fp;
}
}  // namespace

MtdDevices& mtd_devices() { return *g_mtd.load(std::memory_order_acquire); }
MtdDevices* set_mtd_devices(MtdDevices* d) {
  return g_mtd.exchange(d != nullptr ? d : &g_kernel_mtd, std::memory_order_acq_rel);
}

uint32_t orn_get_mtd_size(int index) {
  char path[32];
  snprintf(path, sizeof(path), "/dev/mtd%d", index);
  MtdDevices& dev = mtd_devices();
  int fd = dev.open(path, O_RDWR | O_SYNC);
  if (fd < 0) {
    TRACE("orn_mtd, open %s fail\n", path);
    return 0;
  }
  mtd_info_user info{};
  if (dev.get_info(fd, &info) < 0) {
    perror("MEMGETINFO");
    dev.close(fd);
    return 0;
  }
  if (dev.close(fd) < 0) TRACE("close %s fail\n", path);
  return info.size;
}

int buffers_differ(const void* a, const void* b, size_t n) {
  if (a == nullptr || b == nullptr || n == 0) return 0;
  return memcmp(a, b, n) != 0 ? 1 : 0;
}

int erase_flash(int fd, uint32_t offset, uint32_t length) {
  MtdDevices& dev = mtd_devices();
  mtd_info_user info{};
  if (dev.get_info(fd, &info) < 0 || info.erasesize == 0) {
    puts("get MEMGETINFO failed!");
    return 1;
  }
  const uint32_t end = offset + length;
  for (uint64_t addr = offset; addr < end; addr += info.erasesize) {
    int bad = dev.get_bad_block(fd, static_cast<loff_t>(addr));
    if (bad < 0) {
      printf("MEMGETBADBLOCK error");
      fflush(stdout);
      return 1;
    }
    if (bad > 0) {
      printf("mtd: not erasing bad block at 0x%08llx\n", static_cast<unsigned long long>(addr));
      continue;
    }
    erase_info_user ei{static_cast<uint32_t>(addr), info.erasesize};
    if (dev.erase(fd, &ei) < 0) {
      printf("mtd: erase failure at 0x%08llx\n", static_cast<unsigned long long>(addr));
      fflush(stdout);
      return 1;
    }
  }
  fflush(stdout);
  return 0;
}

int flash_to_file(int fd, uint32_t offset, size_t length, const char* path) {
  MtdDevices& dev = mtd_devices();
  if (!seek_to(dev, fd, offset)) {
    perror("lseek()");
    return 1;
  }
  int out = creat(cam_path(path).c_str(), 0666);
  if (out < 0) {
    perror("creat()");
    return 1;
  }
  size_t size = length;
  unsigned char* buf = static_cast<unsigned char*>(malloc(size));
  if (buf == nullptr) {
    fprintf(stderr, "%s: malloc(%#x)\n", "flash_to_file", static_cast<unsigned>(size));
    size = kCopyBuffer;
    fprintf(stderr, "%s: trying buffer size %#x\n", "flash_to_file", static_cast<unsigned>(size));
    buf = static_cast<unsigned char*>(malloc(size));
    if (buf == nullptr) {
      perror("malloc()");
      ::close(out);
      return 1;
    }
  }
  size_t remaining = length;
  while (remaining > 0) {
    size_t chunk = remaining < size ? remaining : size;
    const ssize_t got = dev.read(fd, buf, chunk);
    if (got != static_cast<ssize_t>(chunk)) {
      // A short read would copy stale buffer bytes into the file.
      fprintf(stderr, "%s: read, size %#x, n %#x\n", "flash_to_file", static_cast<unsigned>(chunk),
              static_cast<unsigned>(remaining));
      if (got < 0) perror("read()");
      goto fail;
    }
    ssize_t n = ::write(out, buf, chunk);
    if (n < 0) {
      fprintf(stderr, "%s: write, size %#x, n %#x\n", "flash_to_file", static_cast<unsigned>(chunk),
              static_cast<unsigned>(remaining));
      perror("write()");
      goto fail;
    }
    if (static_cast<size_t>(n) != chunk) {
      fprintf(stderr, "Couldn't copy entire buffer to %s. (%d/%d bytes copied)\n", path,
              static_cast<int>(n), static_cast<int>(chunk));
      goto fail;
    }
    remaining -= chunk;
  }
  free(buf);
  ::close(out);
  printf("Copied %zu bytes from address 0x%.8x in flash to %s\n", length, offset, path);
  fflush(stdout);
  return 0;
fail:
  free(buf);
  ::close(out);
  return 1;
}

int file_to_flash(int fd, uint32_t offset, uint32_t length, const char* path,
                  uint32_t file_offset) {
  MtdDevices& dev = mtd_devices();
  if (!seek_to(dev, fd, offset)) {
    perror("lseek()");
    return 1;
  }
  FILE* fp = open_image_at(path, file_offset);
  if (fp == nullptr) return 1;
  unsigned char* buf = static_cast<unsigned char*>(malloc(kCopyBuffer));
  if (buf == nullptr) {
    fprintf(stderr, "%s: malloc(%#x) failed\n", "file_to_flash", kCopyBuffer);
    perror("malloc()");
    fclose(fp);
    return 1;
  }
  uint32_t remaining = length;
  while (remaining > 0) {
    uint32_t chunk = remaining < kCopyBuffer ? remaining : kCopyBuffer;
    if (fread(buf, chunk, 1, fp) != 1 || ferror(fp)) {
      fprintf(stderr, "%s: fread, size %#x, n %#x\n", "file_to_flash", chunk, remaining);
      perror("fread()");
      free(buf);
      fclose(fp);
      return 1;
    }
    if (dev.write(fd, buf, chunk) < 0) {
      fprintf(stderr, "%s: write, size %#x, n %#x\n", "file_to_flash", chunk, remaining);
      perror("write()");
      free(buf);
      fclose(fp);
      return 1;
    }
    remaining -= chunk;
  }
  free(buf);
  fclose(fp);
  printf("Copied %d bytes from %s to address 0x%.8x in flash\n", static_cast<int>(length), path,
         offset);
  fflush(stdout);
  return 0;
}

int file_to_flash_erase_write(uint32_t* progress, int fd, uint32_t offset, uint32_t length,
                              const char* path, uint32_t file_offset, uint32_t* unverified) {
  if (path == nullptr || length == 0) {
    TRACE("filename error\n");
    return -1;
  }
  MtdDevices& dev = mtd_devices();
  FILE* fp = open_image_at(path, file_offset);
  if (fp == nullptr) return 1;
  mtd_info_user info{};
  if (dev.get_info(fd, &info) < 0 || info.erasesize == 0) {
    TRACE("get MEMGETINFO failed!\n");
    fclose(fp);
    return 1;
  }
  DBG_INFO("####### sizeof: %d, offset: 0x%x, len: 0x%x, fileoffset: 0x%x\n", 1, offset, length,
           file_offset);
  const uint32_t bs = info.erasesize;
  const uint32_t page = info.writesize > kFirstPiece ? info.writesize : kFirstPiece;
  const uint32_t first = page < bs ? page : bs;
  unsigned char* flash_buf = static_cast<unsigned char*>(malloc(bs));
  unsigned char* file_buf = static_cast<unsigned char*>(malloc(bs));
  int result = 0;
  if (flash_buf == nullptr || file_buf == nullptr) {
    TRACE("malloc error\n");
    result = -1;
  }
  const uint32_t end = offset + length;
  for (uint64_t addr64 = offset; result == 0 && addr64 < end; addr64 += bs) {
    const uint32_t addr = static_cast<uint32_t>(addr64);
    const unsigned long long addr_ll = addr;
    int bad = dev.get_bad_block(fd, static_cast<loff_t>(addr));
    if (bad > 0) {
      TRACE("mtd: not erasing bad block at 0x%08llx\n", addr_ll);
      if (info.type == MTD_NANDFLASH) {
        TRACE("continue\n");
        continue;
      }
    } else if (bad < 0) {
      TRACE("MEMGETBADBLOCK error at 0x%08llx\n", addr_ll);
      result = -1;
      break;
    }
    if (progress != nullptr) *progress += bs;
    if (const char* failed = read_block(dev, fd, addr, flash_buf, first)) {
      TRACE("%s", failed);
      result = -1;
      break;
    }
    if (fread(file_buf, bs, 1, fp) != 1 || ferror(fp)) {
      TRACE("fread error\n");
      result = -1;
      break;
    }
    // Equal so far: the rest of the block decides.
    if (!buffers_differ(flash_buf, file_buf, first)) {
      if (first == bs) continue;
      if (const char* failed = read_block(dev, fd, addr + first, flash_buf + first, bs - first)) {
        TRACE("%s", failed);
        result = -1;
        break;
      }
      if (!buffers_differ(flash_buf + first, file_buf + first, bs - first)) continue;
    }

    // Erase, write and read back; four attempts in all.
    for (int retry = 3;; --retry) {
      erase_info_user ei{addr, bs};
      if (dev.erase(fd, &ei) < 0) {
        TRACE("mtd: erase failure at 0x%08llx\n", addr_ll);
        result = -1;
        break;
      }
      if (!seek_to(dev, fd, addr)) {
        TRACE("lseek error\n");
        result = -1;
        break;
      }
      if (dev.write(fd, file_buf, bs) < 0) {
        TRACE("write error\n");
        result = -1;
        break;
      }
      if (const char* failed = read_block(dev, fd, addr, flash_buf, bs)) {
        TRACE("%s", failed);
        result = -1;
        break;
      }
      if (!buffers_differ(flash_buf, file_buf, bs)) break;
      if (retry == 0) {
        TRACE("error: read flash after write, but the data is not the same\n");
        if (unverified != nullptr) ++*unverified;
        break;
      }
    }
  }
  free(flash_buf);
  free(file_buf);
  fclose(fp);
  return result;
}

namespace {
// Shared body of the two command interfaces.
int dispatch(uint32_t* progress, uint32_t* unverified, bool with_erase_write, const char* cmd,
             const char* device_path, const char* offset_text, const char* length_text,
             const char* file_path, const char* file_offset_text, const char* caller) {
  enum { INFO, READ, WRITE, ERASE, ERASE_WRITE } op;
  if (cmd == nullptr) return -1;
  if (strcmp(cmd, "info") == 0)
    op = INFO;
  else if (strcmp(cmd, "read") == 0)
    op = READ;
  else if (strcmp(cmd, "write") == 0)
    op = WRITE;
  else if (strcmp(cmd, "erase") == 0)
    op = ERASE;
  else if (with_erase_write && strcmp(cmd, "erase_write") == 0)
    op = ERASE_WRITE;
  else
    return -1;

  MtdDevices& dev = mtd_devices();
  int fd = dev.open(device_path, O_RDWR | O_SYNC);
  if (fd < 0) {
    dbg_err_line(__FILE_NAME__, caller, __LINE__, "orn_mtd, open %s fail\n", device_path);
    return -1;
  }
  const uint32_t offset = text_number(offset_text);
  const uint32_t length = text_number(length_text);
  const uint32_t file_offset = text_number(file_offset_text);
  int result = 0;
  switch (op) {
    case INFO:
      break;
    case READ:
      result = flash_to_file(fd, offset, length, file_path);
      break;
    case WRITE:
      result = file_to_flash(fd, offset, length, file_path, file_offset);
      break;
    case ERASE:
      result = erase_flash(fd, offset, length);
      break;
    case ERASE_WRITE:
      // The outcome is only logged: this command reports 0 once the device opened.
      file_to_flash_erase_write(progress, fd, offset, length, file_path, file_offset, unverified);
      break;
  }
  if (result == 1) result = -1;
  if (dev.close(fd) < 0) {
    dbg_err_line(__FILE_NAME__, caller, __LINE__, "close %s fail\n", device_path);
  }
  return result;
}
}  // namespace

int orn_mtd(const char* cmd, const char* device_path, const char* offset_text,
            const char* length_text, const char* file_path, const char* file_offset_text) {
  return dispatch(nullptr, nullptr, false, cmd, device_path, offset_text, length_text, file_path,
                  file_offset_text, "orn_mtd");
}

int orn_mtd2(uint32_t* progress, const char* cmd, const char* device_path, const char* offset_text,
             const char* length_text, const char* file_path, const char* file_offset_text,
             uint32_t* unverified) {
  return dispatch(progress, unverified, true, cmd, device_path, offset_text, length_text,
                  file_path, file_offset_text, "orn_mtd2");
}
