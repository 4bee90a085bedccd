// USB-disk upgrade watcher.
#pragma once

void* udisk_upgrade_func(void* arg);
