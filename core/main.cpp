// The daemon's entry. A host build (the sandbox, a developer's PC) links the
// file-backed flash of sim/flash and hands it to start-up (UPGRADE_FLASH_SIM);
// the camera's build carries no simulator.
#include "core/upgrade.h"

#ifdef UPGRADE_FILE_FLASH
#include "sim/flash/file_flash.h"

int main(int argc, char** argv) { return upgrade_main(argc, argv, install_flash_backend_from_env); }
#else
int main(int argc, char** argv) { return upgrade_main(argc, argv); }
#endif
