#include "install/mtd_file_backend.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <vector>

#include "core/dbgout.h"
#include "core/platform.h"

namespace {

struct sim_device {
  std::string path;  // "/dev/mtd0"
  mtd_info_user info{};
  std::set<uint32_t> bad_blocks;
};

class FileFlash : public MtdDevices {
 public:
  explicit FileFlash(std::vector<sim_device> devices) : devices_(std::move(devices)) {}

  int open(const char* path, int flags) override {
    const sim_device* d = find(path);
    if (d == nullptr) return MtdDevices::open(path, flags);
    int fd = ::open(cam_path(path).c_str(), (flags & ~O_SYNC) | O_CREAT, 0644);
    if (fd < 0) return -1;
    if (!fill_to_size(fd, d->info.size)) {
      ::close(fd);
      errno = EIO;
      return -1;
    }
    std::lock_guard<std::mutex> lock(mu_);
    open_[fd] = d;
    return fd;
  }

  int close(int fd) override {
    {
      std::lock_guard<std::mutex> lock(mu_);
      open_.erase(fd);
    }
    return ::close(fd);
  }

  int get_info(int fd, mtd_info_user* info) override {
    const sim_device* d = lookup(fd);
    if (d == nullptr) return MtdDevices::get_info(fd, info);
    *info = d->info;
    return 0;
  }

  int erase(int fd, const erase_info_user* ei) override {
    const sim_device* d = lookup(fd);
    if (d == nullptr) return MtdDevices::erase(fd, ei);
    const uint32_t es = d->info.erasesize;
    if (ei->start % es != 0 || ei->length % es != 0 ||
        static_cast<uint64_t>(ei->start) + ei->length > d->info.size) {
      errno = EINVAL;
      return -1;
    }
    if (d->bad_blocks.count(ei->start / es) != 0) {
      errno = EIO;
      return -1;
    }
    std::vector<unsigned char> ff(ei->length, 0xFF);
    return pwrite(fd, ff.data(), ff.size(), ei->start) == static_cast<ssize_t>(ff.size()) ? 0 : -1;
  }

  int get_bad_block(int fd, loff_t offset) override {
    const sim_device* d = lookup(fd);
    if (d == nullptr) return MtdDevices::get_bad_block(fd, offset);
    if (offset < 0 || static_cast<uint64_t>(offset) >= d->info.size) {
      errno = EINVAL;
      return -1;
    }
    return d->bad_blocks.count(static_cast<uint32_t>(offset / d->info.erasesize)) != 0 ? 1 : 0;
  }

  int get_region_count(int fd, int* count) override {
    if (lookup(fd) == nullptr) return MtdDevices::get_region_count(fd, count);
    *count = 0;
    return 0;
  }

  int get_region_info(int fd, region_info_user* region) override {
    if (lookup(fd) == nullptr) return MtdDevices::get_region_info(fd, region);
    errno = EINVAL;
    return -1;
  }

  ssize_t read(int fd, void* buf, size_t count) override {
    const sim_device* d = lookup(fd);
    if (d == nullptr) return MtdDevices::read(fd, buf, count);
    off_t pos = ::lseek(fd, 0, SEEK_CUR);
    if (pos < 0) return -1;
    if (static_cast<uint64_t>(pos) >= d->info.size) return 0;
    size_t room = static_cast<size_t>(d->info.size - static_cast<uint64_t>(pos));
    return ::read(fd, buf, count < room ? count : room);
  }

  // Programming clears bits only: the new byte is the old one AND the data.
  ssize_t write(int fd, const void* buf, size_t count) override {
    const sim_device* d = lookup(fd);
    if (d == nullptr) return MtdDevices::write(fd, buf, count);
    off_t pos = ::lseek(fd, 0, SEEK_CUR);
    if (pos < 0) return -1;
    if (static_cast<uint64_t>(pos) + count > d->info.size) {
      errno = ENOSPC;
      return -1;
    }
    std::vector<unsigned char> cur(count);
    if (pread(fd, cur.data(), count, pos) != static_cast<ssize_t>(count)) return -1;
    const unsigned char* src = static_cast<const unsigned char*>(buf);
    for (size_t i = 0; i < count; ++i) cur[i] &= src[i];
    ssize_t n = pwrite(fd, cur.data(), count, pos);
    if (n > 0) ::lseek(fd, pos + n, SEEK_SET);
    return n;
  }

 private:
  const sim_device* find(const char* path) const {
    for (const sim_device& d : devices_) {
      if (d.path == path) return &d;
    }
    return nullptr;
  }
  const sim_device* lookup(int fd) {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = open_.find(fd);
    return it == open_.end() ? nullptr : it->second;
  }
  static bool fill_to_size(int fd, uint32_t size) {
    struct stat st;
    if (fstat(fd, &st) != 0) return false;
    if (!S_ISREG(st.st_mode) || static_cast<uint64_t>(st.st_size) >= size) return true;
    std::vector<unsigned char> ff(size - static_cast<uint32_t>(st.st_size), 0xFF);
    return pwrite(fd, ff.data(), ff.size(), st.st_size) == static_cast<ssize_t>(ff.size());
  }

  std::vector<sim_device> devices_;
  std::mutex mu_;
  std::map<int, const sim_device*> open_;
};

bool parse_number(const std::string& text, uint32_t* out) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  unsigned long long v = strtoull(text.c_str(), &end, 0);
  if (errno != 0 || *end != '\0' || v > 0xFFFFFFFFULL) return false;
  *out = static_cast<uint32_t>(v);
  return true;
}

bool parse_type(const std::string& word, uint8_t* type, uint32_t* flags) {
  if (word == "nor") {
    *type = MTD_NORFLASH;
    *flags = MTD_CAP_NORFLASH;
  } else if (word == "nand") {
    *type = MTD_NANDFLASH;
    *flags = MTD_CAP_NANDFLASH;
  } else if (word == "ram") {
    *type = MTD_RAM;
    *flags = MTD_CAP_RAM;
  } else if (word == "rom") {
    *type = MTD_ROM;
    *flags = MTD_CAP_ROM;
  } else if (word == "dataflash") {
    *type = MTD_DATAFLASH;
    *flags = MTD_CAP_NORFLASH;
  } else
    return false;
  return true;
}

bool parse_line(const std::string& line, sim_device* d) {
  std::istringstream in(line);
  std::string name, type, size, erasesize, opt;
  if (!(in >> name >> type >> size >> erasesize)) return false;
  if (name.compare(0, 3, "mtd") != 0 || name.size() > 6 ||
      name.find_first_not_of("0123456789", 3) != std::string::npos || name.size() == 3) {
    return false;
  }
  d->path = "/dev/" + name;
  if (!parse_type(type, &d->info.type, &d->info.flags)) return false;
  if (!parse_number(size, &d->info.size) || !parse_number(erasesize, &d->info.erasesize)) {
    return false;
  }
  if (d->info.erasesize == 0 || d->info.size % d->info.erasesize != 0) return false;
  d->info.writesize = d->info.type == MTD_NANDFLASH ? 2048 : 1;
  while (in >> opt) {
    if (opt.compare(0, 10, "writesize=") == 0) {
      if (!parse_number(opt.substr(10), &d->info.writesize)) return false;
    } else if (opt.compare(0, 10, "badblocks=") == 0) {
      std::istringstream list(opt.substr(10));
      std::string item;
      while (std::getline(list, item, ',')) {
        uint32_t block = 0;
        if (!parse_number(item, &block) || block >= d->info.size / d->info.erasesize) {
          return false;
        }
        d->bad_blocks.insert(block);
      }
    } else {
      return false;
    }
  }
  return true;
}
}  // namespace

MtdDevices* load_file_flash(const std::string& description_path) {
  FILE* fp = fopen(cam_path(description_path).c_str(), "r");
  if (fp == nullptr) {
    DBG_ERR("open %s failed\n", description_path.c_str());
    return nullptr;
  }
  std::vector<sim_device> devices;
  char line[256];
  int lineno = 0;
  bool ok = true;
  while (fgets(line, sizeof(line), fp) != nullptr) {
    ++lineno;
    std::string text = line;
    size_t hash = text.find('#');
    if (hash != std::string::npos) text.resize(hash);
    if (text.find_first_not_of(" \t\r\n") == std::string::npos) continue;
    sim_device d;
    if (!parse_line(text, &d)) {
      DBG_ERR("%s line %d: bad flash description\n", description_path.c_str(), lineno);
      ok = false;
      break;
    }
    devices.push_back(std::move(d));
  }
  fclose(fp);
  if (!ok || devices.empty()) return nullptr;
  return new FileFlash(std::move(devices));
}

int install_flash_backend_from_env() {
  const char* desc = getenv("UPGRADE_FLASH_SIM");
  if (desc == nullptr || desc[0] == '\0') return 0;
  MtdDevices* flash = load_file_flash(desc);
  if (flash == nullptr) return 0;
  // Lives as long as the process.
  set_mtd_devices(flash);
  DBG_INFO("flash devices from %s\n", desc);
  return 1;
}
