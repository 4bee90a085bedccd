// What the daemon and the LAN tool agree on about upgrade file names.
// A name from the network becomes "/dev/" + name and goes into shell lines.
#pragma once

// True when `name` stays inside the folder it is stored in: not empty, no
// '/', no "..", no control character.
bool is_plain_file_name(const char* name);

// True when `name` is plain and may also be named in a shell command: no
// blank and none of ; $ ` | & < > ( ) ' " \ * ?
bool is_safe_file_name(const char* name);

// True for the names of files the daemon itself keeps in "/dev" (its copies
// of the flag tool and busybox, trigger and flag files, its logs): an
// upgrade file never takes one of these names.
bool is_reserved_dev_name(const char* name);
