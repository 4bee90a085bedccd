/*
 * Helper programs for the camera sandbox, one static binary that acts by the
 * name it is started under:
 *
 *   rig-reboot [halt|poweroff]
 *       calls reboot(2) like the camera's reboot paths do. Inside a child PID
 *       namespace this ends the namespace (its init dies with SIGHUP for a
 *       reboot, SIGINT for halt and power-off).
 *
 *   rig-udprec PORT LOGFILE
 *       binds 127.0.0.1:PORT (UDP) and appends one line per datagram to
 *       LOGFILE: "<seconds since start> <hex bytes>". Stands in for the
 *       camera's control service.
 *
 *   any other name
 *       a long-running dummy process named like one of the camera's
 *       applications, so that "killall NAME" and "ps | grep NAME" find it.
 *       A catchable signal is logged to /.rig/calls/signals.log as
 *       "NAME SIGNUM" before the process ends with 128 + SIGNUM.
 *
 * Built at test time with "gcc -static" so that it runs inside the bare
 * camera root.
 */
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/reboot.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static const char* g_name = "sleeper";

static void on_signal(int sig) {
  char line[320];
  int fd = open("/.rig/calls/signals.log", O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (fd >= 0) {
    int n = snprintf(line, sizeof line, "%s %d\n", g_name, sig);
    if (n > 0) (void)!write(fd, line, (size_t)n);
    close(fd);
  }
  _exit(128 + sig);
}

_Noreturn static void run_sleeper(void) {
  for (int sig = 1; sig < 32; ++sig) {
    if (sig == SIGKILL || sig == SIGSTOP || sig == SIGCHLD) continue;
    signal(sig, on_signal);
  }
  for (;;) pause();
}

static int run_reboot(int argc, char** argv) {
  int how = RB_AUTOBOOT;
  if (argc > 1 && strcmp(argv[1], "halt") == 0) how = RB_HALT_SYSTEM;
  if (argc > 1 && strcmp(argv[1], "poweroff") == 0) how = RB_POWER_OFF;
  sync();
  reboot(how);
  perror("rig-reboot: reboot");
  return 1;
}

static int run_udprec(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: rig-udprec PORT LOGFILE\n");
    return 2;
  }
  int s = socket(AF_INET, SOCK_DGRAM, 0);
  if (s < 0) {
    perror("rig-udprec: socket");
    return 1;
  }
  struct sockaddr_in a;
  memset(&a, 0, sizeof a);
  a.sin_family = AF_INET;
  a.sin_port = htons((unsigned short)atoi(argv[1]));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(s, (struct sockaddr*)&a, sizeof a) != 0) {
    perror("rig-udprec: bind");
    return 1;
  }
  struct timespec t0;
  clock_gettime(CLOCK_MONOTONIC, &t0);
  unsigned char buf[65536];
  char line[sizeof buf * 2 + 64];
  for (;;) {
    ssize_t n = recv(s, buf, sizeof buf, 0);
    if (n < 0) continue;
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    double dt = (double)(t.tv_sec - t0.tv_sec) + (double)(t.tv_nsec - t0.tv_nsec) / 1e9;
    int len = snprintf(line, 64, "%.3f ", dt);
    for (ssize_t i = 0; i < n; ++i) len += sprintf(line + len, "%02x", buf[i]);
    line[len++] = '\n';
    int fd = open(argv[2], O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd >= 0) {
      (void)!write(fd, line, (size_t)len);
      close(fd);
    }
  }
}

int main(int argc, char** argv) {
  const char* base = strrchr(argv[0], '/');
  base = base ? base + 1 : argv[0];
  g_name = base;
  if (strcmp(base, "rig-reboot") == 0) return run_reboot(argc, argv);
  if (strcmp(base, "rig-udprec") == 0) return run_udprec(argc, argv);
  run_sleeper();
}
