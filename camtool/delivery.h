// One command to one camera, on the batch group (239.255.255.252:8006),
// whose listener reads again at once: on the search group every camera
// sleeps 300 ms after each datagram, the other cameras' replies included, so
// on a large site a command there waits behind them. Each copy of the
// command is followed by a firmware query for that camera alone (its own
// client ID), answered only after the camera has read the copy: an answered
// query without the command's reply means the copy was lost or not taken,
// and only then is the command sent again; a camera that answers nothing is
// busy with an earlier datagram or is carrying the command out (rebooting).
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "camtool/net.h"
#include "wire/replies.h"

namespace camtool {

struct delivery_options {
  double silence = 3.0;      // a camera that answers nothing this long is given up (silent)
  int copies = 3;            // copies of the command at most
  double probe_every = 0.5;  // queries while nothing comes
  bool answered = true;      // false: the command has no reply (reboot)
};

enum class delivery_end {
  replied,  // the command's reply came
  ignored,  // the camera read every copy and did not answer (for `answered` commands)
            // or went on answering (for the others)
  silent,   // the camera answered nothing for `silence` after the last copy
};

struct delivery {
  delivery_end end = delivery_end::silent;
  std::optional<datagram> reply;
  int copies = 0;
  time_point first_copy{}, last_copy{};
};

delivery deliver(transport& net, const std::string& device_id, const std::string& request,
                 const std::function<bool(const datagram&)>& is_reply, const delivery_options& o);

// After a command whose reply never came and whose camera went silent: waits
// up to `wait` seconds for the camera to answer again (a query now and then,
// then a search for its record), while still taking a late reply that
// `is_reply` accepts. `rebooted` tells whether its uptime started again
// since `known` (its search record, heard at `known_at`).
struct comeback {
  std::optional<datagram> late_reply;
  std::optional<wire::camera_record> record;  // it answered again
  bool rebooted = false;
};
comeback await_comeback(transport& net, const std::string& client_id,
                        const wire::camera_record& known, time_point known_at, double wait,
                        const std::function<bool(const datagram&)>& is_reply);

}  // namespace camtool
