#include "fakes/fake_flash.h"

#include <cerrno>
#include <cstring>

namespace {
// Fails a call the way the kernel does: -1 with errno set.
int fail(int error) {
  errno = error;
  return -1;
}
}  // namespace

FakeFlash::FakeFlash() { previous_ = set_mtd_devices(this); }
FakeFlash::~FakeFlash() { set_mtd_devices(previous_); }

int FakeFlash::add(const std::string& path, uint32_t size, uint32_t erasesize, uint8_t type,
                   uint32_t writesize) {
  std::lock_guard<std::mutex> lock(mu_);
  Device d;
  d.path = path;
  d.info.type = type;
  d.info.flags = type == kNand ? MTD_CAP_NANDFLASH : MTD_CAP_NORFLASH;
  d.info.size = size;
  d.info.erasesize = erasesize;
  d.info.writesize = writesize;
  d.info.oobsize = type == kNand ? 64 : 0;
  d.bytes.assign(size, 0xFF);
  uint32_t blocks = erasesize != 0 ? (size + erasesize - 1) / erasesize : 0;
  d.bad.assign(blocks, false);
  d.erased.assign(blocks, false);
  dev_.push_back(std::move(d));
  return static_cast<int>(dev_.size()) - 1;
}

void FakeFlash::add_chain(const std::vector<uint32_t>& sizes, uint32_t erasesize, uint8_t type) {
  for (size_t i = 0; i < sizes.size(); ++i) {
    add("/dev/mtd" + std::to_string(i), sizes[i], erasesize, type, type == kNand ? 2048 : 1);
  }
}

void FakeFlash::set_bad_map(int dev, const std::string& map) {
  std::lock_guard<std::mutex> lock(mu_);
  Device& d = dev_.at(dev);
  for (size_t i = 0; i < d.bad.size(); ++i) d.bad[i] = i < map.size() && map[i] == 'B';
}

std::string FakeFlash::erase_map(int dev) const {
  std::lock_guard<std::mutex> lock(mu_);
  std::string out;
  for (bool e : dev_.at(dev).erased) out += e ? 'E' : '.';
  return out;
}

void FakeFlash::reset_counters() {
  std::lock_guard<std::mutex> lock(mu_);
  ops_ = erases_ = programmed_ = read_ = 0;
  for (Device& d : dev_) d.erased.assign(d.erased.size(), false);
}

bool FakeFlash::powered_op() {
  if (lost_) return false;
  if (cut_after_ >= 0 && ops_ >= cut_after_) {
    lost_ = true;
    return false;
  }
  ++ops_;
  return true;
}

FakeFlash::Device* FakeFlash::dev_of(int fd, Handle** h) {
  auto it = fds_.find(fd);
  if (it == fds_.end()) {
    errno = EBADF;
    return nullptr;
  }
  if (h != nullptr) *h = &it->second;
  return &dev_[it->second.dev];
}

int FakeFlash::open(const char* path, int) {
  std::lock_guard<std::mutex> lock(mu_);
  for (const std::string& p : open_fail_) {
    if (p == path) return fail(EACCES);
  }
  for (size_t i = 0; i < dev_.size(); ++i) {
    if (dev_[i].path == path) {
      int fd = next_fd_++;
      fds_[fd] = Handle{static_cast<int>(i), 0};
      return fd;
    }
  }
  return fail(ENOENT);
}

int FakeFlash::close(int fd) {
  std::lock_guard<std::mutex> lock(mu_);
  if (fds_.erase(fd) == 0) return fail(EBADF);
  if (close_fail_) return fail(EIO);
  return 0;
}

int FakeFlash::get_info(int fd, mtd_info_user* info) {
  std::lock_guard<std::mutex> lock(mu_);
  Device* d = dev_of(fd, nullptr);
  if (d == nullptr) return -1;
  if (info_fail_ || lost_) return fail(EIO);
  *info = d->info;
  return 0;
}

int FakeFlash::erase(int fd, const erase_info_user* ei) {
  std::lock_guard<std::mutex> lock(mu_);
  Device* d = dev_of(fd, nullptr);
  if (d == nullptr) return -1;
  const uint32_t es = d->info.erasesize;
  if (ei->start % es != 0 || ei->length == 0 || ei->length % es != 0 ||
      static_cast<uint64_t>(ei->start) + ei->length > d->info.size)
    return fail(EINVAL);
  if (!powered_op()) return fail(EIO);
  for (uint32_t b = ei->start / es; b < (ei->start + ei->length) / es; ++b) {
    if ((d->bad[b] && d->info.type == kNand) || d->erase_fail.count(b) != 0) return fail(EIO);
    std::memset(d->bytes.data() + static_cast<size_t>(b) * es, 0xFF, es);
    d->erased[b] = true;
    ++erases_;
  }
  return 0;
}

int FakeFlash::get_bad_block(int fd, loff_t offset) {
  std::lock_guard<std::mutex> lock(mu_);
  Device* d = dev_of(fd, nullptr);
  if (d == nullptr) return -1;
  if (badq_fail_ || lost_) return fail(EIO);
  if (offset < 0 || static_cast<uint64_t>(offset) >= d->info.size) return fail(EINVAL);
  return d->bad[static_cast<size_t>(offset / d->info.erasesize)] ? 1 : 0;
}

int FakeFlash::get_region_count(int fd, int* count) {
  std::lock_guard<std::mutex> lock(mu_);
  Device* d = dev_of(fd, nullptr);
  if (d == nullptr) return -1;
  *count = static_cast<int>(d->regions.size());
  return 0;
}

int FakeFlash::get_region_info(int fd, region_info_user* region) {
  std::lock_guard<std::mutex> lock(mu_);
  Device* d = dev_of(fd, nullptr);
  if (d == nullptr) return -1;
  if (region->regionindex >= d->regions.size()) return fail(EINVAL);
  *region = d->regions[region->regionindex];
  return 0;
}

off_t FakeFlash::lseek(int fd, off_t offset, int whence) {
  std::lock_guard<std::mutex> lock(mu_);
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

ssize_t FakeFlash::read(int fd, void* buf, size_t count) {
  std::lock_guard<std::mutex> lock(mu_);
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
  std::memcpy(buf, d->bytes.data() + h->pos, n);
  h->pos += n;
  read_ += static_cast<long>(n);
  return static_cast<ssize_t>(n);
}

ssize_t FakeFlash::write(int fd, const void* buf, size_t count) {
  std::lock_guard<std::mutex> lock(mu_);
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
  const uint8_t* src = static_cast<const uint8_t*>(buf);
  for (size_t i = 0; i < count; ++i) {
    uint64_t a = h->pos + i;
    uint8_t v = src[i];
    auto weak = d->weak.find(static_cast<uint32_t>(a / es));
    if (weak != d->weak.end() && weak->second > 0 && a % es == 0) v ^= 0x01;
    d->bytes[a] &= v;
  }
  for (uint64_t a = h->pos; a < h->pos + count; a += es - a % es) {
    auto weak = d->weak.find(static_cast<uint32_t>(a / es));
    if (weak != d->weak.end() && weak->second > 0) --weak->second;
  }
  h->pos += count;
  programmed_ += static_cast<long>(count);
  return static_cast<ssize_t>(count);
}
