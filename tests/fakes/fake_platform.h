// A Platform that runs nothing: it records every call in order and answers
// shell commands from a script of (substring -> output, status) rules.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/platform.h"

// Thrown by end_thread()/exit_process() so tests can observe them.
struct ThreadEnded : std::runtime_error {
  ThreadEnded() : std::runtime_error("thread ended") {}
};
struct ProcessExited : std::runtime_error {
  explicit ProcessExited(int s) : std::runtime_error("process exited"), status(s) {}
  int status;
};

class FakePlatform : public Platform {
 public:
  struct Rule {
    std::string match;   // substring of the command line
    std::string output;  // what the command prints
    int status = 0;      // shell()/shell_status() result
    bool popen_fails = false;
  };

  // The first rule whose `match` occurs in the command wins; later calls to
  // on() for the same match replace it.
  void on(const std::string& match, const std::string& output, int status = 0);
  void popen_fails(const std::string& match);
  // Called for every command after it is recorded (for side effects such as
  // creating the file a command would create).
  void on_command(std::function<void(const std::string&)> hook);
  // Called for every sleep after it is recorded (to look at the daemon's
  // state while it pauses).
  void on_sleep(std::function<void(uint64_t)> hook);

  int shell(const std::string& cmd) override;
  int shell_status(const std::string& cmd) override;
  int shell_read(const std::string& cmd, char* buf, size_t max) override;
  void sleep_us(uint64_t usec) override;
  int gettimeofday(struct timeval* tv) override;
  void sync() override;
  int watchdog_open(const char* path) override;
  int watchdog_ioctl(int fd, unsigned long request, int* arg) override;
  int reboot(int how) override;
  pid_t fork() override;
  pid_t waitpid(pid_t pid, int* status, int options) override;
  int exec(const char* path, char* const argv[]) override;
  [[noreturn]] void exit_child(int status) override;
  [[noreturn]] void end_thread() override;
  [[noreturn]] void exit_process(int status) override;

  // Every call in order: "sh:<cmd>", "popen:<cmd>", "read:<cmd>",
  // "sleep:<usec>", "sync", "wdt_open", "wdt_ioctl:<req hex>:<arg>",
  // "reboot", "fork", "waitpid", "exec:<path> <args>" (exec fails),
  // "child_exit:<n>" (throws ProcessExited), "end_thread", "exit:<n>".
  std::vector<std::string> events() const { return locked([&] { return events_; }); }
  // Only the command lines (any of shell/shell_status/shell_read), in order.
  std::vector<std::string> commands() const { return locked([&] { return commands_; }); }
  // Sum of all sleeps.
  uint64_t slept_us() const { return locked([&] { return slept_; }); }
  int reboots() const { return locked([&] { return reboots_; }); }
  bool ran(const std::string& exact_cmd) const;
  void clear();

  // Settings.
  struct timeval now {1700000000, 0};
  bool watchdog_present = false;  // open fails unless set
  pid_t fork_result = 0;          // 0: act as the child; >0: parent; -1: fail

 private:
  template <typename F>
  auto locked(F f) const -> decltype(f()) {
    std::lock_guard<std::mutex> lock(mu_);
    return f();
  }
  const Rule* find(const std::string& cmd) const;
  void record(std::string ev);
  std::optional<Rule> run(const char* kind, const std::string& cmd);
  mutable std::mutex mu_;
  std::vector<Rule> rules_;
  std::vector<std::string> events_;
  std::vector<std::string> commands_;
  std::function<void(const std::string&)> hook_;
  std::function<void(uint64_t)> sleep_hook_;
  uint64_t slept_ = 0;
  int reboots_ = 0;
  int last_timeout_ = 0;
};

// Installs a FakePlatform for the lifetime of the object and points the
// camera root at a fresh temporary directory (removed afterwards).
class FakeCamera {
 public:
  FakeCamera();
  ~FakeCamera();
  FakeCamera(const FakeCamera&) = delete;
  FakeCamera& operator=(const FakeCamera&) = delete;

  FakePlatform& platform() { return platform_; }
  const std::string& root() const { return root_; }
  // Absolute camera path -> path under the temporary root.
  std::string path(const std::string& camera_path) const { return root_ + camera_path; }
  // Writes a camera file (parents created).
  void write(const std::string& camera_path, const std::string& content) const;
  std::string read(const std::string& camera_path) const;
  bool exists(const std::string& camera_path) const;

 private:
  FakePlatform platform_;
  std::string root_;
  Platform* previous_ = nullptr;
  std::string previous_root_;
};
