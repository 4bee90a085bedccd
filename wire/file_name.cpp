// File-name rules shared by the daemon and the LAN tool.
#include "wire/file_name.h"

#include <cstring>

bool is_plain_file_name(const char* name) {
  if (name == nullptr || name[0] == '\0') return false;
  if (strstr(name, "..") != nullptr) return false;
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p != 0; ++p) {
    if (*p < 0x20 || *p == 0x7f || *p == '/') return false;
  }
  return true;
}

bool is_safe_file_name(const char* name) {
  if (!is_plain_file_name(name)) return false;
  static const char kShell[] = ";$`|&<>()'\"\\*? ";
  return strpbrk(name, kShell) == nullptr;
}

bool is_reserved_dev_name(const char* name) {
  static const char* const kReserved[] = {
      "fw_setenv",           "busybox",      "mtd_upgrade", "onvif_upgrade_flag",
      "u_disk_upgrade_flag", "dhcp_ok",      "upgrade_network.log", "orn.log",
      "ps.txt"};
  if (name == nullptr) return false;
  for (const char* r : kReserved)
    if (strcmp(name, r) == 0) return true;
  return false;
}
