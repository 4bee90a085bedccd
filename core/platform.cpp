#include "core/platform.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/reboot.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

int Platform::shell(const std::string& cmd) { return ::system(cmd.c_str()); }

int Platform::shell_status(const std::string& cmd) {
  FILE* fp = ::popen(cmd.c_str(), "r");
  if (fp == nullptr) return -1;
  return ::pclose(fp);
}

int Platform::shell_read(const std::string& cmd, char* buf, size_t max) {
  FILE* fp = ::popen(cmd.c_str(), "r");
  if (fp == nullptr) return -1;
  size_t got = 0;
  while (got < max) {
    size_t n = ::fread(buf + got, 1, max - got, fp);
    if (n == 0) break;
    got += n;
  }
  ::pclose(fp);
  return static_cast<int>(got);
}

void Platform::sleep_us(uint64_t usec) {
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(usec / 1000000);
  ts.tv_nsec = static_cast<long>((usec % 1000000) * 1000);
  while (::nanosleep(&ts, &ts) != 0) {
  }
}

int Platform::gettimeofday(struct timeval* tv) { return ::gettimeofday(tv, nullptr); }

void Platform::sync() { ::sync(); }

// Close-on-exec: an installer the daemon forks (unzip, the controller
// programmer) must not hold the armed watchdog open.
int Platform::watchdog_open(const char* path) { return ::open(path, O_RDWR | O_CLOEXEC); }

int Platform::watchdog_ioctl(int fd, unsigned long request, int* arg) {
  return ::ioctl(fd, request, arg);
}

int Platform::reboot(int how) { return ::reboot(how); }

pid_t Platform::fork() { return ::fork(); }

pid_t Platform::waitpid(pid_t pid, int* status, int options) {
  return ::waitpid(pid, status, options);
}

int Platform::exec(const char* path, char* const argv[]) { return ::execv(path, argv); }

void Platform::exit_child(int status) { ::_exit(status); }

void Platform::end_thread() { ::pthread_exit(nullptr); }

// The other threads run until the process is gone: exit(3) would destroy the
// static objects (this platform, the camera root, the logs' state) under
// them. Console buffers are flushed; nothing else needs an exit handler.
void Platform::exit_process(int status) {
  fflush(nullptr);
  ::_exit(status);
}

namespace {
Platform g_real;
std::atomic<Platform*> g_current{&g_real};
std::string g_root;
}  // namespace

Platform& sys() { return *g_current.load(std::memory_order_acquire); }

Platform* set_platform(Platform* p) {
  return g_current.exchange(p != nullptr ? p : &g_real, std::memory_order_acq_rel);
}

void set_camera_root(const std::string& root) { g_root = root; }
const std::string& camera_root() { return g_root; }
std::string cam_path(const char* abs_path) { return g_root + abs_path; }
