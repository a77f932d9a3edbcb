// Stream: the byte stream under the MessagePack reader and writer.
//
// An abstract source and sink of bytes with one read and one write operation.
// LocalSocket is the stream used on the wire; MemoryStream serves tests, the
// fuzz target, benchmarks and the simulator.
//
// Ownership: readers and writers hold a Stream* they do not own; the stream
// must outlive them. Threads: a stream and the reader or writer bound to it are
// used by one thread at a time; implementations need no locks.
#pragma once

#include <cstddef>

class Stream {
 public:
  virtual ~Stream() {}

  // Fills `data` with up to `size` bytes. Returns the number of bytes
  // delivered; callers treat any result other than `size` as failure. A call
  // with `size` 0 returns 0.
  virtual size_t Read(void* data, size_t size) = 0;

  // Sends the `size` bytes at `data`. Returns the number of bytes sent; a
  // result below `size` means that the stream failed part-way.
  virtual size_t Write(const void* data, size_t size) = 0;
};
