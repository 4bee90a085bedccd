// DHCP watcher and post-upgrade status report.
#pragma once

void* check_dhcp_status_main(void* arg);
