// The upgrade file over NORM (RFC 5740): the seam between the upgrade and
// the library that carries the file. The real sender (norm_libnorm.cpp) is
// built only where libnorm is found; elsewhere (camtool for Windows) there
// is none and every camera gets the packet stream. Tests put a fake here.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "wire/upgrade.h"

namespace camtool {

class file_source;

inline constexpr const char* kNormGroupDefault = "239.255.255.253:8010";

// What one session did.
struct norm_outcome {
  // Every UDP payload byte the session sent: data, parity, repairs and its
  // commands (probes, flushes, acknowledgement requests).
  uint64_t wire_bytes = 0;
  std::vector<uint32_t> acked;  // the nodes that acknowledged the whole file
};

class norm_sender {
 public:
  virtual ~norm_sender() = default;
  // Starts one session to `group` at `rate_bps` (bits per second on the
  // wire) and puts `file` in it as one file object whose info is `info`;
  // asks `nodes` (the cameras' node IDs) to acknowledge it. Throws
  // tool_error when the session cannot start.
  virtual void start(file_source& file, const std::string& info, const std::vector<uint32_t>& nodes,
                     const wire::norm_offer& group, double rate_bps) = 0;
  // Takes what the session reported since the last call (it never
  // blocks); true once every node acknowledged or the rounds of requests
  // for acknowledgement are spent. Repairs go on until finish().
  virtual bool poll() = 0;
  // The nodes that acknowledged the whole file so far.
  virtual std::vector<uint32_t> acked() = 0;
  // Asks the nodes that have not acknowledged again, for another set of
  // rounds (a slow camera is still repairing its copy).
  virtual void ask_again() = 0;
  // Ends the session, over or not, and tells what it did.
  virtual norm_outcome finish() = 0;
};

// The sender that talks on interface `iface` (its name as the system knows
// it); nullptr in a build without NORM.
std::unique_ptr<norm_sender> make_norm_sender(const std::string& iface);

// "ADDR:PORT": an IPv4 multicast group other than the text protocol's and a
// port from 1 to 65535. Throws tool_error otherwise.
wire::norm_offer parse_norm_group(const std::string& text);

}  // namespace camtool
