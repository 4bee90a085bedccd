// The receiving end of the opt-in transfer: one file over NORM (RFC 5740)
// into the camera's "/dev/", behind a seam. The real receiver runs Debian's
// libnorm (norm_receiver.cpp); unit tests put a fake in its place that
// writes the file and ends the way a test wants.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

// What the announcement and the camera settled for one file.
struct norm_job {
  uint32_t group = 0;    // IPv4 multicast group, host order
  uint16_t port = 0;
  uint32_t node_id = 0;  // this camera's NORM node ID, as sent in its '0'
  std::string iface;     // interface the group is joined on ("eth0")
  std::string session;   // the object's info must be exactly this (the SESSION ID)
  std::string dir;       // where the file grows: the directory of `path`, '/' at the end
  std::string path;      // where the whole file must end up
  uint64_t max_size = 0; // an object larger than this is refused before it is stored
  int silence_ms = 0;    // no packet from a sender for this long ends the session
};

enum class norm_outcome {
  complete,   // `path` holds the whole object
  silence,    // no sender was heard for silence_ms (the tool vanished)
  too_large,  // the object was larger than max_size: nothing stored
  failed,     // the session could not start or the file could not be stored
};

class NormReceiver {
 public:
  virtual ~NormReceiver() = default;
  // Blocks until the session ends. `ready` is called once the receiver
  // listens on the group (the camera then sends its '0'); when it returns
  // false the session is closed at once and `failed` returned. On anything
  // but `complete` no part of
  // the file is left at `path` or in `dir`. Objects of another session (a
  // different info) and objects that are not files are cancelled and the
  // session goes on waiting. After `complete` the receiver keeps answering
  // the sender's acknowledgement requests for a few seconds on its own.
  virtual norm_outcome receive(const norm_job& job, const std::function<bool()>& ready) = 0;
};

// The receiver in use: libnorm's unless a test set another.
NormReceiver& norm_receiver();
// nullptr puts the real one back.
void set_norm_receiver(NormReceiver* r);

// A name for logs and for the tool: "complete", "silence", ...
const char* norm_outcome_name(norm_outcome o);
