// Post-upgrade reports: a camera back from an upgrade sends "STATUS * " with
// "Status=1" once to 238.255.255.251:8004 and waits until a tool confirms
// it with "Status=2". `camtool status` lists them and, asked to, confirms.
#pragma once

#include <ostream>
#include <string>

#include "camtool/net.h"

namespace camtool {

struct status_options {
  bool confirm = false;
  double wait = 0;  // seconds; 0: until interrupted
  int count = 0;    // end after this many cameras; 0: no limit
  bool json = false;
};

// 0, or 1 when --count cameras did not report within --wait.
int run_status(transport& net, const std::string& client_id, const status_options& o,
               std::ostream& out);

}  // namespace camtool
