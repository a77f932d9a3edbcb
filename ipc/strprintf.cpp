#include "ipc/strprintf.h"

#include <cstdarg>
#include <cstdio>

std::string strprintf(const char* format, ...) {
  if (format == nullptr) return std::string();
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int length = vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string text;
  if (length >= 1) {
    text.resize(static_cast<size_t>(length));
    // std::string keeps room for the terminating zero past size().
    vsnprintf(&text[0], static_cast<size_t>(length) + 1, format, copy);
  }
  va_end(copy);
  return text;
}
