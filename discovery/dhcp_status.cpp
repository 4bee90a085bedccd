#include "discovery/dhcp_status.h"
// placeholder until the module lands
void* check_dhcp_status_main(void*) { return nullptr; }
