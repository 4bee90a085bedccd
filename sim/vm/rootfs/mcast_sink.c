/*
 * mcast_sink GROUP PORT FILE BYTES
 *
 * The bare receiver the multicast upgrade's ingest is measured against:
 * joins GROUP:PORT on every interface, appends each datagram's payload after
 * the 42-byte transfer header to FILE, and exits once BYTES payload bytes
 * are written, printing "sink: N bytes in M datagrams, T ms, C ms cpu" (T
 * from the first datagram to the last, C the process's CPU time).
 */
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

static long long now_ms(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

int main(int argc, char** argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: mcast_sink GROUP PORT FILE BYTES\n");
    return 2;
  }
  long long want = atoll(argv[4]);
  int s = socket(AF_INET, SOCK_DGRAM, 0);
  int one = 1;
  setsockopt(s, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  struct sockaddr_in a;
  memset(&a, 0, sizeof(a));
  a.sin_family = AF_INET;
  a.sin_port = htons((unsigned short)atoi(argv[2]));
  a.sin_addr.s_addr = inet_addr(argv[1]);
  if (bind(s, (struct sockaddr*)&a, sizeof(a)) != 0) {
    perror("bind");
    return 1;
  }
  struct ip_mreq m;
  m.imr_multiaddr.s_addr = inet_addr(argv[1]);
  m.imr_interface.s_addr = htonl(INADDR_ANY);
  if (setsockopt(s, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof(m)) != 0) {
    perror("IP_ADD_MEMBERSHIP");
    return 1;
  }
  int fd = open(argv[3], O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) {
    perror("open");
    return 1;
  }
  printf("sink: ready\n");
  fflush(stdout);
  static char buf[65536];
  long long got = 0, first = 0, count = 0;
  while (got < want) {
    ssize_t n = recv(s, buf, sizeof(buf), 0);
    if (n <= 42 || memcmp(buf, "CAMERA_UP", 9) != 0 || strchr("bto", buf[9]) == NULL) continue;
    if (count++ == 0) first = now_ms();
    if (write(fd, buf + 42, (size_t)(n - 42)) != n - 42) {
      perror("write");
      return 1;
    }
    got += n - 42;
  }
  close(fd);
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  long long cpu = (ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1000LL +
                  (ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1000;
  printf("sink: %lld bytes in %lld datagrams, %lld ms, %lld ms cpu\n", got, count,
         now_ms() - first, cpu);
  return 0;
}
