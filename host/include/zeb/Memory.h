// Memory.h: the framework's heap and the two exceptions that its templates
// raise.
//
// Alloc/Realloc/Free wrap the C heap; TArray keeps its elements in blocks
// from these functions. Blocks are owned by whoever allocated them and go back
// through Free. All functions are thread-safe.
#pragma once

#include <new>
#include <stdexcept>
#include <string>

#include <zeb/Api.h>

namespace zeb {

// Allocates `size` bytes. Returns null on failure; never throws. A request of
// 0 bytes gives a valid (unique, non-null) block, so that null always means
// failure.
ZEB_API void* Alloc(unsigned long size);

// Resizes `block` (null acts like Alloc) keeping its contents up to the
// smaller size. Returns the new block, or null on failure, in which case
// `block` stays valid and unchanged.
ZEB_API void* Realloc(void* block, unsigned long size);

// Frees a block from Alloc/Realloc; null is allowed.
ZEB_API void Free(void* block);

// Throws CBadAllocException. Called after Alloc or Realloc returned null.
[[noreturn]] ZEB_API void ThrowBadAllocException();

// Throws COutOfRangeException whose message (what()) is the printf-formatted
// text.
[[noreturn]] ZEB_API void ThrowOutOfRangeException(const char* format, ...)
    __attribute__((format(printf, 1, 2)));

// The framework's out-of-memory exception; what() is "zeb: out of memory.".
class ZEB_API CBadAllocException : public std::bad_alloc {
 public:
  const char* what() const noexcept override;
};

// The framework's index error, carrying the formatted message.
class ZEB_API COutOfRangeException : public std::out_of_range {
 public:
  explicit COutOfRangeException(const std::string& message);
};

}  // namespace zeb
