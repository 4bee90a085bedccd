#include "install/mtd_debug.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>

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
ssize_t MtdDevices::write(int fd, const void* buf, size_t count) {
  return ::write(fd, buf, count);
}

namespace {
MtdDevices g_kernel_mtd;
std::atomic<MtdDevices*> g_mtd{&g_kernel_mtd};
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
