// The daemon's one seam to the machine: shell commands, sleeps, the clock,
// the watchdog, reboot, fork and the process/thread exits. On the camera the
// real implementation is used; tests install a fake that records every call.
//
// File paths: the daemon names camera files by absolute path ("/data/net.conf").
// Every in-process open/stat/access of such a path goes through cam_path(),
// which prefixes the configured root (empty on the camera, a temporary
// directory in unit tests). Paths inside shell command lines are left as they
// are: the sandbox rig chroots the daemon, unit tests fake the shell.
#pragma once

#include <sys/time.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

class Platform {
 public:
  virtual ~Platform() = default;

  // system(3): returns the wait status.
  virtual int shell(const std::string& cmd);
  // popen(cmd, "r") and pclose at once, output not read: the pclose status.
  virtual int shell_status(const std::string& cmd);
  // popen(cmd, "r"), then fread up to `max` bytes (repeating until EOF or
  // `max`), pclose. Returns the byte count read (0 = no output), or -1 when
  // popen failed. `buf` is not NUL-terminated by this call.
  virtual int shell_read(const std::string& cmd, char* buf, size_t max);

  virtual void sleep_us(uint64_t usec);
  virtual int gettimeofday(struct timeval* tv);
  virtual void sync();

  // Watchdog device: open read-write, then integer ioctls on it.
  virtual int watchdog_open(const char* path);
  virtual int watchdog_ioctl(int fd, unsigned long request, int* arg);

  // reboot(2) with RB_AUTOBOOT (or another `how`). Returns only on failure
  // (or in tests).
  virtual int reboot(int how);

  virtual pid_t fork();
  virtual pid_t waitpid(pid_t pid, int* status, int options);
  // In a forked child: execv(3), which returns only on failure (-1), and
  // _exit(2).
  virtual int exec(const char* path, char* const argv[]);
  [[noreturn]] virtual void exit_child(int status);

  // pthread_exit of the calling thread; the end of the process with
  // `status` (stdio flushed, no exit handlers: other threads may still run).
  [[noreturn]] virtual void end_thread();
  [[noreturn]] virtual void exit_process(int status);
};

// The platform in use (the real one unless a test installed another).
Platform& sys();
// Installs `p` (nullptr restores the real platform); returns the previous one.
Platform* set_platform(Platform* p);

// Root prefix for camera paths ("" on the camera).
void set_camera_root(const std::string& root);
const std::string& camera_root();
std::string cam_path(const char* abs_path);
inline std::string cam_path(const std::string& abs_path) { return cam_path(abs_path.c_str()); }
