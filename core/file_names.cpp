// File names from outside, judged against the folder they would live in.
#include "core/file_names.h"

#include <sys/stat.h>

#include <cstring>
#include <string>

#include "core/platform.h"
#include "wire/file_name.h"

name_verdict check_file_name(const char* dir, const char* name) {
  if (!is_plain_file_name(name)) return name_verdict::refused;
  if (strcmp(dir, "/dev") == 0 && is_reserved_dev_name(name)) return name_verdict::refused;
  // lstat: a link is judged as a link, never by what it points at.
  struct stat st;
  const std::string path = cam_path(std::string(dir) + "/" + name);
  if (lstat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) return name_verdict::refused;
  return is_safe_file_name(name) ? name_verdict::ok : name_verdict::shell_chars;
}
