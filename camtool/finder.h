// Finding cameras: "SEARCH * " on the batch group only, resent while
// waiting, one record per device ID; resolving the camera a command names by
// its device ID or its address; the search table and its JSON form. Every
// camera answers a search on the group it came on and hears the others'
// answers there: on the search group each of them would cost every camera a
// 300 ms pause (and delay the next command by the site's size times that),
// on the batch group nothing.
#pragma once

#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "camtool/net.h"
#include "wire/replies.h"

namespace camtool {

using camera_map = std::map<std::string, wire::camera_record>;  // by device ID

inline constexpr double kResendInterval = 0.5;

// Searches for `wait` seconds, or until `enough` says so.
camera_map search(transport& net, const std::string& client_id, double wait,
                  const std::function<bool(const camera_map&)>& enough = {});

// A CAMERA argument: a device ID or an IPv4 address. Throws tool_error
// (refused) for anything else, (failed) when no camera answers for it.
wire::camera_record resolve(transport& net, const std::string& client_id, const std::string& who,
                            double wait);
// Checks the form of a CAMERA argument without sending anything.
void check_camera_argument(const std::string& who);

nlohmann::json camera_json(const wire::camera_record& c);
void print_cameras(std::ostream& out, const camera_map& cams);

struct search_options {
  double wait = 2.0;
  bool json = false;
  bool watch = false;
  double forget = 5.0;  // --watch: a camera silent this long is shown as gone
};
int run_search(transport& net, const std::string& client_id, const search_options& o,
               std::ostream& out);

}  // namespace camtool
