// The NORM sender on libnorm (linked statically, so the package needs no
// new library): one session per upgrade round, set up as bench/norm_file.cpp
// measured it on the lossy lab LAN (the reasons are written there), and an
// exact count of the bytes the session puts on the wire. The repair work
// (NACKs and their suppression, Reed-Solomon parity, pacing) is libnorm's;
// this file only configures it.
#include <normApi.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>

#include "camtool/norm.h"
#include "camtool/upgrade.h"

// camtool links with --wrap=sendto: every sendto of the program (libnorm's
// protocol thread included) comes here. Datagrams to the session's group
// and port are the session's; camtool's own go to the text protocol's
// groups, which parse_norm_group keeps apart from it.
namespace {
std::atomic<uint32_t> g_count_group{0};  // host order; 0: no session
std::atomic<uint32_t> g_count_port{0};
std::atomic<uint64_t> g_counted{0};
}  // namespace

extern "C" ssize_t __real_sendto(int fd, const void* buf, size_t len, int flags, const sockaddr* to,
                                 socklen_t to_len);

extern "C" ssize_t __wrap_sendto(int fd, const void* buf, size_t len, int flags, const sockaddr* to,
                                 socklen_t to_len) {
  const ssize_t n = __real_sendto(fd, buf, len, flags, to, to_len);
  if (n > 0 && to != nullptr && to_len >= sizeof(sockaddr_in) && to->sa_family == AF_INET) {
    sockaddr_in in{};
    memcpy(&in, to, sizeof(in));
    if (ntohl(in.sin_addr.s_addr) == g_count_group.load() && ntohs(in.sin_port) == g_count_port.load())
      g_counted += static_cast<uint64_t>(n);
  }
  return n;
}

namespace camtool {

namespace {

// The settings of bench/norm_file.cpp.
constexpr UINT16 kSegment = 1400;  // a packet stays under a 1,500-byte MTU: no fragments
constexpr UINT16 kBlock = 128;
constexpr UINT16 kParity = 32;
constexpr unsigned char kAutoParity = 0;
constexpr double kGrtt = 0.01, kGrttMax = 0.02;
constexpr double kBackoff = 2;
constexpr unsigned kGroupSize = 200;
constexpr int kRobust = 20;
constexpr int kAckRounds = 4;  // requests of acknowledgement, each to those that have not answered
constexpr UINT32 kSenderBuffer = 8 * 1024 * 1024;
constexpr unsigned kSocketBuffer = 4 * 1024 * 1024;

std::string dotted(uint32_t a) {
  return std::to_string(a >> 24) + "." + std::to_string((a >> 16) & 0xff) + "." +
         std::to_string((a >> 8) & 0xff) + "." + std::to_string(a & 0xff);
}

class libnorm_sender : public norm_sender {
 public:
  explicit libnorm_sender(std::string iface) : iface_(std::move(iface)) {}
  ~libnorm_sender() override { close(); }

  void start(file_source& file, const std::string& info, const std::vector<uint32_t>& nodes,
             const wire::norm_offer& group, double rate_bps) override {
    close();
    nodes_ = nodes;
    rounds_ = 1;
    over_ = false;
    copy(file);
    // The protocol thread paces the packets: raised to real-time priority
    // where the system allows it (root or CAP_SYS_NICE), it keeps the rate
    // on a busy machine; elsewhere it runs as any thread.
    instance_ = NormCreateInstance(true);
    if (instance_ == NORM_INSTANCE_INVALID) fail("no NORM instance");
    session_ = NormCreateSession(instance_, dotted(group.group).c_str(), group.port, sender_id());
    if (session_ == NORM_SESSION_INVALID) fail("no NORM session on " + dotted(group.group));
    if (!NormSetMulticastInterface(session_, iface_.c_str()))
      fail("NORM refused interface " + iface_);
    NormSetTTL(session_, 1);
    NormSetMulticastLoopback(session_, false);
    NormSetFragmentation(session_, false);
    NormSetTxRate(session_, rate_bps);
    NormSetCongestionControl(session_, false);
    NormSetGrttEstimate(session_, kGrtt);
    NormSetGrttMax(session_, kGrttMax);
    NormLimitObjectInfo(session_, true);
    NormSetGrttProbingMode(session_, NORM_PROBE_ACTIVE);
    NormSetBackoffFactor(session_, kBackoff);
    NormSetGroupSize(session_, kGroupSize);
    NormSetTxRobustFactor(session_, kRobust);
    g_counted = 0;
    g_count_port = group.port;
    g_count_group = group.group;
    if (!NormStartSender(session_, NormGetRandomSessionId(), kSenderBuffer, kSegment, kBlock, kParity))
      fail("the NORM sender did not start");
    NormSetTxSocketBuffer(session_, kSocketBuffer);
    NormSetAutoParity(session_, kAutoParity);
    for (uint32_t id : nodes_) NormAddAckingNode(session_, id);
    NormObjectHandle object = NormFileEnqueue(session_, path_.c_str(), info.data(),
                                              static_cast<unsigned>(info.size()));
    if (object == NORM_OBJECT_INVALID) fail("the file was not taken into the NORM session");
    NormSetWatermark(session_, object, true);
  }

  bool poll() override {
    if (instance_ == NORM_INSTANCE_INVALID) return true;
    pollfd p{NormGetDescriptor(instance_), POLLIN, 0};
    NormEvent ev{};
    while (!over_ && ::poll(&p, 1, 0) > 0 && NormGetNextEvent(instance_, &ev, false)) {
      if (ev.type != NORM_TX_WATERMARK_COMPLETED) continue;
      // A camera still busy with the file, or whose acknowledgements were
      // lost, is asked again; those that answered are not.
      if (NormGetAckingStatus(session_, NORM_NODE_ANY) != NORM_ACK_SUCCESS && rounds_ < kAckRounds) {
        ++rounds_;
        NormResetWatermark(session_);
        continue;
      }
      over_ = true;
    }
    return over_;
  }

  std::vector<uint32_t> acked() override {
    std::vector<uint32_t> out;
    if (session_ != NORM_SESSION_INVALID)
      for (uint32_t id : nodes_)
        if (NormGetAckingStatus(session_, id) == NORM_ACK_SUCCESS) out.push_back(id);
    return out;
  }

  void ask_again() override {
    if (session_ == NORM_SESSION_INVALID) return;
    rounds_ = 1;
    over_ = false;
    NormResetWatermark(session_);
  }

  norm_outcome finish() override {
    norm_outcome out;
    out.acked = acked();
    close();  // the protocol thread has ended: the count is complete
    out.wire_bytes = g_counted.load();
    return out;
  }

 private:
  [[noreturn]] void fail(const std::string& what) {
    close();
    throw tool_error(what, kExitFailed);
  }

  // The sender's node ID: random, none of the cameras'.
  uint32_t sender_id() const {
    std::random_device rd;
    for (;;) {
      uint32_t id = rd();
      if (id != 0 && id != NORM_NODE_ANY && id != NORM_NODE_NONE &&
          std::find(nodes_.begin(), nodes_.end(), id) == nodes_.end())
        return id;
    }
  }

  // libnorm sends a file from disk: the bytes whose md5 was announced go
  // into a private copy (the file given may carry a signature trailer that
  // exists only in memory).
  void copy(file_source& file) {
    const char* dir = getenv("TMPDIR");
    std::string path = std::string(dir != nullptr && *dir != '\0' ? dir : "/tmp") + "/camtool-norm-XXXXXX";
    int fd = mkstemp(path.data());
    if (fd < 0) throw tool_error("a copy of the file for NORM: " + path + ": " + strerror(errno), kExitFailed);
    path_ = path;
    std::string buf(1 << 16, '\0');
    for (uint64_t off = 0; off < file.size();) {
      size_t len = static_cast<size_t>(std::min<uint64_t>(buf.size(), file.size() - off));
      file.read(off, buf.data(), len);
      for (size_t done = 0; done < len;) {
        ssize_t n = write(fd, buf.data() + done, len - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
          std::string why = strerror(errno);
          ::close(fd);
          fail("writing " + path_ + ": " + why);
        }
        done += static_cast<size_t>(n);
      }
      off += len;
    }
    ::close(fd);
  }

  void close() {
    if (session_ != NORM_SESSION_INVALID) {
      NormStopSender(session_);
      NormDestroySession(session_);
      session_ = NORM_SESSION_INVALID;
    }
    if (instance_ != NORM_INSTANCE_INVALID) {
      NormDestroyInstance(instance_);
      instance_ = NORM_INSTANCE_INVALID;
    }
    g_count_group = 0;
    g_count_port = 0;
    if (!path_.empty()) unlink(path_.c_str());
    path_.clear();
  }

  std::string iface_, path_;
  std::vector<uint32_t> nodes_;
  NormInstanceHandle instance_ = NORM_INSTANCE_INVALID;
  NormSessionHandle session_ = NORM_SESSION_INVALID;
  int rounds_ = 1;
  bool over_ = false;
};

}  // namespace

std::unique_ptr<norm_sender> make_norm_sender(const std::string& iface) {
  return std::make_unique<libnorm_sender>(iface);
}

}  // namespace camtool
