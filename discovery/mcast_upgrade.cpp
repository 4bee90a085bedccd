// The multicast upgrade's announcement and transfer: one transfer at a time,
// kept in one record under one lock (both listeners may hand in datagrams).
// The lock is held through the installation: a second "CAMERA_UP" waits
// until the camera reboots rather than clearing /dev under the installer.
#include "discovery/mcast_upgrade.h"

#include <fcntl.h>
#include <sys/reboot.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>

#include "core/dbgout.h"
#include "core/helpers.h"
#include "core/platform.h"
#include "core/upgrade.h"
#include "discovery/identity.h"
#include "discovery/mcast_install.h"
#include "wire/file_name.h"
#include "wire/upgrade.h"

namespace {

constexpr uint64_t kRefusePauseUs = 200000;

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
};

std::mutex g_mu;
upgrade_state g_up;

bool debug_mode() { return daemon_state.work_mode.load() == WORK_DEBUG; }

std::string stored_path() { return std::string("/dev/") + g_up.file_name; }

// The descriptor is forgotten when closed: a later write fails on it
// instead of landing in whatever the number names next.
void close_file() {
  if (g_up.fd >= 0) close(g_up.fd);
  g_up.fd = -1;
}

bool write_whole(const char* data, size_t len) {
  return write(g_up.fd, data, len) == static_cast<ssize_t>(len);
}

// '6' for a refused name or a wrong md5: the reply goes out, the file system
// is synced and, unless debugging, the camera reboots.
void answer_refused(mcast_endpoint* ep) {
  send_upgrade_ack(ep, wire::ACK_MD5_BAD);
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

void handle_announcement(mcast_endpoint* ep, const char* msg) {
  if (check_uuid_bat(msg) != 0) {
    DBG_ERR("uuid check failed\n");
    return;
  }
  if (mcast_upgrade_in_progress()) {
    send_upgrade_ack(ep, wire::ACK_BUSY);
    return;
  }
  // A new announcement ends the transfer before it: only an accepted one
  // opens a new session.
  close_file();
  g_up.session[0] = '\0';
  const wire::announced_fields f = wire::read_announcement(msg);
  // The session is the requester's ID in every acknowledgement from here
  // on, the refusal of a bad name included.
  set_upgrade_client_id(f.session.c_str());
  TRACE("filename:%s\n", f.file_name.c_str());
  // The name becomes "/dev/" + name and goes into shell lines.
  const bool bad_name = !is_safe_file_name(f.file_name.c_str());
  if (bad_name) {
    DBG_ERR("upgrade filename error!\n");
    answer_refused(ep);
    if (!debug_mode()) return;
  }
  DBG_INFO("cur_client_id_Upgrade:%s\n", f.session.c_str());
  DBG_INFO("upgrade_file_size:%d\n", f.file_size);
  if (f.mode) g_up.mode = *f.mode;
  // A debugging camera reads the whole announcement but never stores a
  // file under a refused name.
  if (bad_name) return;

  clear_scratch_files();
  struct statfs fs;
  uint64_t free_bytes = 0;
  memset(&fs, 0, sizeof(fs));
  if (statfs(cam_path("/dev/").c_str(), &fs) == 0)
    free_bytes = static_cast<uint64_t>(fs.f_bfree) * static_cast<uint64_t>(fs.f_bsize);
  if (static_cast<int64_t>(free_bytes) <= static_cast<int64_t>(f.file_size)) {
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
  set_upgrade_client_id(g_up.session);
  send_upgrade_ack(ep, wire::ACK_READY);
  set_mcast_upgrade_in_progress(1);
}

// After the last packet: the md5 decides between '6' and '5', then the
// file is installed by mode (not while debugging).
void verify_and_install(mcast_endpoint* ep) {
  const std::string path = stored_path();
  if (md5_verify(path.c_str(), g_up.md5) != 0) {
    DBG_ERR("destfile md5 verify failed\n");
    answer_refused(ep);
    return;
  }
  TRACE("md5 verify succeed\n");
  send_upgrade_ack(ep, wire::ACK_MD5_OK);
  if (debug_mode()) return;
  install_upgrade_file(ep, path.c_str(), g_up.mode, g_up.file_size);
}

void first_packet(mcast_endpoint* ep, const wire::packet_view& p) {
  close_file();  // a repeated first packet starts the file again
  const std::string path = stored_path();
  DBG_INFO("dstfilesavepath: %s\n", path.c_str());
  g_up.fd = open(cam_path(path).c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0777);
  if (g_up.fd < 0) {
    DBG_ERR("open %s failed\n", path.c_str());
    sys().sync();
    send_upgrade_ack(ep, wire::ACK_WRITE_FAILED);
    return;
  }
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

void last_packet(mcast_endpoint* ep, const wire::packet_view& p) {
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
  verify_and_install(ep);
}

void handle_packet(mcast_endpoint* ep, const char* buf, size_t len) {
  const auto p = wire::parse_packet(buf, len);
  if (!p || g_up.session[0] == '\0') return;
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
      last_packet(ep, *p);
      break;
    default:
      break;
  }
}

}  // namespace

void handle_camera_upgrade(mcast_endpoint* ep, const char* buf, size_t len) {
  std::lock_guard<std::mutex> lock(g_mu);
  // Field searches stop at the first NUL, as in every text command.
  const size_t text_len = strnlen(buf, len);
  const char* key = wire::kDeviceIdKey;
  if (memmem(buf, text_len, key, strlen(key)) != nullptr) {
    const std::string msg(buf, text_len);
    handle_announcement(ep, msg.c_str());
  } else {
    handle_packet(ep, buf, len);
  }
}
