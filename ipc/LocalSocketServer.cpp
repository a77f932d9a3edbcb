#include "ipc/LocalSocketServer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

#include "ipc/SocketAddress.h"

namespace {

// Closes `fd` and removes `path`, keeping errno as the call that failed set it.
void Abandon(int fd, const std::string& path) {
  int error = errno;
  close(fd);
  unlink(path.c_str());
  errno = error;
}

}  // namespace

LocalSocketServer::LocalSocketServer() : m_fd(-1) {}

LocalSocketServer::LocalSocketServer(LocalSocketServer&& other) noexcept
    : m_path(std::move(other.m_path)), m_fd(other.m_fd.exchange(-1)) {
  other.m_path.clear();
}

LocalSocketServer& LocalSocketServer::operator=(LocalSocketServer&& other) noexcept {
  if (this == &other) return *this;
  Destroy();
  m_path = std::move(other.m_path);
  other.m_path.clear();
  m_fd = other.m_fd.exchange(-1);
  return *this;
}

LocalSocketServer::~LocalSocketServer() { Destroy(); }

bool LocalSocketServer::Create(const char* name, EFlags flags) {
  // Creating again would otherwise leak the old listening socket and leave
  // its file behind: destroy it first.
  Destroy();
  if (name == nullptr) {
    errno = EINVAL;
    return false;
  }
  // Close-on-exec: a child process must not inherit the listening socket.
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd == -1) return false;
  sockaddr_un address = ipc_detail::SocketAddress(name);
  m_path = address.sun_path;
  unlink(m_path.c_str());  // a socket file left from an earlier run; the result does not matter
  int bound;
  if (flags & AllUsers) {
    // The mask is process-wide: another thread creating a file between these
    // two calls gets it with the mask cleared too. bind offers no mode
    // argument, so this is the price of a socket every user may reach; the
    // mask is restored at once.
    mode_t saved = umask(0);
    bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
    umask(saved);
  } else {
    bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  }
  if (bound != 0 || listen(fd, 128) != 0) {
    Abandon(fd, m_path);
    return false;
  }
  m_fd = fd;
  return true;
}

LocalSocket LocalSocketServer::Accept() {
  for (;;) {
    // Re-read the descriptor at every wake-up: Destroy in another thread sets
    // it to -1.
    int fd = m_fd.load();
    if (fd == -1) throw std::runtime_error("socket closed");
    // poll, not select: a host with many open files may give the listening
    // socket a descriptor of FD_SETSIZE (1024) or more, which an fd_set cannot
    // hold. Same one-second wake-up.
    pollfd waiter = {fd, POLLIN, 0};
    int ready = poll(&waiter, 1, 1000);
    if (ready == -1) {
      if (errno == EINTR) continue;
      throw std::runtime_error("select() failed");
    }
    if (ready == 0) continue;
    // Destroy may have run while we waited (its shutdown wakes us): never
    // touch a descriptor number that is no longer ours.
    if (m_fd.load() != fd) throw std::runtime_error("socket closed");
    if (waiter.revents & POLLNVAL) throw std::runtime_error("select() failed");
    int connection = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (connection != -1) return LocalSocket(connection);
    if (m_fd.load() != fd) throw std::runtime_error("socket closed");
    // A signal while taking the connection is a wake-up like any other.
    if (errno == EINTR) continue;
    throw std::runtime_error("accept() failed");
  }
}

void LocalSocketServer::Destroy() {
  // exchange: of two racing Destroy calls only one closes the descriptor.
  int fd = m_fd.exchange(-1);
  if (fd == -1) return;
  // shutdown wakes an Accept waiting in another thread at once (the socket
  // reports a hang-up), so it sees -1 before the number can be reused by a
  // later open. A window remains between its last check and its accept
  // call; closing that too would take a lock around every accept, which the
  // one-second wake-up design does not justify.
  shutdown(fd, SHUT_RDWR);
  close(fd);
  unlink(m_path.c_str());
}
