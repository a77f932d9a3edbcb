// Stream: an abstract byte stream with one read and one write operation.
// The MessagePack reader and writer work on it; LocalSocket is the stream used
// on the wire to the movie service.
//
// Contract of an implementation:
// - Read fills `data` with up to `size` bytes and returns how many it
//   delivered; callers treat any result other than `size` as failure. A call
//   with `size` 0 returns 0.
// - Write sends the `size` bytes at `data` and returns how many were sent; a
//   result below `size` means the stream failed part-way.
// Thread use is the implementation's business; a Stream itself holds no state.
#pragma once

#include <cstddef>

class Stream {
 public:
  virtual ~Stream() {}
  virtual size_t Read(void* data, size_t size) = 0;
  virtual size_t Write(const void* data, size_t size) = 0;
};
