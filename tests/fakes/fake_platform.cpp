#include "fakes/fake_platform.h"

#include <linux/watchdog.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/dbgout.h"

namespace fs = std::filesystem;

void FakePlatform::on(const std::string& match, const std::string& output, int status) {
  std::lock_guard<std::mutex> lock(mu_);
  for (auto& r : rules_) {
    if (r.match == match) {
      r = Rule{match, output, status, false};
      return;
    }
  }
  rules_.push_back(Rule{match, output, status, false});
}

void FakePlatform::popen_fails(const std::string& match) {
  std::lock_guard<std::mutex> lock(mu_);
  rules_.push_back(Rule{match, "", -1, true});
}

void FakePlatform::on_command(std::function<void(const std::string&)> hook) {
  std::lock_guard<std::mutex> lock(mu_);
  hook_ = std::move(hook);
}

const FakePlatform::Rule* FakePlatform::find(const std::string& cmd) const {
  for (const auto& r : rules_)
    if (cmd.find(r.match) != std::string::npos) return &r;
  return nullptr;
}

void FakePlatform::record(std::string ev) { events_.push_back(std::move(ev)); }

// Records the command and runs the hook; the matching rule, if any.
std::optional<FakePlatform::Rule> FakePlatform::run(const char* kind, const std::string& cmd) {
  std::function<void(const std::string&)> hook;
  std::optional<Rule> rule;
  {
    std::lock_guard<std::mutex> lock(mu_);
    record(kind + cmd);
    commands_.push_back(cmd);
    if (const Rule* r = find(cmd)) rule = *r;
    hook = hook_;
  }
  if (hook) hook(cmd);
  return rule;
}

int FakePlatform::shell(const std::string& cmd) {
  auto r = run("sh:", cmd);
  return r ? r->status : 0;
}

int FakePlatform::shell_status(const std::string& cmd) {
  auto r = run("popen:", cmd);
  return r ? (r->popen_fails ? -1 : r->status) : 0;
}

int FakePlatform::shell_read(const std::string& cmd, char* buf, size_t max) {
  auto r = run("read:", cmd);
  if (r && r->popen_fails) return -1;
  size_t n = r ? std::min(r->output.size(), max) : 0;
  if (n > 0) memcpy(buf, r->output.data(), n);
  return static_cast<int>(n);
}

void FakePlatform::on_sleep(std::function<void(uint64_t)> hook) {
  std::lock_guard<std::mutex> lock(mu_);
  sleep_hook_ = std::move(hook);
}

void FakePlatform::sleep_us(uint64_t usec) {
  std::function<void(uint64_t)> hook;
  {
    std::lock_guard<std::mutex> lock(mu_);
    record("sleep:" + std::to_string(usec));
    slept_ += usec;
    hook = sleep_hook_;
  }
  if (hook) hook(usec);
}

int FakePlatform::gettimeofday(struct timeval* tv) {
  std::lock_guard<std::mutex> lock(mu_);
  *tv = now;
  return 0;
}

void FakePlatform::sync() { locked([&] { record("sync"); }); }

int FakePlatform::watchdog_open(const char*) {
  std::lock_guard<std::mutex> lock(mu_);
  record("wdt_open");
  if (!watchdog_present) {
    errno = ENOENT;
    return -1;
  }
  return 42;
}

int FakePlatform::watchdog_ioctl(int, unsigned long request, int* arg) {
  std::lock_guard<std::mutex> lock(mu_);
  char ev[64];
  snprintf(ev, sizeof(ev), "wdt_ioctl:%lx:%d", request, arg ? *arg : 0);
  record(ev);
  if (request == WDIOC_SETTIMEOUT && arg) last_timeout_ = *arg;
  if (request == WDIOC_GETTIMEOUT && arg) *arg = last_timeout_;
  return 0;
}

int FakePlatform::reboot(int) {
  std::lock_guard<std::mutex> lock(mu_);
  record("reboot");
  ++reboots_;
  return 0;
}

pid_t FakePlatform::fork() {
  std::lock_guard<std::mutex> lock(mu_);
  record("fork");
  return fork_result;
}

pid_t FakePlatform::waitpid(pid_t pid, int* status, int) {
  std::lock_guard<std::mutex> lock(mu_);
  record("waitpid");
  if (status) *status = 0;
  return pid;
}

int FakePlatform::exec(const char* path, char* const argv[]) {
  std::lock_guard<std::mutex> lock(mu_);
  std::string ev = std::string("exec:") + path;
  for (char* const* a = argv + 1; *a != nullptr; ++a) ev += std::string(" ") + *a;
  record(ev);
  errno = ENOENT;
  return -1;
}

void FakePlatform::exit_child(int status) {
  locked([&] { record("child_exit:" + std::to_string(status)); });
  throw ProcessExited(status);
}

void FakePlatform::end_thread() {
  locked([&] { record("end_thread"); });
  throw ThreadEnded();
}

void FakePlatform::exit_process(int status) {
  locked([&] { record("exit:" + std::to_string(status)); });
  throw ProcessExited(status);
}

bool FakePlatform::ran(const std::string& exact_cmd) const {
  std::lock_guard<std::mutex> lock(mu_);
  return std::find(commands_.begin(), commands_.end(), exact_cmd) != commands_.end();
}

void FakePlatform::clear() {
  std::lock_guard<std::mutex> lock(mu_);
  events_.clear();
  commands_.clear();
  slept_ = 0;
  reboots_ = 0;
}

FakeCamera::FakeCamera() {
  // $TMPDIR when set (the fuzz runs put the root on a tmpfs), else /tmp.
  const char* tmp = getenv("TMPDIR");
  std::string tmpl = std::string(tmp != nullptr && tmp[0] != '\0' ? tmp : "/tmp") + "/camroot.XXXXXX";
  char* dir = ::mkdtemp(tmpl.data());
  if (dir == nullptr) throw std::runtime_error("mkdtemp failed");
  root_ = dir;
  for (const char* d : {"/customer", "/data", "/dev", "/etc", "/mnt", "/tmp"})
    fs::create_directories(root_ + d);
  previous_ = set_platform(&platform_);
  previous_root_ = camera_root();
  set_camera_root(root_);
  // Each camera writes its own log files (the trace log keeps its stream).
  set_data_log_open(0);
  set_network_log_open(0);
}

FakeCamera::~FakeCamera() {
  set_data_log_open(0);
  set_network_log_open(0);
  set_platform(previous_);
  set_camera_root(previous_root_);
  std::error_code ec;
  fs::remove_all(root_, ec);
}

void FakeCamera::write(const std::string& camera_path, const std::string& content) const {
  fs::path p = path(camera_path);
  fs::create_directories(p.parent_path());
  std::ofstream out(p, std::ios::binary | std::ios::trunc);
  out << content;
}

std::string FakeCamera::read(const std::string& camera_path) const {
  std::ifstream in(path(camera_path), std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

bool FakeCamera::exists(const std::string& camera_path) const {
  return fs::exists(path(camera_path));
}
