#include "core/site_conf.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/dbgout.h"
#include "core/platform.h"

namespace {

struct switch_key {
  const char* key;
  int site_conf_t::*field;
};

constexpr switch_key kKeys[] = {
    {"status_report", &site_conf_t::status_report},
    {"broadcast", &site_conf_t::broadcast},
    {"partner", &site_conf_t::partner},
    {"norm_transfer", &site_conf_t::norm_transfer},
    {"transfer_silence", &site_conf_t::transfer_silence},
};

std::string trim(const std::string& s) {
  const char* ws = " \t\r\n";
  size_t b = s.find_first_not_of(ws);
  if (b == std::string::npos) return "";
  return s.substr(b, s.find_last_not_of(ws) - b + 1);
}

// A switch value: decimal digits only.
bool parse_value(const std::string& text, int* out) {
  if (text.empty() || text.size() > 9) return false;
  for (char c : text)
    if (c < '0' || c > '9') return false;
  *out = atoi(text.c_str());
  return true;
}

}  // namespace

int read_site_conf(const char* path, site_conf_t* out) {
  *out = site_conf_t{};
  FILE* fp = fopen(cam_path(path).c_str(), "r");
  if (fp == nullptr) {
    DBG_INFO("not found %s, defaults used\n", path);
    return -1;
  }
  char buf[256];
  while (fgets(buf, sizeof(buf), fp) != nullptr) {
    // A line longer than the buffer is read on as further text: skip its tail.
    bool whole = strchr(buf, '\n') != nullptr || feof(fp);
    std::string line = trim(buf);
    if (!whole) {
      int c;
      while ((c = fgetc(fp)) != EOF && c != '\n') {
      }
    }
    if (line.empty() || line[0] == '#') continue;
    size_t eq = line.find('=');
    std::string key = trim(line.substr(0, eq));
    std::string value = eq == std::string::npos ? "" : trim(line.substr(eq + 1));
    const switch_key* found = nullptr;
    for (const switch_key& k : kKeys)
      if (key == k.key) found = &k;
    if (found == nullptr) {
      DBG_INFO("%s: unknown key ignored: %s\n", path, key.c_str());
      continue;
    }
    int v = 0;
    if (!parse_value(value, &v)) {
      DBG_ERR("%s: bad value for %s: %s\n", path, key.c_str(), value.c_str());
      continue;
    }
    out->*(found->field) = v;
  }
  fclose(fp);
  DBG_INFO("read %s succeed: status_report=%d broadcast=%d partner=%d\n", path,
           out->status_report, out->broadcast, out->partner);
  return 0;
}
