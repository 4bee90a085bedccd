// Start-up: the command line, the site configuration files, the service
// threads and the accept loop. The one place that calls upward into every
// module (the record it fills is core/daemon_state.h).
#pragma once

#include <netinet/in.h>

#include "core/daemon_state.h"

inline constexpr const char* kUpgradeVersion = "3.1.34";

// Command-line word -> work_mode / arm_exist; returns 1 when "VERSION" was
// given (the caller prints the version and exits 0).
int parse_command_line(int argc, char** argv);

void read_pid_config();
void read_del_config();
int get_config(const char* path);
void read_mtd_info();
void rebuild_mtd_summary();

void fill_endpoint_records();

int init_tcpsocket(int* listen_socket, struct sockaddr_in* addr);
int waiting(int listen_socket, struct sockaddr_in* peer);

// The whole daemon; returns only for "VERSION" (0) or fatal failures.
// `flash_setup`, when given, runs once the command line is read (a host
// build installs the file-backed flash of sim/flash with it).
int upgrade_main(int argc, char** argv, int (*flash_setup)() = nullptr);
