// The multicast upgrade's announcement and transfer: one transfer at a time,
// kept in one record under one lock (both listeners may hand in datagrams).
// The installation runs after the lock is released: while it runs, another
// "CAMERA_UP" is answered '9' (or, a packet, dropped) at once, so neither
// listener waits for the reboot and both go on answering searches.
#include "discovery/mcast_upgrade.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/reboot.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "core/daemon_state.h"
#include "core/dbgout.h"
#include "core/file_names.h"
#include "core/fork_guard.h"
#include "core/helpers.h"
#include "core/platform.h"
#include "core/site_keys.h"
#include "core/network.h"
#include "core/text.h"
#include "core/threads.h"
#include "discovery/identity.h"
#include "discovery/mcast_install.h"
#include "discovery/norm_receiver.h"
#include "wire/upgrade.h"

namespace {

constexpr uint64_t kRefusePauseUs = 200000;
// Each answer of a NORM session goes out this many times (its tool drops
// repeats): a lost '0' or '7' would otherwise cost the camera its session.
constexpr int kNormAckCopies = 3;

struct upgrade_state {
  // The accepted announcement: packets of its session are stored.
  char session[kIdLen + 1] = {};
  char file_name[wire::kFileNameMax + 1] = {};
  char md5[wire::kMd5Len + 1] = {};
  int file_size = 0;
  // The mode of the last announcement read (a missing field keeps it).
  int mode = 0;
  int fd = -1;
  int count_pack = 0;
  // Bytes of the file written so far: nothing past file_size is stored.
  int64_t written = 0;
  // A keyed camera hashes the file as it comes, for its signature.
  streamed_prehash prehash;
  // The file comes over NORM: the session's packets are ignored.
  bool norm = false;
};

// A verified file waiting to be installed once the lock is released.
struct install_job {
  std::string path;
  int mode = 0;
  int file_size = 0;
};

std::mutex g_mu;
// A child of the installers carries on as a copy of the listener.
[[maybe_unused]] const int g_mu_fork_guard = guard_across_fork<g_mu>(kForkRankSession);
upgrade_state g_up;
// Set from a good md5 until the reboot (cleared again when nothing was
// installed): announcements are answered '9', packets are dropped.
std::atomic<bool> g_installing{false};
// Counts resets: a NORM session started before one leaves the record alone.
std::atomic<unsigned> g_generation{0};
// NORM receiver threads still running (a reset waits for them).
std::mutex g_threads_mu;
[[maybe_unused]] const int g_threads_fork_guard = guard_across_fork<g_threads_mu>(kForkRankModule);
std::condition_variable g_threads_cv;
int g_threads = 0;

// Counts a receiver thread from its start to its end.
struct counted_thread {
  counted_thread() {
    std::lock_guard<std::mutex> l(g_threads_mu);
    ++g_threads;
  }
  ~counted_thread() {
    std::lock_guard<std::mutex> l(g_threads_mu);
    --g_threads;
    g_threads_cv.notify_all();
  }
  counted_thread(const counted_thread&) = delete;
  counted_thread& operator=(const counted_thread&) = delete;
};

bool debug_mode() { return daemon_state.work_mode.load() == WORK_DEBUG; }

std::string stored_path() { return std::string("/dev/") + g_up.file_name; }

// The descriptor is forgotten when closed: a later write fails on it
// instead of landing in whatever the number names next.
void close_file() {
  if (g_up.fd >= 0) close(g_up.fd);
  g_up.fd = -1;
}

// Appends a packet's data. The announced size bounds the file ("/dev" is
// RAM on the camera): what would pass it is not written, and the write fails
// as a short one does.
bool write_whole(const char* data, size_t len) {
  const int64_t room = g_up.file_size - g_up.written;
  const size_t fits = room <= 0 ? 0 : static_cast<size_t>(std::min<int64_t>(room, len));
  ssize_t n = fits == 0 ? 0 : write(g_up.fd, data, fits);
  if (n > 0) {
    g_up.written += n;
    g_up.prehash.feed(data, static_cast<size_t>(n));
  }
  return fits == len && n == static_cast<ssize_t>(len);
}

// '6' for a refused name or a wrong md5: the reply goes out, the file system
// is synced and, unless debugging, the camera reboots.
void answer_refused(mcast_endpoint* ep, const char* reason = nullptr) {
  if (reason == nullptr) {
    send_upgrade_ack(ep, wire::ACK_MD5_BAD);
  } else {
    char buf[256];
    build_upgrade_ack(buf, wire::ACK_MD5_BAD);
    send_ack_text(ep, std::string(buf) + "\r\n" + wire::kReasonKey + reason);
  }
  sys().sleep_us(kRefusePauseUs);
  sys().sync();
  sys().sleep_us(kRefusePauseUs);
  if (debug_mode()) return;
  wdt_reboot(1);
  sys().sleep_us(5000000);
  sys().reboot(RB_AUTOBOOT);
}

// Empties what earlier recordings, logs and images left in /dev.
void clear_scratch_files() {
  sys().shell("echo  > /dev/orn.log");
  sys().shell("rm -rf /dev/*.log");
  for (int i = 1; i <= 4; ++i) sys().shell("echo  > /dev/video" + std::to_string(i) + ".mp4");
  for (int i = 1; i <= 4; ++i) sys().shell("echo  > /dev/photo" + std::to_string(i) + ".jpg");
  sys().shell("rm -rf /dev/*.img");
}

// The name check of an announcement. A name that only holds characters a
// shell acts on is refused ('6') but, when debugging, the announcement goes
// on (every path is quoted in the shell lines); a name that could leave
// "/dev/", is one of the daemon's own files or names a device never does.
bool name_refused(mcast_endpoint* ep, const char* name) {
  const name_verdict v = check_file_name("/dev", name);
  if (v == name_verdict::ok) return false;
  DBG_ERR("upgrade filename error!\n");
  answer_refused(ep);
  return v == name_verdict::refused || !debug_mode();
}

bool start_norm_transfer(mcast_endpoint* ep, const wire::norm_offer& offer, uint32_t* node);

void handle_announcement(mcast_endpoint* ep, const char* msg) {
  if (check_uuid_bat(msg) != 0) {
    DBG_ERR("uuid check failed\n");
    return;
  }
  if (mcast_upgrade_in_progress() || g_installing.load()) {
    send_upgrade_ack(ep, wire::ACK_BUSY);
    return;
  }
  // A new announcement ends the transfer before it: only an accepted one
  // opens a new session (and only a NORM one repeats its answers).
  set_upgrade_ack_copies(1);
  close_file();
  g_up.session[0] = '\0';
  const wire::announced_fields f = wire::read_announcement(msg);
  TRACE("filename:%s\n", f.file_name.c_str());
  // A refused name is answered under the previous requester's ID: the
  // session becomes the requester only once the name has passed.
  if (name_refused(ep, f.file_name.c_str())) return;
  set_upgrade_client_id(f.session.c_str());
  DBG_INFO("cur_client_id_Upgrade:%s\n", f.session.c_str());
  DBG_INFO("upgrade_file_size:%d\n", f.file_size);
  if (f.mode) g_up.mode = *f.mode;

  clear_scratch_files();
  struct statfs fs;
  uint64_t free_bytes = 0;
  memset(&fs, 0, sizeof(fs));
  if (statfs(cam_path("/dev/").c_str(), &fs) == 0)
    free_bytes = static_cast<uint64_t>(fs.f_bfree) * static_cast<uint64_t>(fs.f_bsize);
  // A negative size is no size at all.
  if (f.file_size < 0 || free_bytes <= static_cast<uint64_t>(f.file_size)) {
    DBG_ERR("statfsbuf.f_bfree=%d\n", static_cast<int>(fs.f_bfree));
    DBG_ERR("not enough disk space\n");
    send_upgrade_ack(ep, wire::ACK_NO_SPACE);
    return;
  }
  kill_pid_main();
  copy_text(g_up.session, sizeof(g_up.session), f.session.data(), f.session.size());
  copy_text(g_up.file_name, sizeof(g_up.file_name), f.file_name.data(), f.file_name.size());
  memset(g_up.md5, 0, sizeof(g_up.md5));
  copy_text(g_up.md5, sizeof(g_up.md5), f.md5.data(), f.md5.size());
  g_up.file_size = f.file_size;
  g_up.count_pack = 0;
  g_up.written = 0;
  g_up.norm = false;
  set_upgrade_client_id(g_up.session);
  const auto offer = wire::read_transfer_offer(msg);
  uint32_t node = 0;
  if (offer && daemon_state.site.norm_transfer == 1 && start_norm_transfer(ep, *offer, &node)) {
    set_upgrade_ack_copies(kNormAckCopies);
    char buf[256];
    build_upgrade_ack(buf, wire::ACK_READY);
    send_ack_text(ep, std::string(buf) + wire::transfer_answer_field(node));
  } else {
    send_upgrade_ack(ep, wire::ACK_READY);
  }
  set_mcast_upgrade_in_progress(1);
}

// After the last packet: the md5 decides between '6' and '5'; a good file
// is handed out to be installed by mode (not while debugging).
void verify(mcast_endpoint* ep, install_job* job) {
  const std::string path = stored_path();
  if (md5_verify(path.c_str(), g_up.md5) != 0) {
    DBG_ERR("destfile md5 verify failed\n");
    answer_refused(ep);
    return;
  }
  TRACE("md5 verify succeed\n");
  // A keyed camera installs only what a site key signed: the signature
  // travels at the end of the file and is cut off before anything else.
  uint64_t payload = static_cast<uint64_t>(g_up.file_size);
  const signature_check sig = take_signature_trailer(path, &payload, &g_up.prehash);
  if (!sig.ok) {
    DBG_ERR("signature check failed: %s\n", sig.why.c_str());
    TRACE("signature check failed: %s\n", sig.why.c_str());
    answer_refused(ep, wire::kReasonSignature);
    return;
  }
  send_upgrade_ack(ep, wire::ACK_MD5_OK);
  if (debug_mode()) return;
  job->path = path;
  job->mode = g_up.mode;
  job->file_size = static_cast<int>(payload);
  g_installing = true;
}

// ---- the file over NORM ------------------------------------------------------
// The announcement waits until the receiver thread listens on the offered
// group (then answers '0' with the transfer field) or fails to (then a
// plain '0': the file comes as packets).
struct norm_handshake {
  std::mutex mu;
  std::condition_variable cv;
  enum { waiting, listening, abandoned, failed } state = waiting;
};

struct norm_context {
  mcast_endpoint* ep = nullptr;
  norm_job job;
  unsigned generation = 0;
  std::shared_ptr<norm_handshake> hs;
  counted_thread* counted = nullptr;  // counted from before the thread starts
};

constexpr auto kListenWait = std::chrono::seconds(3);

// eth0's IPv4 address; without one, a number made from the device ID.
uint32_t norm_node_id() {
  struct in_addr a {};
  if (net().interface_ipv4("eth0", &a) == 0) {
    const uint32_t id = ntohl(a.s_addr);
    if (id != 0 && id != 0xffffffffu) return id;
  }
  char dev[kIdLen + 1];
  get_device_id(dev);
  uint32_t h = 2166136261u;
  for (const char* c = dev; *c != '\0'; ++c) h = (h ^ static_cast<unsigned char>(*c)) * 16777619u;
  return h == 0 || h == 0xffffffffu ? 1 : h;
}

// A session given up: '2' says why, the file system is synced and, unless
// debugging, the camera reboots to bring back the programs it stopped.
void norm_give_up(mcast_endpoint* ep, norm_outcome out) {
  DBG_ERR("norm transfer ended: %s\n", norm_outcome_name(out));
  char buf[256];
  build_upgrade_ack(buf, wire::ACK_WRITE_FAILED);
  send_ack_text(ep, std::string(buf) + "\r\n" + wire::kReasonKey + norm_outcome_name(out));
  sys().sleep_us(kRefusePauseUs);
  sys().sync();
  if (debug_mode()) return;
  wdt_reboot(1);
  sys().sleep_us(5000000);
  sys().reboot(RB_AUTOBOOT);
}

void* norm_transfer_main(void* arg) {
  std::unique_ptr<norm_context> ctx(static_cast<norm_context*>(arg));
  const std::unique_ptr<counted_thread> counted(ctx->counted);
  const std::shared_ptr<norm_handshake> hs = ctx->hs;
  const norm_outcome out = norm_receiver().receive(ctx->job, [&hs] {
    std::lock_guard<std::mutex> l(hs->mu);
    if (hs->state == norm_handshake::abandoned) return false;
    hs->state = norm_handshake::listening;
    hs->cv.notify_all();
    return true;
  });
  {
    std::lock_guard<std::mutex> l(hs->mu);
    if (hs->state != norm_handshake::listening) {
      hs->state = norm_handshake::failed;
      hs->cv.notify_all();
      return nullptr;
    }
  }
  install_job job;
  {
    std::lock_guard<std::mutex> lock(g_mu);
    if (ctx->generation != g_generation.load() || !g_up.norm || ctx->job.session != g_up.session)
      return nullptr;
    g_up.norm = false;
    if (out != norm_outcome::complete) {
      g_up.session[0] = '\0';
    } else {
      TRACE("file trans over\n");
      g_up.written = g_up.file_size;
      verify(ctx->ep, &job);
    }
  }
  if (out != norm_outcome::complete) {
    norm_give_up(ctx->ep, out);
    return nullptr;
  }
  if (!job.path.empty() && !install_upgrade_file(ctx->ep, job.path.c_str(), job.mode, job.file_size))
    g_installing = false;
  return nullptr;
}

// Starts the receiver for the accepted announcement (under the lock); true
// once it listens, with the node ID for the '0'.
bool start_norm_transfer(mcast_endpoint* ep, const wire::norm_offer& offer, uint32_t* node) {
  auto ctx = std::make_unique<norm_context>();
  ctx->ep = ep;
  ctx->job.group = offer.group;
  ctx->job.port = offer.port;
  ctx->job.node_id = norm_node_id();
  ctx->job.iface = "eth0";
  ctx->job.session = g_up.session;
  ctx->job.dir = cam_path("/dev/");
  if (ctx->job.dir.back() != '/') ctx->job.dir += '/';
  ctx->job.path = cam_path(stored_path());
  ctx->job.max_size = static_cast<uint64_t>(std::max(g_up.file_size, 0));
  ctx->job.silence_ms = std::max(daemon_state.site.transfer_silence, 1) * 1000;
  ctx->generation = g_generation.load();
  ctx->hs = std::make_shared<norm_handshake>();
  const std::shared_ptr<norm_handshake> hs = ctx->hs;
  const uint32_t id = ctx->job.node_id;
  ctx->counted = new counted_thread;
  if (start_thread("norm_transfer", norm_transfer_main, ctx.get()) != 0) {
    delete ctx->counted;
    return false;
  }
  ctx.release();
  std::unique_lock<std::mutex> l(hs->mu);
  hs->cv.wait_for(l, kListenWait, [&hs] { return hs->state != norm_handshake::waiting; });
  if (hs->state != norm_handshake::listening) {
    if (hs->state == norm_handshake::waiting) hs->state = norm_handshake::abandoned;
    DBG_ERR("norm receiver not ready: the file comes as packets\n");
    return false;
  }
  g_up.norm = true;
  g_up.prehash.start(static_cast<uint64_t>(std::max(g_up.file_size, 0)), false);
  *node = id;
  return true;
}

// Opens the destination afresh. Whatever took the name in "/dev" since the
// announcement is checked again: a link is never followed and nothing but a
// regular file is written.
int open_destination(const std::string& path) {
  if (check_file_name("/dev", g_up.file_name) == name_verdict::refused) return -1;
  int fd = open(cam_path(path).c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW,
                0777);
  struct stat st;
  if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
    close(fd);
    fd = -1;
  }
  return fd;
}

void first_packet(mcast_endpoint* ep, const wire::packet_view& p) {
  close_file();  // a repeated first packet starts the file again
  const std::string path = stored_path();
  DBG_INFO("dstfilesavepath: %s\n", path.c_str());
  g_up.written = 0;
  g_up.fd = open_destination(path);
  if (g_up.fd < 0) {
    DBG_ERR("open %s failed\n", path.c_str());
    sys().sync();
    send_upgrade_ack(ep, wire::ACK_WRITE_FAILED);
    return;
  }
  g_up.prehash.start(static_cast<uint64_t>(std::max(g_up.file_size, 0)), camera_is_keyed());
  if (!write_whole(p.data, p.len)) {
    DBG_ERR("write dstfile failed\n");
    close_file();
    send_upgrade_ack(ep, wire::ACK_WRITE_FAILED);
    return;
  }
  TRACE("file trans begin\n");
  g_up.count_pack = 1;
  DBG_INFO("redata_len=%d,countPack=%d\n", static_cast<int>(p.len), g_up.count_pack);
}

void middle_packet(const wire::packet_view& p) {
  ++g_up.count_pack;
  if (write_whole(p.data, p.len)) return;
  // No reply: the 'o' packet finds the file closed and answers '2'.
  DBG_ERR("t,write dstfile failed\n");
  close_file();
}

void last_packet(mcast_endpoint* ep, const wire::packet_view& p, install_job* job) {
  ++g_up.count_pack;
  DBG_INFO("redata_len=%d,countPack=%d\n", static_cast<int>(p.len), g_up.count_pack);
  if (!write_whole(p.data, p.len)) {
    DBG_ERR("write dstfile failed\n");
    close_file();
    send_upgrade_ack(ep, wire::ACK_WRITE_FAILED);
    return;
  }
  TRACE("file trans over\n");
  close_file();
  verify(ep, job);
}

void handle_packet(mcast_endpoint* ep, const char* buf, size_t len, install_job* job) {
  const auto p = wire::parse_packet(buf, len);
  if (!p || g_up.session[0] == '\0' || g_installing.load() || g_up.norm) return;
  char session[kIdLen] = {};
  memcpy(session, g_up.session, strnlen(g_up.session, kIdLen));
  if (memcmp(p->session.data(), session, kIdLen) != 0) return;  // another session's stream
  switch (p->kind) {
    case wire::kPacketFirst:
      first_packet(ep, *p);
      break;
    case wire::kPacketMiddle:
      middle_packet(*p);
      break;
    case wire::kPacketLast:
      last_packet(ep, *p, job);
      break;
    default:
      break;
  }
}

}  // namespace

void handle_camera_upgrade(mcast_endpoint* ep, const char* buf, size_t len) {
  // Field searches stop at the first NUL, as in every text command.
  const size_t text_len = strnlen(buf, len);
  const char* key = wire::kDeviceIdKey;
  const bool announcement = memmem(buf, text_len, key, strlen(key)) != nullptr;
  const std::string msg = announcement ? std::string(buf, text_len) : std::string();
  if (g_installing.load()) {
    if (!announcement) return;
    if (check_uuid_bat(msg.c_str()) != 0) {
      DBG_ERR("uuid check failed\n");
      return;
    }
    send_upgrade_ack(ep, wire::ACK_BUSY);
    return;
  }
  install_job job;
  {
    std::lock_guard<std::mutex> lock(g_mu);
    if (announcement)
      handle_announcement(ep, msg.c_str());
    else
      handle_packet(ep, buf, len, &job);
  }
  if (job.path.empty()) return;
  // Modes below 1 install nothing and leave the camera running; so does a
  // failed fork. Every other outcome ends in the reboot.
  if (!install_upgrade_file(ep, job.path.c_str(), job.mode, job.file_size)) g_installing = false;
}

void reset_mcast_upgrade() {
  {
    std::unique_lock<std::mutex> l(g_threads_mu);
    g_threads_cv.wait(l, [] { return g_threads == 0; });
  }
  std::lock_guard<std::mutex> lock(g_mu);
  ++g_generation;
  close_file();
  g_up = upgrade_state{};
  g_installing = false;
  set_upgrade_ack_copies(1);
}
