#include "wire/file_name.h"

#include <cstring>

bool is_safe_file_name(const char* name) {
  if (name == nullptr || name[0] == '\0') return false;
  if (strstr(name, "..") != nullptr) return false;
  static const char kRefused[] = ";$`|&<>()'\"\\*?/ ";
  for (const unsigned char* p = reinterpret_cast<const unsigned char*>(name); *p != 0; ++p) {
    if (*p < 0x20 || *p == 0x7f) return false;
    if (strchr(kRefused, *p) != nullptr) return false;
  }
  return true;
}
