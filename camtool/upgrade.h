// Upgrading cameras over the batch group: announce the file, wait for every
// named camera's '0', send it (over NORM to the cameras that take the
// offer, streamed paced to the others), follow each camera through its
// acknowledgements, its reboot and its return with the new version, confirm
// its post-upgrade report, and announce again to the cameras whose md5
// check failed.
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "camtool/net.h"
#include "wire/upgrade.h"

namespace camtool {

// The file being sent, read piece by piece (it may be larger than memory
// on a small machine).
class file_source {
 public:
  virtual ~file_source() = default;
  virtual uint64_t size() const = 0;
  virtual void read(uint64_t offset, char* buf, size_t len) = 0;
};
std::unique_ptr<file_source> open_file(const std::string& path);  // throws tool_error
std::unique_ptr<file_source> memory_file(std::string data);
std::string file_md5(file_source& f);  // 32 lower-case hexadecimal digits

inline constexpr int kUpgradeModeMax = 9;  // the mode travels as one digit
inline constexpr uint64_t kUpgradeSizeMax = 999999999;  // nine digits

// How the file may go: `automatic` offers NORM to the cameras (those that
// take it get the file over NORM, the others the stream) where this build
// has a NORM sender; `stream` sends exactly what a tool without NORM sends.
enum class transfer_mode { automatic, stream };

struct upgrade_options {
  std::string file_name;         // as announced: the file's base name
  int mode = 0;
  std::vector<std::string> to;   // device IDs or IPv4 addresses
  bool all = false;              // every camera that answers the search
  double rate_mbit = 50;         // datagram bits per second / 1e6; 0: unpaced
  transfer_mode transfer = transfer_mode::automatic;
  wire::norm_offer norm_group{0xeffffffdu, 8010};  // 239.255.255.253:8010
  int retries = 2;               // extra rounds for cameras whose md5 failed
  double search_wait = 3;        // finding the cameras first
  double answer_wait = 20;       // for '0' (the camera stops its programs first)
  double verdict_wait = 60;      // for '5' or '6' after the last packet
  double install_wait = 600;     // for '7', '8' or '2' after '5'
  double back_wait = 180;        // for the camera to come back after its reboot
  double report_wait = 10;       // for its report once it is back
  bool json = false;
  bool live_progress = false;    // redraw the progress line in place (a terminal)
};

// Refuses, before anything is sent, what the cameras would refuse or
// misread: the name, the mode, the size, the targets.
void check_upgrade(const upgrade_options& o, uint64_t size);

class norm_sender;

// Runs every round; prints events on `err`, the result table (or one JSON
// object per camera) on `out`. Returns 0 only when every named camera
// answered '7' and came back. `norm` (nullptr: none in this build) carries
// the file to the cameras that take the NORM offer.
int run_upgrade(transport& net, const std::string& client_id, file_source& file,
                const upgrade_options& o, std::ostream& out, std::ostream& err,
                norm_sender* norm = nullptr);

}  // namespace camtool
