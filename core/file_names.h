// Whether a file name that came from outside (an announcement, a listing of
// "/dev", a USB disk) may be stored or read by the daemon in its folder.
#pragma once

enum class name_verdict {
  ok,           // a plain name the shell does not act on
  shell_chars,  // stays in its folder, but holds characters a shell acts on
  refused,      // could leave the folder, is a name the daemon keeps for
                // itself in "/dev", or names an entry that is not a regular
                // file (a device node, a link, a folder, a pipe)
};

// Checks `name` for the camera folder `dir` ("/dev", "/mnt/usb"). An entry
// that does not exist yet is judged by its name alone.
name_verdict check_file_name(const char* dir, const char* name);
