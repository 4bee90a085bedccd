// A LAN in memory behind the Network seam (core/network.h), so unit tests
// open no real socket. Two hosts: the camera (every socket the daemon opens:
// eth0 192.168.77.2 and its loopback) and a tool (192.168.77.10 and its own
// loopback). UDP sockets bind, join groups and exchange datagrams: unicast
// to the host that owns the address (127.0.0.1: the sender's own host),
// multicast to every member socket of the group (not back to the sending
// host when its socket turned IP_MULTICAST_LOOP off), broadcast to every
// socket on the port. A raw IPv4 socket's datagrams are read from the IP and
// UDP headers they carry. Every datagram sent is captured, in order.
//
//   FakeLan lan;                                   // installs itself, restores on exit
//   int tool = lan.udp(FakeLan::kTool);            // a tool socket, port picked
//   lan.join(tool, "239.255.255.251");
//   int svc = lan.serve(1259, [](const std::string& req) { return std::nullopt; });
//
// Blocking receives and polls wait for a datagram, as real sockets do.
#pragma once

#include <netinet/in.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/network.h"

class FakeLan : public Network {
 public:
  enum host_id { kCamera = 0, kTool = 1 };
  static constexpr const char* kToolAddress = "192.168.77.10";

  struct Datagram {
    sockaddr_in from{};  // source address and port
    sockaddr_in to{};    // destination: a host, a group or a broadcast address
    std::string data;
    bool raw = false;  // sent through a raw IPv4 socket
    std::string from_ip() const;
    std::string to_ip() const;
    int from_port() const { return ntohs(from.sin_port); }
    int to_port() const { return ntohs(to.sin_port); }
  };
  // A service's answer to one request; nothing: the requester's next
  // receive fails (ECONNREFUSED), as when nothing answers.
  using responder = std::function<std::optional<std::string>(const std::string& request)>;

  FakeLan();
  ~FakeLan() override;
  FakeLan(const FakeLan&) = delete;
  FakeLan& operator=(const FakeLan&) = delete;
  // The fake LAN in use, or nullptr when the real network is.
  static FakeLan* installed();

  // ---- the test's side --------------------------------------------------------
  // A UDP socket on `host` with SO_REUSEADDR, bound to addr:port (port 0: one
  // is picked). Closed with close().
  int udp(host_id host, const std::string& addr = "0.0.0.0", int port = 0);
  void join(int fd, const std::string& group);
  // Where a socket is bound (getsockname).
  sockaddr_in address_of(int fd) const;
  // The next datagram queued for fd, waiting up to timeout_ms.
  std::optional<Datagram> receive(int fd, int timeout_ms = 0);
  // Sends from a test socket.
  void send(int fd, const sockaddr_in& to, const std::string& data);
  // A service on the camera's loopback port (the local control service, the
  // tracking service): each request goes to `answer`, whose answer goes
  // back to the requester. Returns the service's socket.
  int serve(int port, responder answer);

  // eth0's address ("" when it has none); its MAC is 02:00:00:00:00:01.
  void set_eth0(const std::string& addr);
  // Every datagram sent so far, in order; or only those to port `port`.
  std::vector<Datagram> captured(int port = -1) const;
  void clear_capture();

  // Inspection and failures.
  int option(int fd, int level, int name) const;  // -1 when never set
  bool member(int fd, const std::string& group) const;
  bool nonblocking(int fd) const;
  int open_sockets() const;
  // setsockopt of this option fails (EINVAL) while set.
  void fail_option(int level, int name, bool on = true);
  void fail_sockets(bool on);  // socket() fails (EMFILE)
  void fail_sends(bool on);    // sendto() fails (ENETUNREACH)

  // ---- Network ----------------------------------------------------------------
  int socket(int family, int type, int protocol) override;
  int setsockopt(int fd, int level, int name, const void* value, socklen_t len) override;
  int fcntl(int fd, int cmd, int arg) override;
  int bind(int fd, const struct sockaddr* addr, socklen_t len) override;
  int listen(int fd, int backlog) override;
  int accept(int fd, struct sockaddr* addr, socklen_t* len) override;
  ssize_t sendto(int fd, const void* buf, size_t len, int flags, const struct sockaddr* to,
                 socklen_t to_len) override;
  ssize_t recvfrom(int fd, void* buf, size_t len, int flags, struct sockaddr* from,
                   socklen_t* from_len) override;
  int poll(struct pollfd* fds, nfds_t count, int timeout_ms) override;
  int shutdown(int fd, int how) override;
  int close(int fd) override;
  int interface_ipv4(const char* ifname, struct in_addr* out) override;
  int interface_hwaddr(const char* ifname, unsigned char mac[6]) override;
  unsigned interface_index(const char* ifname) override;

 private:
  struct Sock {
    int host = kCamera;
    int family = AF_INET;
    int type = SOCK_DGRAM;
    bool bound = false;
    in_addr_t addr = 0;  // network order; INADDR_ANY when 0
    uint16_t port = 0;   // host order
    bool reuse = false, nonblock = false, loop = true, shut = false, listening = false;
    in_addr_t multicast_if = 0;
    std::set<in_addr_t> groups;
    std::map<std::pair<int, int>, int> options;
    std::deque<Datagram> queue;
    int pending_error = 0;
    responder answer;
  };
  Sock* find(int fd);
  const Sock* find(int fd) const;
  int new_socket(int host, int family, int type);
  int bind_locked(Sock* s, in_addr_t addr, uint16_t port);
  in_addr_t host_address(int host) const;
  void deliver(int from_fd, const Datagram& d, bool loop);
  // Queues d for s, or hands it to s's responder (under the LAN's lock:
  // a responder must not call the LAN).
  void enqueue(Sock* s, const Datagram& d);
  ssize_t send_locked(int fd, const void* buf, size_t len, const sockaddr_in& to);
  bool readable(const Sock& s) const;

  mutable std::mutex mu_;
  std::condition_variable cv_;
  std::map<int, Sock> socks_;
  int next_fd_ = 1000;
  uint16_t next_port_ = 40000;
  std::string eth0_ = "192.168.77.2";
  std::vector<Datagram> capture_;
  std::set<std::pair<int, int>> failing_options_;
  bool fail_sockets_ = false, fail_sends_ = false;
  Network* previous_ = nullptr;
};
