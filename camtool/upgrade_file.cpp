// The file an upgrade sends: read piece by piece, its md5, and the checks
// of what the cameras would refuse or misread, made before anything is sent.
#include <nettle/md5.h>

#include <algorithm>
#include <cstring>

#include "camtool/finder.h"
#include "camtool/upgrade.h"
#include "wire/file_name.h"
#include "wire/upgrade.h"

namespace camtool {

namespace {

class string_file : public file_source {
 public:
  explicit string_file(std::string data) : data_(std::move(data)) {}
  uint64_t size() const override { return data_.size(); }
  void read(uint64_t offset, char* buf, size_t len) override {
    memcpy(buf, data_.data() + offset, len);
  }

 private:
  std::string data_;
};

}  // namespace

// open_file asks the system: os_*.cpp.

std::unique_ptr<file_source> memory_file(std::string data) {
  return std::make_unique<string_file>(std::move(data));
}

std::string file_md5(file_source& f) {
  md5_ctx ctx;
  md5_init(&ctx);
  std::string buf(1 << 16, '\0');
  for (uint64_t off = 0; off < f.size();) {
    size_t len = static_cast<size_t>(std::min<uint64_t>(buf.size(), f.size() - off));
    f.read(off, buf.data(), len);
    md5_update(&ctx, len, reinterpret_cast<const uint8_t*>(buf.data()));
    off += len;
  }
  uint8_t digest[MD5_DIGEST_SIZE];
  md5_digest(&ctx, sizeof(digest), digest);
  static const char kHex[] = "0123456789abcdef";
  std::string out;
  for (uint8_t b : digest) {
    out += kHex[b >> 4];
    out += kHex[b & 15];
  }
  return out;
}

void check_upgrade(const upgrade_options& o, uint64_t size) {
  if (!is_safe_file_name(o.file_name.c_str()))
    throw tool_error("the file name '" + o.file_name +
                     "' would be refused by the cameras (use letters, digits, '.', '_', '-', '+')");
  if (is_reserved_dev_name(o.file_name.c_str()))
    throw tool_error("the file name '" + o.file_name +
                     "' is one the cameras keep for their own files in /dev; rename the file");
  if (o.file_name.size() > wire::kFileNameMax)
    throw tool_error("the file name is longer than " + std::to_string(wire::kFileNameMax) + " characters");
  if (size > kUpgradeSizeMax)
    throw tool_error("the file has " + std::to_string(size) + " bytes; the announcement carries at most " +
                     std::to_string(kUpgradeSizeMax));
  if (o.mode < wire::MODE_SYSTEM || o.mode > kUpgradeModeMax)
    throw tool_error("--mode " + std::to_string(o.mode) + " is not an upgrade mode (1 to " +
                     std::to_string(kUpgradeModeMax) + ")");
  if (o.all == !o.to.empty()) throw tool_error("name the cameras with --to ID[,ID...] or give --all");
  for (const std::string& t : o.to) check_camera_argument(t);
  if (o.rate_mbit < 0) throw tool_error("--rate must not be negative");
  if (o.retries < 0) throw tool_error("--retries must not be negative");
}

}  // namespace camtool
