// camtool's system calls on Linux: BSD sockets, getifaddrs and
// /proc/net/route, termios, open(2) and signals (see os.h).
#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iostream>
#include <sstream>

#include "camtool/os.h"
#include "camtool/upgrade.h"

namespace camtool {
namespace {

sockaddr_in address(const std::string& ip, int port) {
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  inet_pton(AF_INET, ip.c_str(), &a.sin_addr);
  return a;
}

[[noreturn]] void fail(int fd, const std::string& what) {
  std::string msg = what + ": " + strerror(errno);
  close(fd);
  throw tool_error(msg, kExitFailed);
}

int udp_socket() {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) throw tool_error(std::string("socket: ") + strerror(errno), kExitFailed);
  return fd;
}

volatile std::sig_atomic_t g_interrupted = 0;
void on_signal(int) { g_interrupted = 1; }

class fd_file : public file_source {
 public:
  fd_file(int fd, uint64_t size, std::string path) : fd_(fd), size_(size), path_(std::move(path)) {}
  ~fd_file() override { close(fd_); }
  uint64_t size() const override { return size_; }
  void read(uint64_t offset, char* buf, size_t len) override {
    while (len > 0) {
      ssize_t n = pread(fd_, buf, len, static_cast<off_t>(offset));
      if (n <= 0) {
        if (n < 0 && errno == EINTR) continue;
        throw tool_error("reading " + path_ + ": " + (n < 0 ? strerror(errno) : "file shrank"),
                         kExitFailed);
      }
      buf += n;
      len -= static_cast<size_t>(n);
      offset += static_cast<uint64_t>(n);
    }
  }

 private:
  int fd_;
  uint64_t size_;
  std::string path_;
};

}  // namespace

namespace os {

// Bound to the group's address: the socket hears only this group's datagrams.
socket_handle open_group_socket(const char* group, int port, const iface_choice& iface) {
  int fd = udp_socket();
  std::string where = std::string(group) + ":" + std::to_string(port);
  int one = 1, zero = 0, ttl = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
  sockaddr_in bind_to = address(group, port);
  if (bind(fd, reinterpret_cast<sockaddr*>(&bind_to), sizeof(bind_to)) != 0)
    fail(fd, "cannot bind " + where);
  ip_mreq m = {};
  inet_pton(AF_INET, group, &m.imr_multiaddr);
  inet_pton(AF_INET, iface.ipv4.c_str(), &m.imr_interface);
  if (setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &m, sizeof(m)) != 0)
    fail(fd, std::string("cannot join ") + group + " on " + iface.name + " (" + iface.ipv4 + ")");
  if (setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &m.imr_interface, sizeof(m.imr_interface)) != 0)
    fail(fd, "cannot send multicast on " + iface.name);
  setsockopt(fd, IPPROTO_IP, IP_MULTICAST_LOOP, &zero, sizeof(zero));
  setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof(ttl));
  int rcvbuf = 1 << 20;  // bursts of replies from a whole site
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof(rcvbuf));
  return fd;
}

// Bound to the interface's address: the replies come back to it, and the
// kernel sends a datagram for 255.255.255.255 out of this interface.
socket_handle open_direct_socket(const iface_choice& iface) {
  int fd = udp_socket();
  int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof(one));
  sockaddr_in local = address(iface.ipv4, 0);
  if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0)
    fail(fd, "cannot bind a socket to " + iface.ipv4 + " on " + iface.name);
  return fd;
}

void close_socket(socket_handle s) { close(static_cast<int>(s)); }

void send_datagram(socket_handle s, const std::string& ip, int port, std::string_view data,
                   const std::string& iface_name) {
  const int fd = static_cast<int>(s);
  sockaddr_in to = address(ip, port);
  // A fast stream can fill the socket's send queue: wait for room.
  for (int tries = 0;; ++tries) {
    ssize_t n = sendto(fd, data.data(), data.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
    if (n == static_cast<ssize_t>(data.size())) return;
    if (n < 0 && (errno == ENOBUFS || errno == EAGAIN || errno == EINTR) && tries < 1000) {
      pollfd p = {fd, POLLOUT, 0};
      poll(&p, 1, 1);
      continue;
    }
    throw tool_error("sending to " + ip + ":" + std::to_string(port) + " on " + iface_name + ": " +
                         (n < 0 ? strerror(errno) : "short send"),
                     kExitFailed);
  }
}

std::optional<received> take_datagram(socket_handle s) {
  char buf[65536];
  sockaddr_in from = {};
  socklen_t len = sizeof(from);
  ssize_t n = recvfrom(static_cast<int>(s), buf, sizeof(buf), MSG_DONTWAIT,
                       reinterpret_cast<sockaddr*>(&from), &len);
  if (n < 0) return std::nullopt;
  char ip[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &from.sin_addr, ip, sizeof(ip));
  return received{ip, std::string(buf, static_cast<size_t>(n))};
}

void wait_readable(const std::vector<socket_handle>& sockets, clock::duration left) {
  std::vector<pollfd> fds;
  for (socket_handle s : sockets) fds.push_back({static_cast<int>(s), POLLIN, 0});
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
  timespec ts = {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
  // A signal ends the wait at once (the handler has no SA_RESTART).
  if (ppoll(fds.data(), fds.size(), &ts, nullptr) < 0 && errno != EINTR)
    throw tool_error(std::string("waiting for replies: ") + strerror(errno), kExitFailed);
}

bool stdin_is_terminal() { return isatty(STDIN_FILENO) != 0; }

std::string read_hidden_line(const std::string& prompt) {
  std::string line;
  std::cerr << prompt << std::flush;
  termios old{};
  tcgetattr(STDIN_FILENO, &old);
  termios quiet = old;
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
  std::getline(std::cin, line);
  tcsetattr(STDIN_FILENO, TCSANOW, &old);
  std::cerr << "\n";
  return line;
}

void write_new_file(const std::string& path, const std::string& text, bool secret, bool replace) {
  const mode_t mode = secret ? 0600 : 0644;
  int flags = O_WRONLY | O_CREAT | O_NOFOLLOW | (replace ? O_TRUNC : O_EXCL);
  int fd = open(path.c_str(), flags, mode);
  if (fd < 0)
    throw tool_error(path + ": " + strerror(errno) + (errno == EEXIST ? " (--force replaces it)" : ""));
  if (fchmod(fd, mode) != 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
    int e = errno;
    close(fd);
    throw tool_error("cannot write " + path + ": " + strerror(e));
  }
  close(fd);
}

std::string base_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

}  // namespace os

std::vector<iface_info> list_interfaces() {
  std::vector<iface_info> out;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return out;
  for (ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
    iface_info* info = nullptr;
    for (iface_info& i : out)
      if (i.name == a->ifa_name) info = &i;
    if (info == nullptr) {
      out.push_back({a->ifa_name, "", (a->ifa_flags & IFF_UP) != 0,
                     (a->ifa_flags & IFF_LOOPBACK) != 0});
      info = &out.back();
    }
    if (a->ifa_addr != nullptr && a->ifa_addr->sa_family == AF_INET && info->ipv4.empty()) {
      char ip[INET_ADDRSTRLEN] = {};
      inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr, ip, sizeof(ip));
      info->ipv4 = ip;
    }
  }
  freeifaddrs(list);
  return out;
}

std::string default_route_interface() {
  std::ifstream in("/proc/net/route");
  std::string line;
  std::getline(in, line);  // header
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string name, dest, gateway, flags, refcnt, use, metric, mask;
    fields >> name >> dest >> gateway >> flags >> refcnt >> use >> metric >> mask;
    if (dest == "00000000" && mask == "00000000") return name;
  }
  return "";
}

std::unique_ptr<file_source> open_file(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw tool_error("cannot open " + path + ": " + strerror(errno));
  struct stat st = {};
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    close(fd);
    throw tool_error(path + " is not a regular file");
  }
  return std::make_unique<fd_file>(fd, static_cast<uint64_t>(st.st_size), path);
}

bool interrupted() { return g_interrupted != 0; }

void install_interrupt_handler() {
  struct sigaction sa = {};
  sa.sa_handler = on_signal;  // no SA_RESTART: a waiting poll returns at once
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
}

}  // namespace camtool
