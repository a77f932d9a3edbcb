#include "tools/zebtrksvc/SocketInput.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace zebtrksvc {

bool SocketInput::Fill() {
  if (m_ended) return false;
  for (;;) {
    const ssize_t n = recv(m_fd, m_buffer, kBufferSize, 0);
    if (n > 0) {
      m_begin = 0;
      m_end = static_cast<size_t>(n);
      m_received += static_cast<size_t>(n);
      return true;
    }
    if (n == -1 && errno == EINTR) continue;
    m_ended = true;
    return false;
  }
}

size_t SocketInput::Read(void* data, size_t size) {
  unsigned char* next = static_cast<unsigned char*>(data);
  size_t left = size;
  while (left > 0) {
    if (m_begin == m_end) {
      // A large payload goes straight to its destination, not through the
      // buffer.
      if (left >= kBufferSize && !m_ended) {
        const ssize_t n = recv(m_fd, next, left, 0);
        if (n == -1 && errno == EINTR) continue;
        if (n <= 0) {
          m_ended = true;
          break;
        }
        m_received += static_cast<size_t>(n);
        next += n;
        left -= static_cast<size_t>(n);
        continue;
      }
      if (!Fill()) break;
    }
    const size_t n = std::min(left, m_end - m_begin);
    std::memcpy(next, m_buffer + m_begin, n);
    m_begin += n;
    next += n;
    left -= n;
  }
  return size - left;
}

size_t SocketInput::Write(const void*, size_t) { return 0; }

}  // namespace zebtrksvc
