#include "core/dbgout.h"

#include <sys/stat.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include "core/fork_guard.h"
#include "core/platform.h"

namespace {

struct LogFile {
  int open_flag = 0;
  FILE* stream = nullptr;
};

// One lock per log keeps the open/write/rotate steps of a call together.
// The installers' children write trace lines too (the controller's version
// record before the '7'): both locks are free in a forked child.
std::mutex g_net_mu;
[[maybe_unused]] const int g_net_fork_guard = guard_across_fork<g_net_mu>(kForkRankLog);
LogFile g_net;
std::mutex g_data_mu;
[[maybe_unused]] const int g_data_fork_guard = guard_across_fork<g_data_mu>(kForkRankLog);
LogFile g_data;
char g_data_path[256] = "/data/upgrade.log";

constexpr const char* kNetworkLogPath = "/dev/upgrade_network.log";

void console_line(FILE* out, const char* kind, const char* file, const char* func, int line,
                  const char* fmt, va_list ap) {
  // One buffer and one write, so lines of different threads do not mix.
  char buf[2048];
  int n = snprintf(buf, sizeof(buf), "%s%s %s[%04d] ", kind, file, func, line);
  if (n < 0) return;
  if (static_cast<size_t>(n) < sizeof(buf)) vsnprintf(buf + n, sizeof(buf) - n, fmt, ap);
  fputs(buf, out);
  fflush(out);
}

// Formats into a heap string of any length.
std::string vformat(const char* fmt, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  char small[512];
  int n = vsnprintf(small, sizeof(small), fmt, copy);
  va_end(copy);
  if (n < 0) return {};
  if (static_cast<size_t>(n) < sizeof(small)) return std::string(small, n);
  std::string big(static_cast<size_t>(n) + 1, '\0');
  vsnprintf(big.data(), big.size(), fmt, ap);
  big.resize(n);
  return big;
}

void emit(FILE* file, const std::string& text) {
  fwrite(text.data(), 1, text.size(), stdout);
  fflush(stdout);
  if (file != nullptr) {
    fwrite(text.data(), 1, text.size(), file);
    fflush(file);
  }
}

}  // namespace

void dbg_info_line(const char* file, const char* func, int line, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  console_line(stdout, "DBG_INFO:", file, func, line, fmt, ap);
  va_end(ap);
}

void dbg_err_line(const char* file, const char* func, int line, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  console_line(stderr, "DBG_ERR:", file, func, line, fmt, ap);
  va_end(ap);
}

int traceout(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string text = vformat(fmt, ap);
  va_end(ap);

  std::lock_guard<std::mutex> lock(g_net_mu);
  const std::string path = cam_path(kNetworkLogPath);
  if (g_net.open_flag == 0) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
      g_net.stream = fopen(path.c_str(), "w+e");
    } else if (st.st_size <= kNetworkLogLimit) {
      g_net.stream = fopen(path.c_str(), "ae");
    } else {
      // Overwrite the oldest text in place; the file keeps its length.
      g_net.stream = fopen(path.c_str(), "r+e");
    }
    g_net.open_flag = 1;
  }
  emit(g_net.stream, text);
  if (g_net.stream == nullptr) return 0;

  long pos = ftell(g_net.stream);
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    // The file was removed under us: start a new one. The old stream is
    // deliberately left open (its descriptor points at the removed file).
    g_net.stream = fopen(path.c_str(), "w+e");
    DBG_ERR("stat ERR\n");
  } else if (pos > kNetworkLogLimit) {
    fclose(g_net.stream);
    g_net.stream = nullptr;
    g_net.open_flag = 0;
  }
  return 0;
}

int traceout_data(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  std::string text = vformat(fmt, ap);
  va_end(ap);

  std::lock_guard<std::mutex> lock(g_data_mu);
  const std::string path = cam_path(g_data_path);
  if (g_data.open_flag == 0) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && st.st_size < kDataLogLimit + 1)
      g_data.stream = fopen(path.c_str(), "ae");
    else
      g_data.stream = fopen(path.c_str(), "w+e");
    g_data.open_flag = 1;
  }
  emit(g_data.stream, text);
  if (g_data.stream == nullptr) return 0;
  if (ftell(g_data.stream) >= kDataLogLimit + 1) {
    fclose(g_data.stream);
    g_data.stream = nullptr;
    g_data.open_flag = 0;
  }
  return 0;
}

char* set_data_log_path(const char* path) {
  std::lock_guard<std::mutex> lock(g_data_mu);
  snprintf(g_data_path, sizeof(g_data_path), "%s", path);
  return g_data_path;
}

static void reset_log(LogFile& log) {
  // A forced reopen: the old stream is closed so descriptors do not pile up.
  if (log.stream != nullptr) fclose(log.stream);
  log.stream = nullptr;
}

void set_data_log_open(int value) {
  std::lock_guard<std::mutex> lock(g_data_mu);
  if (value == 0) reset_log(g_data);
  g_data.open_flag = value;
}

void set_network_log_open(int value) {
  std::lock_guard<std::mutex> lock(g_net_mu);
  if (value == 0) reset_log(g_net);
  g_net.open_flag = value;
}

const char* trace_timestamp() {
  thread_local char text[23];
  memset(text, 0, sizeof(text));
  struct timeval tv;
  if (sys().gettimeofday(&tv) != 0) return text;
  struct tm tm;
  time_t secs = tv.tv_sec;
  if (localtime_r(&secs, &tm) == nullptr) return text;
  // 23 bytes hold 22 characters: the last millisecond digit is cut off, so
  // the stamp shows hundredths of a second.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-truncation"
  snprintf(text, sizeof(text), "%d-%02d-%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900,
           tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
           static_cast<int>(tv.tv_usec / 1000));
#pragma GCC diagnostic pop
  return text;
}
