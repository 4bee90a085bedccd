// The real receiver of the opt-in transfer: a libnorm session on the
// announced group that takes one file object into "/dev/". The repair work
// (NACKs and their suppression, Reed-Solomon parity) is libnorm's; this
// file only checks what it is offered and handles the file.
#include "discovery/norm_receiver.h"

#include <normApi.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>

#include "core/dbgout.h"
#include "core/platform.h"
#include "core/threads.h"

namespace {

using Clock = std::chrono::steady_clock;

// What the receiver keeps of incomplete blocks: 4 MiB, about 24 blocks of
// 128 segments of 1400 bytes.
constexpr unsigned long kRxBuffer = 4ul * 1024 * 1024;
// After the whole file: the sender's acknowledgement requests are answered
// this long before the session is closed.
constexpr uint64_t kLingerUs = 3000000;

struct norm_session {
  NormInstanceHandle instance = NORM_INSTANCE_INVALID;
  NormSessionHandle session = NORM_SESSION_INVALID;
};

void close_session(norm_session s) {
  if (s.session != NORM_SESSION_INVALID) {
    NormStopReceiver(s.session);
    NormDestroySession(s.session);
  }
  if (s.instance != NORM_INSTANCE_INVALID) NormDestroyInstance(s.instance);
}

void* linger_then_close(void* arg) {
  auto* s = static_cast<norm_session*>(arg);
  sys().sleep_us(kLingerUs);
  close_session(*s);
  delete s;
  return nullptr;
}

bool open_session(const norm_job& job, norm_session* s) {
  s->instance = NormCreateInstance(false);
  if (s->instance == NORM_INSTANCE_INVALID) return false;
  char group[16];
  snprintf(group, sizeof(group), "%u.%u.%u.%u", (job.group >> 24) & 0xffu, (job.group >> 16) & 0xffu,
           (job.group >> 8) & 0xffu, job.group & 0xffu);
  s->session = NormCreateSession(s->instance, group, job.port, job.node_id);
  if (s->session == NORM_SESSION_INVALID) return false;
  if (!job.iface.empty() && !NormSetMulticastInterface(s->session, job.iface.c_str())) return false;
  if (!NormSetCacheDirectory(s->instance, job.dir.c_str())) return false;
  NormSetTTL(s->session, 1);
  NormSetMulticastLoopback(s->session, false);
  NormSetRxPortReuse(s->session, true);
  if (!NormStartReceiver(s->session, kRxBuffer)) return false;
  NormSetRxSocketBuffer(s->session, 4 * 1024 * 1024);
  return true;
}

// The file libnorm holds for an object is removed and the object dropped.
void drop_object(NormObjectHandle obj) {
  char held[1024];
  if (NormFileGetName(obj, held, sizeof(held))) unlink(held);
  NormObjectCancel(obj);
}

// The object's info is the session ID, exactly.
bool info_matches(NormObjectHandle obj, const std::string& session) {
  if (!NormObjectHasInfo(obj)) return false;
  char info[64];
  const UINT16 n = NormObjectGetInfo(obj, info, sizeof(info));
  return n == session.size() && memcmp(info, session.data(), n) == 0;
}

// Nothing but a regular file (or nothing) may be replaced at the target.
bool target_free(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) != 0 || S_ISREG(st.st_mode);
}

class LibnormReceiver : public NormReceiver {
 public:
  norm_outcome receive(const norm_job& job, const std::function<bool()>& ready) override {
    norm_session s;
    if (!open_session(job, &s)) {
      DBG_ERR("norm receiver start failed\n");
      close_session(s);
      return norm_outcome::failed;
    }
    if (!ready()) {
      close_session(s);
      return norm_outcome::failed;
    }
    const norm_outcome out = run(s, job);
    if (out == norm_outcome::complete) {
      // The sender's acknowledgement requests are answered by libnorm's
      // own thread until the session closes.
      if (start_thread("norm_linger", linger_then_close, new norm_session(s)) != 0) close_session(s);
    } else {
      close_session(s);
    }
    return out;
  }

 private:
  static norm_outcome run(const norm_session& s, const norm_job& job) {
    NormObjectHandle file = NORM_OBJECT_INVALID;
    auto last = Clock::now();
    for (;;) {
      const auto quiet = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - last);
      if (quiet.count() >= job.silence_ms) {
        if (file != NORM_OBJECT_INVALID) drop_object(file);
        unlink(job.path.c_str());
        return norm_outcome::silence;
      }
      pollfd p{NormGetDescriptor(s.instance), POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(job.silence_ms - quiet.count())) <= 0) continue;
      NormEvent ev;
      if (!NormGetNextEvent(s.instance, &ev, false)) continue;
      if (ev.type == NORM_REMOTE_SENDER_INACTIVE || ev.type == NORM_REMOTE_SENDER_PURGED) continue;
      last = Clock::now();
      if (ev.object == NORM_OBJECT_INVALID) continue;
      switch (ev.type) {
        case NORM_RX_OBJECT_NEW:
          if (file != NORM_OBJECT_INVALID || NormObjectGetType(ev.object) != NORM_OBJECT_FILE) {
            drop_object(ev.object);  // one file per session, and only a file
            break;
          }
          if (static_cast<uint64_t>(NormObjectGetSize(ev.object)) > job.max_size) {
            DBG_ERR("norm object of %lld bytes refused\n",
                    static_cast<long long>(NormObjectGetSize(ev.object)));
            drop_object(ev.object);
            return norm_outcome::too_large;
          }
          if (!target_free(job.path) || !NormFileRename(ev.object, job.path.c_str())) {
            drop_object(ev.object);
            return norm_outcome::failed;
          }
          file = ev.object;
          break;
        case NORM_RX_OBJECT_INFO:
          // Another tool's file on the same group is not this session's.
          if (ev.object == file && !info_matches(file, job.session)) {
            drop_object(file);
            file = NORM_OBJECT_INVALID;
          }
          break;
        case NORM_RX_OBJECT_COMPLETED:
          if (ev.object != file) break;
          if (info_matches(file, job.session)) return norm_outcome::complete;
          unlink(job.path.c_str());
          file = NORM_OBJECT_INVALID;
          break;
        case NORM_RX_OBJECT_ABORTED:
          if (ev.object != file) break;
          unlink(job.path.c_str());
          file = NORM_OBJECT_INVALID;
          break;
        default:
          break;
      }
    }
  }
};

LibnormReceiver g_real;
std::atomic<NormReceiver*> g_receiver{&g_real};

}  // namespace

NormReceiver& norm_receiver() { return *g_receiver.load(); }

void set_norm_receiver(NormReceiver* r) { g_receiver = r != nullptr ? r : &g_real; }

const char* norm_outcome_name(norm_outcome o) {
  switch (o) {
    case norm_outcome::complete:
      return "complete";
    case norm_outcome::silence:
      return "silence";
    case norm_outcome::too_large:
      return "size";
    case norm_outcome::failed:
      break;
  }
  return "failed";
}
