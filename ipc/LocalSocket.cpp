#include "ipc/LocalSocket.h"

#include <dirent.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "ipc/SocketAddress.h"

LocalSocket::LocalSocket() : m_fd(-1) {}

LocalSocket::LocalSocket(int fd) : m_fd(fd) {}

LocalSocket::LocalSocket(LocalSocket&& other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }

LocalSocket& LocalSocket::operator=(LocalSocket&& other) noexcept {
  if (this == &other) return *this;
  Disconnect();
  m_fd = other.m_fd;
  other.m_fd = -1;
  return *this;
}

LocalSocket::~LocalSocket() { Disconnect(); }

bool LocalSocket::Connect(const char* name) {
  // Connecting again would otherwise leak the old descriptor: close it first.
  Disconnect();
  if (name == nullptr) {
    errno = EINVAL;
    return false;
  }
  // Close-on-exec: a child process of the host must not inherit (and so keep
  // open) the connection to the service.
  m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (m_fd == -1) return false;
  sockaddr_un address = ipc_detail::SocketAddress(name);
  if (connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) return true;
  int error = errno;
  close(m_fd);
  m_fd = -1;
  errno = error;
  return false;
}

void LocalSocket::Disconnect() {
  if (m_fd == -1) return;
  shutdown(m_fd, SHUT_RDWR);
  close(m_fd);
  m_fd = -1;
}

size_t LocalSocket::Read(void* data, size_t size) {
  if (size == 0) return 0;
  char* next = static_cast<char*>(data);
  size_t left = size;
  while (left > 0) {
    ssize_t n = recv(m_fd, next, left, 0);
    // Every result of 0 or less ends the read and the connection: the peer
    // closed, an error, and also a call interrupted by a signal (a handler
    // that the host installed without SA_RESTART).
    if (n <= 0) {
      int error = errno;
      Disconnect();
      errno = error;
      return 0;
    }
    next += n;
    left -= static_cast<size_t>(n);
  }
  return size;
}

size_t LocalSocket::Write(const void* data, size_t size) {
  if (size == 0) return 0;
  const char* next = static_cast<const char*>(data);
  size_t left = size;
  while (left > 0) {
    // MSG_NOSIGNAL: a peer that has gone yields EPIPE here instead of a
    // SIGPIPE whose default disposition would end the host process.
    ssize_t n = send(m_fd, next, left, MSG_NOSIGNAL);
    if (n <= 0) break;  // an error or an interrupted call: the bytes sent so far
    next += n;
    left -= static_cast<size_t>(n);
  }
  return size - left;
}

std::vector<std::string> LocalSocket::Enum(const char* prefix) {
  std::vector<std::string> names;
  if (prefix == nullptr) return names;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir("/tmp"), closedir);
  if (!dir) return names;
  size_t length = std::strlen(prefix);
  while (dirent* entry = readdir(dir.get())) {
    if (std::strncmp(entry->d_name, prefix, length) == 0) names.emplace_back(entry->d_name);
  }
  return names;
}
