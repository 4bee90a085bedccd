// The flash model's file face (sim/flash/flash_model.h), for running the
// whole daemon on a machine without kernel MTD (the sandbox rig, a
// developer's PC); host builds of the daemon link it, the camera's does not.
//
// When UPGRADE_FLASH_SIM names a description file, /dev/mtdN are regular
// files holding the flash bytes and the model answers MEMGETINFO, MEMERASE
// and MEMGETBADBLOCK; other paths go to the kernel's devices. One device per
// line ('#' starts a comment):
//
//   mtd0 nor  0x80000  0x10000
//   mtd1 nand 0x400000 0x20000 writesize=0x800 badblocks=3,7
//
// name, type (nor, nand, ram, rom, dataflash), size and erase size, then
// optional writesize= and badblocks= (erase-block numbers). The model's
// rules hold: programming can only clear bits, erasing sets a block to 0xFF,
// a NAND bad block refuses erase and program. Files shorter than the device
// are extended with 0xFF when opened.
#pragma once

#include <string>

#include "sim/flash/flash_model.h"

// Reads a description; nullptr (and a console error) when it is unusable.
FlashModel* load_file_flash(const std::string& description_path);
// Installs the file flash when UPGRADE_FLASH_SIM is set; otherwise the kernel
// devices stay. Returns 1 when the file flash was installed.
int install_flash_backend_from_env();
