// What every camtool command shares: the clock, the error that ends a
// command with a message, the run's identities and the interrupt flag.
#pragma once

#include <chrono>
#include <stdexcept>
#include <string>

namespace camtool {

using clock = std::chrono::steady_clock;
using time_point = clock::time_point;
using seconds = std::chrono::duration<double>;

inline time_point after(time_point t, double s) {
  return t + std::chrono::duration_cast<clock::duration>(seconds(s));
}
inline double between(time_point a, time_point b) { return seconds(b - a).count(); }

// Exit statuses: 0 done, 1 failed on the network (no reply, a camera that
// did not upgrade), 2 refused before anything was sent.
inline constexpr int kExitFailed = 1;
inline constexpr int kExitRefused = 2;

// Ends a command: main prints "camtool: <what>" and exits with `status`.
struct tool_error : std::runtime_error {
  int status;
  explicit tool_error(const std::string& what, int status_ = kExitRefused)
      : std::runtime_error(what), status(status_) {}
};

// 32 lower-case hexadecimal characters: a client or session ID.
std::string random_id();

// Set by SIGINT/SIGTERM once main has installed the handler; long-running
// commands (search --watch, status) end cleanly when it is set.
bool interrupted();
void install_interrupt_handler();

}  // namespace camtool
