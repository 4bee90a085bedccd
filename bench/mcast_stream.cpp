// The two ends of the multicast upgrade benchmark (mcast_upgrade_bench.py):
//
//   mcast_stream send GROUP PORT IFACE_IP FILE SESSION MBITS
//       streams FILE as 'b', 't'..., 'o' transfer packets of 5120 bytes,
//       paced to MBITS (0 = as fast as the socket takes them); prints
//       "sent <packets> <seconds>".
//   mcast_stream sink GROUP PORT IFACE_IP OUT
//       the bare receiver the daemon is measured against: joins the group,
//       prints "ready", then receives and writes the data of every packet to
//       OUT until an 'o' packet or 2 s of silence; prints
//       "sink <packets> <bytes> <cpu seconds>".
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "wire/upgrade.h"

namespace {

double now() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

void wait_until(double t) {
  for (;;) {
    double left = t - now();
    if (left <= 0) return;
    if (left > 0.0003) {
      timespec ts{0, static_cast<long>((left - 0.0002) * 1e9)};
      nanosleep(&ts, nullptr);
    }
  }
}

int udp_socket(const char* group, int port, const char* iface, bool receive) {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  int on = 1, ttl = 1, loop = 0;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  in_addr ifa;
  inet_pton(AF_INET, iface, &ifa);
  if (receive) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) perror("bind");
    ip_mreq m{};
    inet_pton(AF_INET, group, &m.imr_multiaddr);
    m.imr_interface = ifa;
    if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof(m)) != 0) perror("join");
  } else {
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &ifa, sizeof(ifa));
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl));
    setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &loop, sizeof(loop));
  }
  return fd;
}

int send_file(char** a) {
  std::ifstream in(a[4], std::ios::binary);
  std::vector<char> data((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const double mbits = atof(a[6]);
  int fd = udp_socket(a[1], atoi(a[2]), a[3], false);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(static_cast<uint16_t>(atoi(a[2])));
  inet_pton(AF_INET, a[1], &to.sin_addr);

  const size_t chunk = wire::kPacketDataMax;
  const size_t count = data.size() <= chunk ? 2 : (data.size() + chunk - 1) / chunk;
  const double gap = mbits > 0 ? wire::kBatchDatagram * 8.0 / (mbits * 1e6) : 0;
  const double start = now();
  for (size_t i = 0; i < count; ++i) {
    size_t off = std::min(i * chunk, data.size());
    size_t len = std::min(chunk, data.size() - off);
    char kind = i == 0           ? wire::kPacketFirst
                : i + 1 == count ? wire::kPacketLast
                                 : wire::kPacketMiddle;
    std::string p = wire::build_packet(kind, a[5], data.data() + off, len);
    if (gap > 0) wait_until(start + static_cast<double>(i) * gap);
    while (sendto(fd, p.data(), p.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)) < 0) {
    }
  }
  printf("sent %zu %.3f\n", count, now() - start);
  return 0;
}

int sink(char** a) {
  int fd = udp_socket(a[1], atoi(a[2]), a[3], true);
  int out = open(a[4], O_WRONLY | O_CREAT | O_TRUNC, 0644);
  printf("ready\n");
  fflush(stdout);
  static char buf[wire::kBatchDatagram];
  long packets = 0, bytes = 0;
  for (;;) {
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, packets == 0 ? 60000 : 2000) <= 0) break;
    ssize_t n = recv(fd, buf, sizeof(buf), 0);
    auto v = wire::parse_packet(buf, n > 0 ? static_cast<size_t>(n) : 0);
    if (!v) continue;
    ++packets;
    bytes += write(out, v->data, v->len);
    if (v->kind == wire::kPacketLast) break;
  }
  close(out);
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  double cpu = static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
               static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) * 1e-6;
  printf("sink %ld %ld %.6f\n", packets, bytes, cpu);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 8 && strcmp(argv[1], "send") == 0) return send_file(argv + 1);
  if (argc == 6 && strcmp(argv[1], "sink") == 0) return sink(argv + 1);
  fprintf(stderr,
          "usage: %s send GROUP PORT IFACE_IP FILE SESSION MBITS\n"
          "       %s sink GROUP PORT IFACE_IP OUT\n",
          argv[0], argv[0]);
  return 2;
}
