#include "install/udisk_upgrade.h"
// placeholder until the module lands
void* udisk_upgrade_func(void*) { return nullptr; }
