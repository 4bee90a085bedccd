// Console and trace-log output.
//
// Console lines:  "DBG_INFO:<file> <function>[<line>] <message>" on stdout,
//                 "DBG_ERR:<file> <function>[<line>] <message>"  on stderr,
// both flushed at once. The message carries its own line end (a few
// messages deliberately have none).
//
// Trace lines go to the console and to a log file:
//   traceout      -> /dev/upgrade_network.log  (1 MiB, then overwritten in place)
//   traceout_data -> /data/upgrade.log         (10 KiB, then emptied)
// TRACE()/TRACE_DATA() prefix the message with "[time file +line function] ".
#pragma once

#include <cstdint>

#define UPGRADE_PRINTF(fmt_idx, arg_idx) __attribute__((format(printf, fmt_idx, arg_idx)))

void dbg_info_line(const char* file, const char* func, int line, const char* fmt, ...)
    UPGRADE_PRINTF(4, 5);
void dbg_err_line(const char* file, const char* func, int line, const char* fmt, ...)
    UPGRADE_PRINTF(4, 5);

#define DBG_INFO(fmt, ...) \
  dbg_info_line(__FILE_NAME__, __func__, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define DBG_ERR(fmt, ...) \
  dbg_err_line(__FILE_NAME__, __func__, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__)

// The same lines written by a helper on behalf of the function it serves, so
// the line carries that function's name.
#define DBG_INFO_AS(func, fmt, ...) \
  dbg_info_line(__FILE_NAME__, func, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__)
#define DBG_ERR_AS(func, fmt, ...) \
  dbg_err_line(__FILE_NAME__, func, __LINE__, fmt __VA_OPT__(, ) __VA_ARGS__)

// Network-protocol trace log. Returns 0.
int traceout(const char* fmt, ...) UPGRADE_PRINTF(1, 2);
// Installation trace log (data partition). Returns 0.
int traceout_data(const char* fmt, ...) UPGRADE_PRINTF(1, 2);

#define TRACE(fmt, ...)                                                                \
  traceout("[%s %s +%-4d %s] " fmt, trace_timestamp(), __FILE_NAME__, __LINE__, __func__ \
           __VA_OPT__(, ) __VA_ARGS__)
#define TRACE_DATA(fmt, ...)                                                                \
  traceout_data("[%s %s +%-4d %s] " fmt, trace_timestamp(), __FILE_NAME__, __LINE__, __func__ \
                __VA_OPT__(, ) __VA_ARGS__)

// Copies `path` into the data-log path buffer and returns the buffer.
char* set_data_log_path(const char* path);
// 0 makes the next traceout_data reopen (and possibly empty) its file.
void set_data_log_open(int value);
// Same for the network log.
void set_network_log_open(int value);
// "YYYY-MM-DD hh:mm:ss.cc": the 23-byte stamp keeps hundredths only.
// The text belongs to the calling thread and is overwritten by its next call.
const char* trace_timestamp();

// Limits of the two log files.
inline constexpr long kNetworkLogLimit = 1048576;
inline constexpr long kDataLogLimit = 10240;
