// Bounded text copies into fixed-size character buffers: every copy stops
// at the buffer's end (keeping room for the NUL) and at the source's NUL.
#pragma once

#include <cstddef>

// Copies at most size-1 bytes of [src, src+len), stopping at a NUL.
void copy_text(char* dst, size_t size, const char* src, size_t len);
// Appends at most len bytes of src (stopping at a NUL) to the NUL-terminated
// dst of `size` bytes, truncating.
void append_text(char* dst, size_t size, const char* src, size_t len);
// Appends a NUL-terminated text to dst (size bytes), truncating.
void append_text(char* dst, size_t size, const char* src);
