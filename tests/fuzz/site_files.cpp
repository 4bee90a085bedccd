// The files read at start-up, each from one piece of the input: the kill
// list, the delete list, fw_env.config, /proc/mtd (as cat | grep prints it),
// upgrade.conf and the version file. Counts stay within their tables and
// every text within its field.
#include "core/helpers.h"
#include "core/site_conf.h"
#include "core/upgrade.h"
#include "harness.h"
#include "sim/flash/flash_model.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzCamera& c = reset_camera();
  MemoryFlash flash;  // fw_env.config sums the sizes of the partitions before it
  flash.add_chain({0x10000, 0x20000}, 0x10000);
  const std::vector<std::string_view> p = split_pieces(data, size);
  c.cam.write("/customer/pid_list", piece(p, 0));
  c.cam.write("/customer/del_list", piece(p, 1));
  c.cam.write("/etc/fw_env.config", piece(p, 2));
  c.cam.platform().on("/bin/cat /proc/mtd | grep mtd", piece(p, 3));
  c.cam.write("/customer/upgrade.conf", piece(p, 4));
  c.cam.write("/customer/version_file", piece(p, 5));

  daemon_state_t& st = daemon_state;
  read_pid_config();
  fuzz_require(st.pid_num >= 0 && st.pid_num <= kMaxListEntries, "kill list count");
  for (const auto& name : st.pid_list) fuzz_require(terminated(name), "kill list name");
  read_del_config();
  fuzz_require(st.del_num >= 0 && st.del_num <= kMaxListEntries, "delete list count");
  for (const auto& name : st.del_list) fuzz_require(terminated(name), "delete list name");
  get_config("/etc/fw_env.config");
  fuzz_require(st.env_num >= 0 && st.env_num <= kMaxEnv, "boot environment count");
  for (const auto& e : st.env) fuzz_require(terminated(e.devname), "boot environment device");
  read_mtd_info();
  fuzz_require(st.mtd_num >= 0 && st.mtd_num <= kMaxMtd, "partition count");
  for (const auto& m : st.mtd) {
    fuzz_require(terminated(m.dev) && terminated(m.size) && terminated(m.erasesize) &&
                     terminated(m.name),
                 "partition field");
  }
  fuzz_require(terminated(st.mtd_summary), "partition summary");
  site_conf_t conf;
  read_site_conf(kSiteConfPath, &conf);
  read_version();
  fuzz_require(terminated(st.soc_version) && terminated(st.device_model), "version text");
  return 0;
}
