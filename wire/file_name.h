// What the daemon and the LAN tool agree on about upgrade file names.
// A name from the network becomes "/dev/" + name and goes into shell lines.
#pragma once

// True when `name` may be stored under "/dev/" and named in a shell command:
// not empty, no '/', no "..", no control character or blank, none of
// ; $ ` | & < > ( ) ' " \ * ?
bool is_safe_file_name(const char* name);
