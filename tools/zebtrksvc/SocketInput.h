// SocketInput: the read side of one client connection as a Stream, with a
// receive buffer, so that decoding a request costs one or two receive calls
// instead of one per MessagePack item.
//
// Reads block until the requested bytes are there, the peer closes, or the
// socket is shut down (which is how the service stops a connection). The
// descriptor is borrowed: the connection's LocalSocket owns and closes it.
// Input only: Write sends nothing.
//
// Threads: one thread at a time (the connection's).
#pragma once

#include <cstddef>

#include "msgpack/Stream.h"

namespace zebtrksvc {

class SocketInput : public Stream {
 public:
  explicit SocketInput(int fd) : m_fd(fd) {}

  // Exactly `size` bytes on success; fewer when the peer closed or receiving
  // failed (the bytes before that are delivered and the stream stays ended).
  size_t Read(void* data, size_t size) override;
  // Writes nothing; returns 0.
  size_t Write(const void* data, size_t size) override;

  // True once the peer closed the connection (or receiving failed).
  bool ended() const { return m_ended; }
  // True when not one byte has been received since construction.
  bool empty() const { return m_received == 0; }

 private:
  // Receives at least one byte into the buffer; false at the end.
  bool Fill();

  static constexpr size_t kBufferSize = 4096;

  int m_fd;
  unsigned char m_buffer[kBufferSize];
  size_t m_begin = 0;
  size_t m_end = 0;
  size_t m_received = 0;
  bool m_ended = false;
};

}  // namespace zebtrksvc
