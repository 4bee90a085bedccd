// The two ways an upgrade round carries the file to the cameras that
// answered '0': the packet stream on the batch group ('b', 't'..., 'o',
// paced at --rate) for every camera, and a NORM session for the cameras
// that took the offer. While either runs, every datagram heard goes to the
// round's handler through `wait_until`.
#pragma once

#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "camtool/net.h"
#include "camtool/norm.h"
#include "camtool/upgrade.h"

namespace camtool {

struct transfer_context {
  transport& net;
  file_source& file;
  const std::string& session;
  const upgrade_options& o;
  std::ostream& err;
  int round;
  // Hands every datagram heard until then to the round.
  std::function<void(time_point)> wait_until;
};

// The stream; returns the bytes it put on the wire (the datagrams whole).
uint64_t stream_file(const transfer_context& t, size_t cameras);

// One NORM session to `nodes` (the cameras' node IDs), the file's info
// being the round's session ID. It ends once every node has acknowledged
// the file or its camera has answered for it (`answered`: its md5 verdict,
// or it gave the transfer up); a node that has done neither is asked again,
// and the repairs go on, up to a time limit long enough for several passes
// of the file. Throws tool_error when the session cannot start.
norm_outcome norm_file(const transfer_context& t, norm_sender& sender, const std::vector<uint32_t>& nodes,
                       const std::function<bool(uint32_t)>& answered);

// The NORM session's rate for --rate (Mbit/s of datagrams; 0 unpaced: the
// session then runs at 1 Gbit/s).
double norm_rate_bps(double rate_mbit);

}  // namespace camtool
