// Whole-flash upgrade watcher and single-piece installation.
#pragma once

void* mtd_upgrade_func(void* arg);
int upgrade_specified_mtd(const char* list_cmd, int index);
