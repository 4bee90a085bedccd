// The in-memory LAN (fake_lan.h): sockets, delivery rules and the capture.
#include "fakes/fake_lan.h"

#include <arpa/inet.h>
#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace {

std::atomic<FakeLan*> g_installed{nullptr};

int fail(int error) {
  errno = error;
  return -1;
}

std::string ip_text(const sockaddr_in& a) {
  char buf[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &a.sin_addr, buf, sizeof(buf));
  return buf;
}

sockaddr_in make_addr(in_addr_t addr, uint16_t port) {
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = addr;
  a.sin_port = htons(port);
  return a;
}

bool is_multicast(in_addr_t addr) { return IN_MULTICAST(ntohl(addr)); }
bool is_broadcast(in_addr_t addr) { return (ntohl(addr) & 0xFF) == 0xFF; }
bool is_loopback(in_addr_t addr) { return (ntohl(addr) >> 24) == 127; }

}  // namespace

std::string FakeLan::Datagram::from_ip() const { return ip_text(from); }
std::string FakeLan::Datagram::to_ip() const { return ip_text(to); }

FakeLan::FakeLan() {
  previous_ = set_network(this);
  g_installed.store(this);
}

FakeLan::~FakeLan() {
  g_installed.store(nullptr);
  set_network(previous_);
}

FakeLan* FakeLan::installed() { return g_installed.load(); }

// ---- the test's side ----------------------------------------------------------------

int FakeLan::udp(host_id host, const std::string& addr, int port) {
  std::lock_guard<std::mutex> lock(mu_);
  int fd = new_socket(host, AF_INET, SOCK_DGRAM);
  Sock* s = find(fd);
  s->reuse = true;
  bind_locked(s, inet_addr(addr.c_str()), static_cast<uint16_t>(port));
  return fd;
}

void FakeLan::join(int fd, const std::string& group) {
  std::lock_guard<std::mutex> lock(mu_);
  if (Sock* s = find(fd)) s->groups.insert(inet_addr(group.c_str()));
}

sockaddr_in FakeLan::address_of(int fd) const {
  std::lock_guard<std::mutex> lock(mu_);
  const Sock* s = find(fd);
  return s == nullptr ? sockaddr_in{} : make_addr(s->addr, s->port);
}

std::optional<FakeLan::Datagram> FakeLan::receive(int fd, int timeout_ms) {
  std::unique_lock<std::mutex> lock(mu_);
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    Sock* s = find(fd);
    if (s == nullptr) return std::nullopt;
    if (!s->queue.empty()) {
      Datagram d = std::move(s->queue.front());
      s->queue.pop_front();
      return d;
    }
    if (cv_.wait_until(lock, until) == std::cv_status::timeout) {
      s = find(fd);
      if (s == nullptr || s->queue.empty()) return std::nullopt;
    }
  }
}

void FakeLan::send(int fd, const sockaddr_in& to, const std::string& data) {
  std::lock_guard<std::mutex> lock(mu_);
  send_locked(fd, data.data(), data.size(), to);
}

int FakeLan::serve(int port, responder answer) {
  std::lock_guard<std::mutex> lock(mu_);
  int fd = new_socket(kCamera, AF_INET, SOCK_DGRAM);
  Sock* s = find(fd);
  s->reuse = true;
  s->answer = std::move(answer);
  bind_locked(s, htonl(INADDR_LOOPBACK), static_cast<uint16_t>(port));
  return fd;
}

void FakeLan::set_eth0(const std::string& addr) {
  std::lock_guard<std::mutex> lock(mu_);
  eth0_ = addr;
}

std::vector<FakeLan::Datagram> FakeLan::captured(int port) const {
  std::lock_guard<std::mutex> lock(mu_);
  std::vector<Datagram> out;
  for (const Datagram& d : capture_)
    if (port < 0 || d.to_port() == port) out.push_back(d);
  return out;
}

void FakeLan::clear_capture() {
  std::lock_guard<std::mutex> lock(mu_);
  capture_.clear();
}

int FakeLan::option(int fd, int level, int name) const {
  std::lock_guard<std::mutex> lock(mu_);
  const Sock* s = find(fd);
  if (s == nullptr) return -1;
  auto it = s->options.find({level, name});
  return it == s->options.end() ? -1 : it->second;
}

bool FakeLan::member(int fd, const std::string& group) const {
  std::lock_guard<std::mutex> lock(mu_);
  const Sock* s = find(fd);
  return s != nullptr && s->groups.count(inet_addr(group.c_str())) != 0;
}

bool FakeLan::nonblocking(int fd) const {
  std::lock_guard<std::mutex> lock(mu_);
  const Sock* s = find(fd);
  return s != nullptr && s->nonblock;
}

int FakeLan::open_sockets() const {
  std::lock_guard<std::mutex> lock(mu_);
  return static_cast<int>(socks_.size());
}

void FakeLan::fail_option(int level, int name, bool on) {
  std::lock_guard<std::mutex> lock(mu_);
  if (on)
    failing_options_.insert({level, name});
  else
    failing_options_.erase({level, name});
}

void FakeLan::fail_sockets(bool on) {
  std::lock_guard<std::mutex> lock(mu_);
  fail_sockets_ = on;
}

void FakeLan::fail_sends(bool on) {
  std::lock_guard<std::mutex> lock(mu_);
  fail_sends_ = on;
}

// ---- internals ---------------------------------------------------------------------------

FakeLan::Sock* FakeLan::find(int fd) {
  auto it = socks_.find(fd);
  return it == socks_.end() ? nullptr : &it->second;
}

const FakeLan::Sock* FakeLan::find(int fd) const {
  auto it = socks_.find(fd);
  return it == socks_.end() ? nullptr : &it->second;
}

int FakeLan::new_socket(int host, int family, int type) {
  int fd = next_fd_++;
  Sock& s = socks_[fd];
  s.host = host;
  s.family = family;
  s.type = type;
  return fd;
}

int FakeLan::bind_locked(Sock* s, in_addr_t addr, uint16_t port) {
  if (s->bound) return fail(EINVAL);
  if (port == 0) port = next_port_++;
  // A raw socket's port means nothing; UDP and TCP ports are shared only
  // between sockets that all allow it.
  if (s->type != SOCK_RAW) {
    for (const auto& [fd, o] : socks_) {
      if (&o == s || !o.bound || o.host != s->host || o.type != s->type || o.port != port ||
          o.family != s->family)
        continue;
      bool overlap = o.addr == 0 || addr == 0 || o.addr == addr;
      if (overlap && !(o.reuse && s->reuse)) return fail(EADDRINUSE);
    }
  }
  s->bound = true;
  s->addr = addr;
  s->port = port;
  return 0;
}

in_addr_t FakeLan::host_address(int host) const {
  if (host == kTool) return inet_addr(kToolAddress);
  return eth0_.empty() ? 0 : inet_addr(eth0_.c_str());
}

bool FakeLan::readable(const Sock& s) const {
  return !s.queue.empty() || s.shut || s.pending_error != 0;
}

void FakeLan::enqueue(Sock* s, const Datagram& d) {
  if (s->answer) {
    std::optional<std::string> reply = s->answer(d.data);
    // The answer goes back from the service's address to the requester.
    Datagram back;
    back.from = make_addr(s->addr, s->port);
    back.to = d.from;
    for (auto& [rfd, r] : socks_) {
      if (r.host != s->host || !r.bound || r.port != ntohs(d.from.sin_port) || r.type == SOCK_RAW)
        continue;
      if (!reply) {
        r.pending_error = ECONNREFUSED;
      } else {
        back.data = *reply;
        capture_.push_back(back);
        r.queue.push_back(back);
      }
      break;
    }
    return;
  }
  s->queue.push_back(d);
}

void FakeLan::deliver(int from_fd, const Datagram& d, bool loop) {
  const Sock* sender = find(from_fd);
  const int from_host = sender != nullptr ? sender->host : kCamera;
  const in_addr_t dst = d.to.sin_addr.s_addr;
  const uint16_t port = ntohs(d.to.sin_port);
  if (is_multicast(dst)) {
    for (auto& [fd, s] : socks_) {
      if (s.type != SOCK_DGRAM || !s.bound || s.port != port || s.groups.count(dst) == 0) continue;
      if (s.addr != 0 && s.addr != dst) continue;
      if (s.host == from_host && !loop) continue;
      enqueue(&s, d);
    }
  } else if (is_broadcast(dst)) {
    for (auto& [fd, s] : socks_) {
      if (fd == from_fd || s.type != SOCK_DGRAM || !s.bound || s.port != port || s.addr != 0)
        continue;
      enqueue(&s, d);
    }
  } else {
    int to_host = -1;
    if (is_loopback(dst))
      to_host = from_host;
    else if (dst == host_address(kCamera))
      to_host = kCamera;
    else if (dst == host_address(kTool))
      to_host = kTool;
    if (to_host < 0) return;  // nobody has that address
    // The socket bound last to the port takes it, as Linux does.
    for (auto it = socks_.rbegin(); it != socks_.rend(); ++it) {
      Sock& s = it->second;
      if (s.host != to_host || s.type != SOCK_DGRAM || !s.bound || s.port != port) continue;
      if (s.addr != 0 && s.addr != dst) continue;
      enqueue(&s, d);
      break;
    }
  }
  cv_.notify_all();
}

ssize_t FakeLan::send_locked(int fd, const void* buf, size_t len, const sockaddr_in& to) {
  Sock* s = find(fd);
  if (s == nullptr) return fail(EBADF);
  if (fail_sends_) return fail(ENETUNREACH);
  Datagram d;
  if (s->type == SOCK_RAW) {
    // A hand-made IPv4 header (20 bytes) and UDP header (8 bytes).
    const auto* p = static_cast<const uint8_t*>(buf);
    if (len < 28 || p[0] != 0x45 || p[9] != IPPROTO_UDP) return fail(EINVAL);
    in_addr_t src, dst;
    memcpy(&src, p + 12, 4);
    memcpy(&dst, p + 16, 4);
    d.from = make_addr(src, static_cast<uint16_t>(p[20] << 8 | p[21]));
    d.to = make_addr(dst, static_cast<uint16_t>(p[22] << 8 | p[23]));
    d.data.assign(reinterpret_cast<const char*>(p + 28), len - 28);
    d.raw = true;
  } else {
    if (!s->bound) bind_locked(s, 0, 0);
    in_addr_t src = s->addr;
    if (src == 0) {
      if (is_loopback(to.sin_addr.s_addr))
        src = htonl(INADDR_LOOPBACK);
      else if (is_multicast(to.sin_addr.s_addr) && s->multicast_if != 0)
        src = s->multicast_if;
      else
        src = host_address(s->host);
    }
    d.from = make_addr(src, s->port);
    d.to = to;
    d.data.assign(static_cast<const char*>(buf), len);
  }
  capture_.push_back(d);
  deliver(fd, d, s->loop);
  return static_cast<ssize_t>(len);
}

// ---- Network ------------------------------------------------------------------------------

int FakeLan::socket(int family, int type, int) {
  std::lock_guard<std::mutex> lock(mu_);
  if (fail_sockets_) return fail(EMFILE);
  return new_socket(kCamera, family, type & ~(SOCK_CLOEXEC | SOCK_NONBLOCK));
}

int FakeLan::setsockopt(int fd, int level, int name, const void* value, socklen_t len) {
  std::lock_guard<std::mutex> lock(mu_);
  Sock* s = find(fd);
  if (s == nullptr) return fail(EBADF);
  if (failing_options_.count({level, name}) != 0) return fail(EINVAL);
  int as_int = len >= sizeof(int) ? *static_cast<const int*>(value) : 0;
  if (level == IPPROTO_IP && (name == IP_ADD_MEMBERSHIP || name == IP_DROP_MEMBERSHIP)) {
    const auto* m = static_cast<const ip_mreq*>(value);
    const in_addr_t group = m->imr_multiaddr.s_addr;
    if (!is_multicast(group)) return fail(EINVAL);
    if (name == IP_ADD_MEMBERSHIP) {
      s->groups.insert(group);
    } else if (s->groups.erase(group) == 0) {
      return fail(EADDRNOTAVAIL);
    }
    return 0;
  }
  if (level == IPPROTO_IP && name == IP_MULTICAST_IF) {
    s->multicast_if = static_cast<const in_addr*>(value)->s_addr;
    return 0;
  }
  if (level == SOL_SOCKET && name == SO_REUSEADDR) s->reuse = as_int != 0;
  if (level == IPPROTO_IP && name == IP_MULTICAST_LOOP) s->loop = as_int != 0;
  s->options[{level, name}] = as_int;
  return 0;
}

int FakeLan::fcntl(int fd, int cmd, int arg) {
  std::lock_guard<std::mutex> lock(mu_);
  Sock* s = find(fd);
  if (s == nullptr) return fail(EBADF);
  if (cmd == F_GETFL) return O_RDWR | (s->nonblock ? O_NONBLOCK : 0);
  if (cmd == F_SETFL) {
    s->nonblock = (arg & O_NONBLOCK) != 0;
    return 0;
  }
  return fail(EINVAL);
}

int FakeLan::bind(int fd, const struct sockaddr* addr, socklen_t) {
  std::lock_guard<std::mutex> lock(mu_);
  Sock* s = find(fd);
  if (s == nullptr) return fail(EBADF);
  if (addr->sa_family == AF_INET6) {
    const auto* a6 = reinterpret_cast<const sockaddr_in6*>(addr);
    return bind_locked(s, 0, ntohs(a6->sin6_port));
  }
  const auto* a = reinterpret_cast<const sockaddr_in*>(addr);
  return bind_locked(s, a->sin_addr.s_addr, ntohs(a->sin_port));
}

int FakeLan::listen(int fd, int) {
  std::lock_guard<std::mutex> lock(mu_);
  Sock* s = find(fd);
  if (s == nullptr) return fail(EBADF);
  s->listening = true;
  return 0;
}

int FakeLan::accept(int fd, struct sockaddr*, socklen_t*) {
  // Nobody connects on this LAN: accept waits until the socket goes away.
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    Sock* s = find(fd);
    if (s == nullptr || !s->listening) return fail(s == nullptr ? EBADF : EINVAL);
    if (s->shut) return fail(EINVAL);
    cv_.wait(lock);
  }
}

ssize_t FakeLan::sendto(int fd, const void* buf, size_t len, int, const struct sockaddr* to,
                        socklen_t) {
  std::lock_guard<std::mutex> lock(mu_);
  if (to == nullptr || to->sa_family != AF_INET) {
    if (find(fd) == nullptr) return fail(EBADF);
    return static_cast<ssize_t>(len);  // IPv6 datagrams go nowhere here
  }
  return send_locked(fd, buf, len, *reinterpret_cast<const sockaddr_in*>(to));
}

ssize_t FakeLan::recvfrom(int fd, void* buf, size_t len, int flags, struct sockaddr* from,
                          socklen_t* from_len) {
  std::unique_lock<std::mutex> lock(mu_);
  for (;;) {
    Sock* s = find(fd);
    if (s == nullptr) return fail(EBADF);
    if (s->pending_error != 0) {
      int e = s->pending_error;
      s->pending_error = 0;
      return fail(e);
    }
    if (!s->queue.empty()) {
      Datagram d = std::move(s->queue.front());
      s->queue.pop_front();
      size_t n = d.data.size() < len ? d.data.size() : len;
      if (n > 0) memcpy(buf, d.data.data(), n);
      if (from != nullptr && from_len != nullptr) {
        socklen_t copy = *from_len < sizeof(d.from) ? *from_len : sizeof(d.from);
        memcpy(from, &d.from, copy);
        *from_len = sizeof(d.from);
      }
      return static_cast<ssize_t>(n);
    }
    if (s->shut) return 0;
    if (s->nonblock || (flags & MSG_DONTWAIT) != 0) return fail(EAGAIN);
    cv_.wait(lock);
  }
}

int FakeLan::poll(struct pollfd* fds, nfds_t count, int timeout_ms) {
  std::unique_lock<std::mutex> lock(mu_);
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    int ready = 0;
    for (nfds_t i = 0; i < count; ++i) {
      const Sock* s = find(fds[i].fd);
      fds[i].revents = 0;
      if (s == nullptr)
        fds[i].revents = POLLNVAL;
      else if (readable(*s))
        fds[i].revents = static_cast<short>(fds[i].events & POLLIN);
      if (fds[i].revents != 0) ++ready;
    }
    if (ready > 0 || timeout_ms == 0) return ready;
    if (timeout_ms < 0) {
      cv_.wait(lock);
    } else if (cv_.wait_until(lock, until) == std::cv_status::timeout) {
      timeout_ms = 0;  // one more look, then report the timeout
    }
  }
}

int FakeLan::shutdown(int fd, int) {
  std::lock_guard<std::mutex> lock(mu_);
  Sock* s = find(fd);
  if (s == nullptr) return fail(EBADF);
  s->shut = true;
  cv_.notify_all();
  return 0;
}

int FakeLan::close(int fd) {
  std::lock_guard<std::mutex> lock(mu_);
  if (socks_.erase(fd) == 0) return fail(EBADF);
  cv_.notify_all();
  return 0;
}

int FakeLan::interface_ipv4(const char* ifname, struct in_addr* out) {
  std::lock_guard<std::mutex> lock(mu_);
  if (strcmp(ifname, "lo") == 0) {
    out->s_addr = htonl(INADDR_LOOPBACK);
    return 0;
  }
  if (strcmp(ifname, "eth0") != 0 || eth0_.empty()) return fail(EADDRNOTAVAIL);
  out->s_addr = inet_addr(eth0_.c_str());
  return 0;
}

int FakeLan::interface_hwaddr(const char* ifname, unsigned char mac[6]) {
  if (strcmp(ifname, "eth0") != 0) return fail(ENODEV);
  const unsigned char eth0_mac[6] = {0x02, 0, 0, 0, 0, 0x01};
  memcpy(mac, eth0_mac, 6);
  return 0;
}

unsigned FakeLan::interface_index(const char* ifname) {
  if (strcmp(ifname, "lo") == 0) return 1;
  return strcmp(ifname, "eth0") == 0 ? 2 : 0;
}
