// MemoryStream: a Stream over memory.
//
// Reads come from a byte buffer given to the stream (not copied, not owned: the
// buffer must outlive the reads); writes are appended to an internal vector.
// The two directions are independent. Used by tests, the fuzz target,
// benchmarks and the simulator, which encodes a whole response into bytes() and
// sends it with one socket write.
//
// Threads: one thread at a time, like every Stream.
#pragma once

#include <cstddef>
#include <vector>

#include "msgpack/Stream.h"

class MemoryStream : public Stream {
 public:
  // A stream with nothing to read.
  MemoryStream() = default;
  // A stream that reads the `size` bytes at `data`.
  MemoryStream(const void* data, size_t size);

  // Replaces the input with the `size` bytes at `data`, read from the start.
  void SetInput(const void* data, size_t size);

  // Copies min(size, remaining()) bytes into `data` and returns that count:
  // a short count once the input is exhausted.
  size_t Read(void* data, size_t size) override;

  // Appends the bytes to bytes() and returns `size`. An allocation failure
  // propagates as std::bad_alloc and appends nothing.
  size_t Write(const void* data, size_t size) override;

  // Input bytes not read yet.
  size_t remaining() const { return m_inputSize - m_inputPos; }
  // Everything written since construction or the last clear().
  const std::vector<unsigned char>& bytes() const { return m_output; }
  // Forgets the written bytes (the vector keeps its capacity).
  void clear() { m_output.clear(); }

 private:
  const unsigned char* m_input = nullptr;
  size_t m_inputSize = 0;
  size_t m_inputPos = 0;
  std::vector<unsigned char> m_output;
};
