// A multicast upgrade as any sender may play it: announcements and transfer
// packets in any order, of any length, for this camera or another, carried
// through to installation by every mode on a fake flash with a bad block.
// Nothing is stored outside "/dev/" and nothing crashes.
#include <filesystem>
#include <optional>
#include <set>

#include "discovery/commands.h"
#include "discovery/norm_receiver.h"
#include "harness.h"
#include "sim/flash/flash_model.h"
#include "wire/upgrade.h"

namespace {

const std::string kDigest = "0123456789abcdef0123456789abcdef";

// boot, env, kernel, rootfs: 16 KiB each in 4 KiB NAND blocks, the third
// block of the kernel bad.
void flash_and_table(MemoryFlash& flash) {
  const char* names[] = {"\"boot\"", "\"env\"", "\"kernel\"", "\"rootfs\""};
  daemon_state.mtd_num = 4;
  for (int i = 0; i < 4; ++i) {
    mtd_entry& e = daemon_state.mtd[i];
    snprintf(e.dev, sizeof(e.dev), "mtd%d:", i);
    snprintf(e.size, sizeof(e.size), "%08x", 0x4000);
    snprintf(e.erasesize, sizeof(e.erasesize), "%08x", 0x1000);
    snprintf(e.name, sizeof(e.name), "%s", names[i]);
  }
  flash.add_chain({0x4000, 0x4000, 0x4000, 0x4000}, 0x1000, kNand);
  flash.set_bad_map(2, "..B.");
  daemon_state.flash_unerase_offset = 0x8000;
}

// An announcement for this camera under a refused name, read while
// debugging: it ends whatever transfer the previous input left open.
void end_previous_transfer(FuzzCamera& c) {
  daemon_state.work_mode = WORK_DEBUG;
  wire::announcement a;
  a.device_ids = {kDevId};
  a.client_id = kCliId;
  a.session = std::string(32, 's');
  a.file_name = "../reset";
  a.md5 = kDigest;
  a.mode = 0;
  const std::string d = wire::build_announcement(a);
  mcast_receive(&c.ep.ep, d.data(), d.size());
}

// An offer of the NORM transfer is read and answered, but no session is
// opened: the receiver fails before it listens, so the camera answers a
// plain '0' and the file comes as packets.
class NoNorm : public NormReceiver {
 public:
  norm_outcome receive(const norm_job&, const std::function<bool()>&) override {
    return norm_outcome::failed;
  }
};

// The offer's reader: what it accepts it writes back the same way.
void check_offer(std::string_view d) {
  const auto offer = wire::read_transfer_offer(d);
  if (!offer) return;
  fuzz_require((offer->group >> 28) == 0xe && offer->port != 0, "an offer outside the rules");
  const auto again = wire::read_transfer_offer(wire::transfer_offer_field(*offer));
  fuzz_require(again && again->group == offer->group && again->port == offer->port,
               "an offer that does not read back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  static NoNorm no_norm;
  set_norm_receiver(&no_norm);
  FuzzCamera& c = reset_camera();
  end_previous_transfer(c);
  reset_camera();
  c.cam.platform().on("/usr/bin/md5sum", kDigest + "  file\n");
  c.cam.platform().fork_result = 4242;  // installers' children are not run
  std::optional<MemoryFlash> flash(std::in_place);
  flash_and_table(*flash);
  // First byte: debugging (bit 0); then the datagrams.
  daemon_state.work_mode = (data[0] & 1) ? WORK_DEBUG : WORK_NORMAL;
  for (std::string_view d : split_pieces(data + 1, size - 1)) {
    check_offer(d);
    std::vector<char> exact = exact_copy(d, kBatchDatagram);
    mcast_receive(&c.ep.ep, exact.data(), exact.size());
  }
  static const std::set<std::string> kTop = {"customer", "data", "dev", "etc", "mnt", "tmp"};
  for (const auto& e : std::filesystem::directory_iterator(c.cam.root()))
    fuzz_require(kTop.count(e.path().filename()) == 1, "a file outside the camera's folders");
  return 0;
}
