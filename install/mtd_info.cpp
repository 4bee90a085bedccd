// The MTD info dump (mtd_debug.h): MEMGETINFO and the erase regions of a
// device described on standard output.
#include "install/mtd_debug.h"

#include <cstdio>

namespace {

constexpr int kMaxRegions = 32;

// Erase-region table of the info dump (the only state kept between calls).
region_info_user g_regions[kMaxRegions];

struct flag_name {
  const char* name;
  uint32_t mask;
};
const flag_name kFlagNames[] = {{"MTD_WRITEABLE", 0x400},
                                {"MTD_BIT_WRITEABLE", 0x800},
                                {"MTD_NO_ERASE", 0x1000},
                                {"MTD_POWERUP_LOCK", 0x2000},
                                {"", 0}};

}  // namespace

void print_size(uint32_t value) {
  static const char kUnits[] = "KMGT";
  printf("%u ", value);
  if (value >= 1024) {
    size_t unit = 0;
    while (value >= 1024 && unit < sizeof(kUnits) - 1) {
      value >>= 10;
      ++unit;
    }
    printf("(%u%c)", value, kUnits[unit - 1]);
  }
}

int mtd_info_dump(int fd) {
  MtdDevices& dev = mtd_devices();
  mtd_info_user info{};
  if (dev.get_info(fd, &info) < 0) {
    perror("MEMGETINFO");
    return 1;
  }
  int regions = 0;
  if (dev.get_region_count(fd, &regions) < 0) {
    perror("MEMGETREGIONCOUNT");
    return 1;
  }
  if (regions < 0) regions = 0;
  if (regions > kMaxRegions) regions = kMaxRegions;
  for (int i = 0; i < regions; ++i) {
    g_regions[i].regionindex = static_cast<uint32_t>(i);
    if (dev.get_region_info(fd, &g_regions[i]) < 0) {
      perror("MEMGETREGIONCOUNT");
      return 1;
    }
    g_regions[i].regionindex = static_cast<uint32_t>(i);
  }

  printf("mtd.type = ");
  switch (info.type) {
    case MTD_ABSENT:
      printf("MTD_ABSENT");
      break;
    case MTD_RAM:
      printf("MTD_RAM");
      break;
    case MTD_ROM:
      printf("MTD_ROM");
      break;
    case MTD_NORFLASH:
      printf("MTD_NORFLASH");
      break;
    case MTD_NANDFLASH:
      printf("MTD_NANDFLASH");
      break;
    case MTD_DATAFLASH:
      printf("MTD_DATAFLASH");
      break;
    case MTD_UBIVOLUME:
      printf("MTD_UBIVOLUME");
      printf("(unknown type - new MTD API maybe?)");
      break;
    default:
      printf("(unknown type - new MTD API maybe?)");
      break;
  }

  printf("\nmtd.flags = ");
  switch (info.flags) {
    case 0:
      printf("MTD_CAP_ROM");
      break;
    case 0x1C00:
      printf("MTD_CAP_RAM");
      break;
    case 0xC00:
      printf("MTD_CAP_NORFLASH");
      break;
    case 0x400:
      printf("MTD_CAP_NANDFLASH");
      break;
    default: {
      bool first = true;
      for (const flag_name* f = kFlagNames; f->name[0] != '\0'; ++f) {
        if ((info.flags & f->mask) == 0) continue;
        printf(first ? "%s" : " | %s", f->name);
        first = false;
      }
      break;
    }
  }
  printf("\nmtd.size = ");
  print_size(info.size);
  printf("\nmtd.erasesize = ");
  print_size(info.erasesize);
  printf("\nmtd.writesize = ");
  print_size(info.writesize);
  printf("\nmtd.oobsize = ");
  print_size(info.oobsize);
  printf("\nregions = %d\n\n", regions);
  for (int i = 0; i < regions; ++i) {
    printf("region[%d].offset = 0x%.8x\nregion[%d].erasesize = ", i, g_regions[i].offset, i);
    print_size(g_regions[i].erasesize);
    printf("\nregion[%d].numblocks = %d\nregion[%d].regionindex = %d\n", i,
           static_cast<int>(g_regions[i].numblocks), i, static_cast<int>(g_regions[i].regionindex));
  }
  fflush(stdout);
  return 0;
}
