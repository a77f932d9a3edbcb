#include "msgpack/MemoryStream.h"

#include <algorithm>
#include <cstring>

MemoryStream::MemoryStream(const void* data, size_t size) { SetInput(data, size); }

void MemoryStream::SetInput(const void* data, size_t size) {
  m_input = static_cast<const unsigned char*>(data);
  m_inputSize = data ? size : 0;
  m_inputPos = 0;
}

size_t MemoryStream::Read(void* data, size_t size) {
  const size_t n = std::min(size, remaining());
  const unsigned char* from = m_input + m_inputPos;
  m_inputPos += n;
  // Most reads of a decoder are a type byte: no library call for those.
  if (n == 1)
    *static_cast<unsigned char*>(data) = *from;
  else if (n)
    std::memcpy(data, from, n);
  return n;
}
size_t MemoryStream::Write(const void* data, size_t size) {
  if (size == 0) return 0;
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  m_output.insert(m_output.end(), bytes, bytes + size);
  return size;
}
