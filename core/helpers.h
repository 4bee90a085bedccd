// Shell, process and file helpers shared by every installer and handler.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

int find_pid(const char* name);
void kill_pid(const char* name, const char* sig);
int kill_pid_main();
// 0 when the md5sum of `path` equals `md5` (32 lower-case hex digits exactly).
int md5_verify(const char* path, const char* md5);
// Arms the watchdog; the board resets when it runs out. Returns the timeout
// the driver reports, 0 when the device cannot be opened.
int wdt_reboot(int timeout);
void delete_file();
int createDir(const char* path);
uint32_t get_file_size(const char* path);
void int_to_decimal(uint32_t value, char* out);
uint32_t hex_to_int(const char* text);
int int_to_hex(uint32_t value, char* out);

// The TCP maintenance message (2320 bytes, little-endian).
inline constexpr size_t kTcpMessageSize = 2320;
inline constexpr size_t kTcpMessageName = 256;
inline constexpr size_t kTcpMessageData = 2048;
unsigned char* build_tcp_message(unsigned char* out, int32_t cmd_type, const void* data,
                                 const char* name, uint32_t value1, uint32_t value2,
                                 size_t data_len);

int system_cmd(const char* cmd);
void query_ps_process();
int get_file_md5(const char* path, char* md5_out);
int check_disk_info(const char* path, int* total, int* list, int* trailer_len);

// Text for a shell command line, in single quotes (a quote inside becomes
// '\''), so the shell takes it as one word with nothing expanded.
std::string shell_quote(const char* text);

// Sockets the daemon listens on for its whole life (TCP 5555, the partner
// ports). An installer child that carries on as a copy of the daemon after
// fork() closes them: should the daemon be killed and started again while
// the child still runs, the new daemon can bind its ports.
void register_listener_socket(int fd);
void close_listener_sockets();

// The installers' common ending: "system reboot...", watchdog, 5 s, reboot.
void reboot_sequence();
