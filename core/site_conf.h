// The site's service switches: "/customer/upgrade.conf", "key=value" lines.
// A missing file, an unknown key or a bad value leaves the defaults.
#pragma once

inline constexpr const char* kSiteConfPath = "/customer/upgrade.conf";

struct site_conf_t {
  int status_report = 1;  // post-upgrade "STATUS * " report on 238.255.255.251:8004
  int broadcast = 0;      // broadcast commissioning on UDP 12811
  int partner = 0;        // partner binary protocol and the tracking relay
  int norm_transfer = 1;  // take the upgrade file over NORM when a tool offers it
  // Seconds without a packet from the tool before a NORM transfer is given up.
  int transfer_silence = 30;
};

// Reads the file into `out` (defaults first). Returns 0 when the file was
// read, -1 when it could not be opened.
int read_site_conf(const char* path, site_conf_t* out);
