#include "discovery/oem_serial.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "core/dbgout.h"
#include "core/platform.h"

namespace {

constexpr char kMagic[4] = {'F', 'S', 'E', 'R'};

void encode(unsigned char* rec, const char* serial) {
  memset(rec, 0, kOemSerialRecordSize);
  memcpy(rec, kMagic, 4);
  for (int i = 0; i < 4; ++i) rec[4 + i] = static_cast<unsigned char>(kOemSerialVersion >> (8 * i));
  size_t n = strnlen(serial, kOemSerialLen - 1);
  memcpy(rec + 8, serial, n);
}

int open_locked() {
  int fd = open(cam_path(kOemSerialPath).c_str(), O_RDWR | O_CREAT, 0644);
  if (fd < 0) {
    DBG_ERR("open %s failed\n", kOemSerialPath);
    return -1;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) DBG_ERR("file lock by others\n");
  return fd;
}

int store(int fd, const char* serial) {
  unsigned char rec[kOemSerialRecordSize];
  encode(rec, serial);
  int rc = 0;
  if (pwrite(fd, rec, sizeof(rec), 0) != static_cast<ssize_t>(sizeof(rec))) rc = -1;
  if (ftruncate(fd, sizeof(rec)) != 0) rc = -1;
  if (rc != 0) DBG_ERR("write %s failed\n", kOemSerialPath);
  return rc;
}

void release(int fd) {
  flock(fd, LOCK_UN);
  close(fd);
}

}  // namespace

int oem_serial_read(char* out, size_t size) {
  if (size > 0) out[0] = '\0';
  int fd = open_locked();
  if (fd < 0) return -1;
  struct stat st;
  if (fstat(fd, &st) == 0 && st.st_size == 0) {
    store(fd, "");  // a new record gets the defaults
    release(fd);
    return 0;
  }
  unsigned char rec[kOemSerialRecordSize] = {};
  ssize_t n = pread(fd, rec, sizeof(rec), 0);
  release(fd);
  uint32_t version = 0;
  for (int i = 0; i < 4; ++i) version |= static_cast<uint32_t>(rec[4 + i]) << (8 * i);
  if (n != static_cast<ssize_t>(sizeof(rec)) || memcmp(rec, kMagic, 4) != 0 ||
      version != kOemSerialVersion) {
    DBG_ERR("%s: unknown layout\n", kOemSerialPath);
    return 0;
  }
  if (size == 0) return 0;
  size_t len = strnlen(reinterpret_cast<const char*>(rec + 8), kOemSerialLen - 1);
  if (len > size - 1) len = size - 1;
  memcpy(out, rec + 8, len);
  out[len] = '\0';
  return 0;
}

int oem_serial_write(const char* serial) {
  int fd = open_locked();
  if (fd < 0) return -1;
  int rc = store(fd, serial);
  release(fd);
  return rc;
}
