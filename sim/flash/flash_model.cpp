// The flash model's rules (flash_model.h), the same for both faces: only
// where the bytes live differs (memory, or the device's camera file).
#include "sim/flash/flash_model.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/platform.h"

namespace {
// Fails a call the way the kernel does: -1 with errno set.
int fail(int error) {
  errno = error;
  return -1;
}

uint32_t default_flags(uint8_t type) {
  switch (type) {
    case MTD_NANDFLASH:
      return MTD_CAP_NANDFLASH;
    case MTD_RAM:
      return MTD_CAP_RAM;
    case MTD_ROM:
      return MTD_CAP_ROM;
    default:
      return MTD_CAP_NORFLASH;
  }
}

// A file shorter than its device is extended with erased bytes.
bool fill_to_size(int fd, uint32_t size) {
  struct stat st;
  if (fstat(fd, &st) != 0) return false;
  if (!S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) >= size) return true;
  std::vector<unsigned char> ff(size - static_cast<uint32_t>(st.st_size), 0xFF);
  return pwrite(fd, ff.data(), ff.size(), st.st_size) == static_cast<ssize_t>(ff.size());
}
}  // namespace

int FlashModel::add_device(Device d, uint32_t size, uint32_t erasesize, uint8_t type,
                           uint32_t writesize) {
  std::lock_guard<std::mutex> lock(mu_);
  d.info.type = type;
  d.info.flags = default_flags(type);
  d.info.size = size;
  d.info.erasesize = erasesize;
  d.info.writesize = writesize;
  d.info.oobsize = type == kNand ? 64 : 0;
  uint32_t blocks = erasesize != 0 ? (size + erasesize - 1) / erasesize : 0;
  d.bad.assign(blocks, false);
  d.erased.assign(blocks, false);
  dev_.push_back(std::move(d));
  return static_cast<int>(dev_.size()) - 1;
}

int FlashModel::add(const std::string& path, uint32_t size, uint32_t erasesize, uint8_t type,
                    uint32_t writesize) {
  Device d;
  d.path = path;
  d.bytes.assign(size, 0xFF);
  return add_device(std::move(d), size, erasesize, type, writesize);
}

void FlashModel::add_chain(const std::vector<uint32_t>& sizes, uint32_t erasesize, uint8_t type) {
  for (size_t i = 0; i < sizes.size(); ++i) {
    add("/dev/mtd" + std::to_string(i), sizes[i], erasesize, type, type == kNand ? 2048 : 1);
  }
}

int FlashModel::add_file(const std::string& path, uint32_t size, uint32_t erasesize, uint8_t type,
                         uint32_t writesize) {
  Device d;
  d.path = path;
  d.in_file = true;
  return add_device(std::move(d), size, erasesize, type, writesize);
}

void FlashModel::set_bad_map(int dev, const std::string& map) {
  std::lock_guard<std::mutex> lock(mu_);
  Device& d = dev_.at(dev);
  for (size_t i = 0; i < d.bad.size(); ++i) d.bad[i] = i < map.size() && map[i] == 'B';
}

std::string FlashModel::erase_map(int dev) const {
  std::lock_guard<std::mutex> lock(mu_);
  std::string out;
  for (bool e : dev_.at(dev).erased) out += e ? 'E' : '.';
  return out;
}

void FlashModel::reset_counters() {
  std::lock_guard<std::mutex> lock(mu_);
  ops_ = erases_ = programmed_ = read_ = 0;
  for (Device& d : dev_) d.erased.assign(d.erased.size(), false);
}

bool FlashModel::powered_op() {
  if (lost_) return false;
  if (cut_after_ >= 0 && ops_ >= cut_after_) {
    lost_ = true;
    return false;
  }
  ++ops_;
  return true;
}

FlashModel::Device* FlashModel::dev_of(int fd, Handle** h) {
  auto it = fds_.find(fd);
  if (it == fds_.end()) {
    errno = EBADF;
    return nullptr;
  }
  if (h != nullptr) *h = &it->second;
  return &dev_[it->second.dev];
}

bool FlashModel::load(const Device& d, const Handle& h, uint64_t at, uint8_t* buf,
                      size_t n) const {
  if (!d.in_file) {
    memcpy(buf, d.bytes.data() + at, n);
    return true;
  }
  return pread(h.file_fd, buf, n, static_cast<off_t>(at)) == static_cast<ssize_t>(n);
}

bool FlashModel::store(Device& d, const Handle& h, uint64_t at, const uint8_t* buf, size_t n) {
  if (!d.in_file) {
    memcpy(d.bytes.data() + at, buf, n);
    return true;
  }
  return pwrite(h.file_fd, buf, n, static_cast<off_t>(at)) == static_cast<ssize_t>(n);
}

// Descriptors the model did not hand out belong to the kernel's devices when
// unknown paths pass through (only then can such a descriptor exist).
#define PASS_UNKNOWN(fd, call)                                          \
  do {                                                                  \
    if (pass_unknown_ && fds_.count(fd) == 0) return MtdDevices::call; \
  } while (0)

int FlashModel::open(const char* path, int flags) {
  std::lock_guard<std::mutex> lock(mu_);
  for (const std::string& p : open_fail_) {
    if (p == path) return fail(EACCES);
  }
  for (size_t i = 0; i < dev_.size(); ++i) {
    if (dev_[i].path != path) continue;
    int file_fd = -1;
    if (dev_[i].in_file) {
      file_fd = ::open(cam_path(path).c_str(), (flags & ~O_SYNC) | O_CREAT | O_CLOEXEC, 0644);
      if (file_fd < 0) return -1;
      if (!fill_to_size(file_fd, dev_[i].info.size)) {
        ::close(file_fd);
        return fail(EIO);
      }
    }
    int fd = next_fd_++;
    fds_[fd] = Handle{static_cast<int>(i), 0, file_fd};
    return fd;
  }
  if (pass_unknown_) return MtdDevices::open(path, flags);
  return fail(ENOENT);
}

int FlashModel::close(int fd) {
  std::lock_guard<std::mutex> lock(mu_);
  PASS_UNKNOWN(fd, close(fd));
  auto it = fds_.find(fd);
  if (it == fds_.end()) return fail(EBADF);
  if (it->second.file_fd >= 0) ::close(it->second.file_fd);
  fds_.erase(it);
  if (close_fail_) return fail(EIO);
  return 0;
}

int FlashModel::get_info(int fd, mtd_info_user* info) {
  std::lock_guard<std::mutex> lock(mu_);
  PASS_UNKNOWN(fd, get_info(fd, info));
  Device* d = dev_of(fd, nullptr);
  if (d == nullptr) return -1;
  if (info_fail_ || lost_) return fail(EIO);
  *info = d->info;
  return 0;
}

int FlashModel::erase(int fd, const erase_info_user* ei) {
  std::lock_guard<std::mutex> lock(mu_);
  PASS_UNKNOWN(fd, erase(fd, ei));
  Handle* h = nullptr;
  Device* d = dev_of(fd, &h);
  if (d == nullptr) return -1;
  const uint32_t es = d->info.erasesize;
  if (ei->start % es != 0 || ei->length == 0 || ei->length % es != 0 ||
      static_cast<uint64_t>(ei->start) + ei->length > d->info.size)
    return fail(EINVAL);
  if (!powered_op()) return fail(EIO);
  const std::vector<uint8_t> ff(d->in_file ? es : 0, 0xFF);
  for (uint32_t b = ei->start / es; b < (ei->start + ei->length) / es; ++b) {
    if ((d->bad[b] && d->info.type == kNand) || d->erase_fail.count(b) != 0) return fail(EIO);
    const uint64_t at = static_cast<uint64_t>(b) * es;
    if (!d->in_file)
      memset(d->bytes.data() + at, 0xFF, es);
    else if (!store(*d, *h, at, ff.data(), es))
      return fail(EIO);
    d->erased[b] = true;
    ++erases_;
  }
  return 0;
}

int FlashModel::get_bad_block(int fd, loff_t offset) {
  std::lock_guard<std::mutex> lock(mu_);
  PASS_UNKNOWN(fd, get_bad_block(fd, offset));
  Device* d = dev_of(fd, nullptr);
  if (d == nullptr) return -1;
  if (badq_fail_ || lost_) return fail(EIO);
  if (offset < 0 || static_cast<uint64_t>(offset) >= d->info.size) return fail(EINVAL);
  return d->bad[static_cast<size_t>(offset / d->info.erasesize)] ? 1 : 0;
}

int FlashModel::get_region_count(int fd, int* count) {
  std::lock_guard<std::mutex> lock(mu_);
  PASS_UNKNOWN(fd, get_region_count(fd, count));
  Device* d = dev_of(fd, nullptr);
  if (d == nullptr) return -1;
  *count = static_cast<int>(d->regions.size());
  return 0;
}

int FlashModel::get_region_info(int fd, region_info_user* region) {
  std::lock_guard<std::mutex> lock(mu_);
  PASS_UNKNOWN(fd, get_region_info(fd, region));
  Device* d = dev_of(fd, nullptr);
  if (d == nullptr) return -1;
  if (region->regionindex >= d->regions.size()) return fail(EINVAL);
  *region = d->regions[region->regionindex];
  return 0;
}

off_t FlashModel::lseek(int fd, off_t offset, int whence) {
  std::lock_guard<std::mutex> lock(mu_);
  PASS_UNKNOWN(fd, lseek(fd, offset, whence));
  Handle* h = nullptr;
  Device* d = dev_of(fd, &h);
  if (d == nullptr) return -1;
  int64_t base = whence == SEEK_SET   ? 0
                 : whence == SEEK_CUR ? static_cast<int64_t>(h->pos)
                                      : static_cast<int64_t>(d->info.size);
  int64_t target = base + offset;
  if (target < 0 || target > static_cast<int64_t>(d->info.size)) return fail(EINVAL);
  h->pos = static_cast<uint64_t>(target);
  return static_cast<off_t>(target);
}

ssize_t FlashModel::read(int fd, void* buf, size_t count) {
  std::lock_guard<std::mutex> lock(mu_);
  PASS_UNKNOWN(fd, read(fd, buf, count));
  Handle* h = nullptr;
  Device* d = dev_of(fd, &h);
  if (d == nullptr) return -1;
  if (lost_) return fail(EIO);
  const uint32_t es = d->info.erasesize;
  size_t n = std::min<uint64_t>(count, d->info.size - h->pos);
  auto cut = d->read_short.find(static_cast<uint32_t>(h->pos / es));
  if (cut != d->read_short.end()) n = std::min(n, cut->second);
  for (uint64_t a = h->pos; a < h->pos + n; a += es - a % es) {
    if (d->read_fail.count(static_cast<uint32_t>(a / es)) != 0) return fail(EIO);
  }
  if (n > 0 && !load(*d, *h, h->pos, static_cast<uint8_t*>(buf), n)) return fail(EIO);
  h->pos += n;
  read_ += static_cast<long>(n);
  return static_cast<ssize_t>(n);
}

ssize_t FlashModel::write(int fd, const void* buf, size_t count) {
  std::lock_guard<std::mutex> lock(mu_);
  PASS_UNKNOWN(fd, write(fd, buf, count));
  Handle* h = nullptr;
  Device* d = dev_of(fd, &h);
  if (d == nullptr) return -1;
  const uint32_t es = d->info.erasesize;
  if (h->pos + count > d->info.size) return fail(ENOSPC);
  // NAND programs whole pages only.
  if (d->info.writesize > 1 && (h->pos % d->info.writesize != 0 || count % d->info.writesize != 0))
    return fail(EINVAL);
  for (uint64_t a = h->pos; a < h->pos + count; a += es - a % es) {
    uint32_t b = static_cast<uint32_t>(a / es);
    if ((d->bad[b] && d->info.type == kNand) || d->write_fail.count(b) != 0) return fail(EIO);
  }
  if (!powered_op()) return fail(EIO);
  // Programming clears bits only: the new byte is the old one AND the data
  // (the first byte of a weak block's program comes out corrupted). A memory
  // device is programmed in place, a file device through a copy.
  std::vector<uint8_t> copy(d->in_file ? count : 0);
  uint8_t* cells = d->in_file ? copy.data() : d->bytes.data() + h->pos;
  if (d->in_file && count > 0 && !load(*d, *h, h->pos, cells, count)) return fail(EIO);
  const uint8_t* src = static_cast<const uint8_t*>(buf);
  for (size_t i = 0; i < count; ++i) {
    uint64_t a = h->pos + i;
    uint8_t v = src[i];
    auto weak = d->weak.find(static_cast<uint32_t>(a / es));
    if (weak != d->weak.end() && weak->second > 0 && a % es == 0) v ^= 0x01;
    cells[i] &= v;
  }
  if (d->in_file && count > 0 && !store(*d, *h, h->pos, cells, count)) return fail(EIO);
  for (uint64_t a = h->pos; a < h->pos + count; a += es - a % es) {
    auto weak = d->weak.find(static_cast<uint32_t>(a / es));
    if (weak != d->weak.end() && weak->second > 0) --weak->second;
  }
  h->pos += count;
  programmed_ += static_cast<long>(count);
  return static_cast<ssize_t>(count);
}
