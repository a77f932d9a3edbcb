// Memory: the C heap behind Alloc/Realloc/Free, and the framework exceptions.
#include <zeb/Memory.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace zeb {

void* Alloc(unsigned long size) {
  // malloc(0) may return null, which would read as a failure.
  return std::malloc(size ? size : 1);
}

void* Realloc(void* block, unsigned long size) {
  return std::realloc(block, size ? size : 1);
}

void Free(void* block) { std::free(block); }

void ThrowBadAllocException() { throw CBadAllocException(); }

void ThrowOutOfRangeException(const char* format, ...) {
  char buffer[512] = "";
  if (format) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
  }
  throw COutOfRangeException(buffer);
}

const char* CBadAllocException::what() const noexcept { return "zeb: out of memory."; }

COutOfRangeException::COutOfRangeException(const std::string& message)
    : std::out_of_range(message) {}

}  // namespace zeb
