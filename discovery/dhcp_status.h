// DHCP watcher and post-upgrade status report.
#pragma once

#include <cstddef>

#include "discovery/mcast.h"

void* check_dhcp_status_main(void* arg);
// The watcher's work (the thread function minus naming and detaching).
void check_dhcp_status();

// Post-upgrade report thread (argument: an endpoint record); it reports once
// eth0 has its IPv4 address (wait_for_ipv4_address, core/daemon_state.h).
void* mcast_upgradeStatus_func(void* arg);
// The reporter's work; returns when confirmed or not wanted.
void mcast_upgrade_status_report(mcast_endpoint* ep);
// One wait for a confirmation: 1 when one came, 0 otherwise.
int mcast_status_listen_once(mcast_endpoint* ep);
// 0 when the datagram is a "STATUS * " confirmation for this camera.
int mcast_receive_status(mcast_endpoint* ep, const char* buf, size_t len);
