// Bounded text copies (core/text.h).
#include "core/text.h"

#include <cstring>

void copy_text(char* dst, size_t size, const char* src, size_t len) {
  if (size == 0) return;
  size_t n = strnlen(src, len);
  if (n > size - 1) n = size - 1;
  memcpy(dst, src, n);
  dst[n] = '\0';
}

void append_text(char* dst, size_t size, const char* src, size_t len) {
  size_t used = strnlen(dst, size);
  if (used + 1 >= size) return;
  copy_text(dst + used, size - used, src, len);
}

void append_text(char* dst, size_t size, const char* src) {
  append_text(dst, size, src, strlen(src));
}
