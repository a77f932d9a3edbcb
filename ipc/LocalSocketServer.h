// LocalSocketServer: the listening end of a Unix-domain stream socket at
// "/tmp/<name>", with which a service publishes its socket and accepts
// connections.
//
// Ownership: the object owns its listening descriptor (-1 when there is none)
// and the socket file at m_path while it listens; Destroy (and the destructor)
// close the one and remove the other. Movable, not copyable.
//
// Threads: Create, Accept and moves are called by one thread. Destroy may be
// called from another thread while Accept waits; Accept then ends with
// "socket closed", at once or at its next one-second wake-up. The descriptor
// member is the only state the two share, and it is atomic.
#pragma once

#include <atomic>
#include <string>

#include "ipc/LocalSocket.h"

class LocalSocketServer {
 public:
  // A bit set; only AllUsers has a meaning.
  enum EFlags : unsigned {
    // Bind with the file-mode creation mask cleared, so that every user may
    // connect; without it the socket file's mode follows the process's mask.
    AllUsers = 1,
  };

  // No socket: empty path, descriptor -1.
  LocalSocketServer();
  // Takes the path and the descriptor; `other` is left without a socket and
  // with an empty path. Not to be used while `other` is in Accept.
  LocalSocketServer(LocalSocketServer&& other) noexcept;
  // Destroys this server's socket first (unless `other` is this server), then
  // takes over as the move constructor does.
  LocalSocketServer& operator=(LocalSocketServer&& other) noexcept;
  LocalSocketServer(const LocalSocketServer&) = delete;
  LocalSocketServer& operator=(const LocalSocketServer&) = delete;
  // Destroy().
  ~LocalSocketServer();

  // Creates, binds and listens (backlog 128) at "/tmp/<name>", replacing any
  // file left there. A server that already has a socket destroys it first.
  // Success: true, listening, m_path holds the socket path. Failure: false, no
  // socket, no socket file left, errno as the failed call set it.
  bool Create(const char* name, EFlags flags = EFlags());
  // Waits for one connection and returns it as a connected LocalSocket.
  // Throws std::runtime_error "socket closed" when there is no socket or it is
  // destroyed while waiting, "select() failed" when waiting fails and
  // "accept() failed" when taking the connection fails.
  LocalSocket Accept();
  // Closes the listening socket and removes its file; m_path keeps its value.
  // Harmless without a socket.
  void Destroy();

 private:
  std::string m_path;
  std::atomic<int> m_fd;
};
