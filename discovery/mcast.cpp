#include "discovery/mcast.h"
// placeholder until the module lands
void* mcast_func(void*) { return nullptr; }
void* mcast_batUpgrade_func(void*) { return nullptr; }
