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

// recv into a buffer of `buffer` bytes, each call taking what has arrived,
// until `total` bytes are in: the simulator's way of reading a request.
bool RecvBuffered(int fd, unsigned char* into, size_t buffer, size_t total) {
  for (size_t got = 0; got < total;) {
    ssize_t n = recv(fd, into, buffer, 0);
    if (n == -1 && errno == EINTR) continue;
    if (n <= 0) return false;
    got += size_t(n);
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
  m_buffer.assign(std::max({pattern.request.size(), pattern.response.size(), pattern.serverBuffer}), 0);
  if (frameSize != 0 && !m_segment.CreateRandom("zebtrk-bench-", frameSize)) return false;
  // The source is made and touched before the fork, so that the child needs
  // no allocation (this process may have other threads) and page faults do
  // not count; the simulator's movie file sits in the page cache the same way.
  m_source.assign(frameSize * frames, 0x5A);
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
  unsigned char* segment = static_cast<unsigned char*>(m_segment.data());
  for (size_t next = 0;; next = frames != 0 ? (next + 1) % frames : 0) {
    bool received = m_pattern.serverBuffer != 0
                        ? RecvBuffered(fd, m_buffer.data(), m_pattern.serverBuffer, m_pattern.request.size())
                        : RecvPieces(fd, m_buffer.data(), m_pattern.serverRecvs);
    if (!received) break;
    if (frameSize != 0) std::memcpy(segment, m_source.data() + next * frameSize, frameSize);
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
  m_source.clear();
  m_source.shrink_to_fit();
}
