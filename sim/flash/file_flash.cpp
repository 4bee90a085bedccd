// The file face of the flash model: the description file and UPGRADE_FLASH_SIM.
#include "sim/flash/file_flash.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

FlashModel* load_file_flash(const std::string& description_path) {
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
  auto* flash = new FlashModel;
  flash->pass_unknown_to_kernel(true);
  for (const sim_device& d : devices) {
    int i = flash->add_file(d.path, d.info.size, d.info.erasesize, d.info.type, d.info.writesize);
    for (uint32_t block : d.bad_blocks) flash->mark_bad(i, block);
  }
  return flash;
}

int install_flash_backend_from_env() {
  const char* desc = getenv("UPGRADE_FLASH_SIM");
  if (desc == nullptr || desc[0] == '\0') return 0;
  FlashModel* flash = load_file_flash(desc);
  if (flash == nullptr) return 0;
  // Lives as long as the process.
  set_mtd_devices(flash);
  DBG_INFO("flash devices from %s\n", desc);
  return 1;
}
