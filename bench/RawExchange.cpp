#include "bench/RawExchange.h"

#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

// recv until `size` bytes have come, exactly as LocalSocket::Read loops.
bool RecvExact(int fd, unsigned char* data, size_t size) {
  while (size > 0) {
    ssize_t n = recv(fd, data, size, 0);
    if (n == -1 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= size_t(n);
  }
  return true;
}

// send until all bytes are gone, exactly as LocalSocket::Write loops.
bool SendAll(int fd, const unsigned char* data, size_t size) {
  while (size > 0) {
    ssize_t n = send(fd, data, size, MSG_NOSIGNAL);
    if (n == -1 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= size_t(n);
  }
  return true;
}

// Replays `pieces` of `bytes` one call each.
bool SendPieces(int fd, const std::vector<unsigned char>& bytes, const std::vector<size_t>& pieces) {
  size_t offset = 0;
  for (size_t piece : pieces) {
    if (!SendAll(fd, bytes.data() + offset, piece)) return false;
    offset += piece;
  }
  return true;
}

bool RecvPieces(int fd, unsigned char* into, const std::vector<size_t>& pieces) {
  size_t offset = 0;
  for (size_t piece : pieces) {
    if (!RecvExact(fd, into + offset, piece)) return false;
    offset += piece;
  }
  return true;
}

}  // namespace

bool RawExchange::Start(const WirePattern& pattern, size_t frameSize, size_t frames) {
  Stop();
  m_pattern = pattern;
  m_buffer.assign(std::max(pattern.request.size(), pattern.response.size()), 0);
  if (frameSize != 0 && !m_segment.CreateRandom("zebtrk-bench-", frameSize)) return false;
  int fds[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) return false;
  m_child = fork();
  if (m_child == -1) {
    close(fds[0]);
    close(fds[1]);
    return false;
  }
  if (m_child == 0) {
    close(fds[0]);
    Serve(fds[1], frameSize, frames);
  }
  close(fds[1]);
  m_fd = fds[0];
  return true;
}

void RawExchange::Serve(int fd, size_t frameSize, size_t frames) {
  // The source is touched before the first request so that page faults do not
  // count; the simulator's movie file is in the page cache the same way.
  std::vector<unsigned char> source(frameSize * frames, 0x5A);
  unsigned char* segment = static_cast<unsigned char*>(m_segment.data());
  for (size_t next = 0;; next = frames != 0 ? (next + 1) % frames : 0) {
    if (!RecvPieces(fd, m_buffer.data(), m_pattern.serverRecvs)) break;
    if (frameSize != 0) std::memcpy(segment, source.data() + next * frameSize, frameSize);
    if (!SendPieces(fd, m_pattern.response, m_pattern.serverSends)) break;
  }
  _exit(0);  // no destructors: the parent owns the segment
}

bool RawExchange::Exchange() {
  if (m_fd == -1) return false;
  return SendPieces(m_fd, m_pattern.request, m_pattern.clientSends) &&
         RecvPieces(m_fd, m_buffer.data(), m_pattern.clientRecvs);
}

void RawExchange::Stop() {
  if (m_fd != -1) {
    close(m_fd);
    m_fd = -1;
  }
  if (m_child > 0) {
    int status = 0;
    while (waitpid(m_child, &status, 0) == -1 && errno == EINTR) {
    }
    m_child = -1;
  }
  m_segment.Close();
}
