// LocalSocket: the client end of a Unix-domain stream socket, reached by
// service name at "/tmp/<name>", and the Stream that the MessagePack reader
// and writer of the service client work on.
//
// Ownership: the object owns its descriptor (-1 when not connected) and closes
// it on Disconnect, on a failed Read, on move-assignment and on destruction.
// It is movable, not copyable; a moved-from socket is not connected.
//
// Threads: one thread at a time per object (the service client serialises its
// use under its own lock). Enum is static and callable from any thread.
//
// A library inside the host's process: writes never raise SIGPIPE and
// descriptors are close-on-exec so the host's children do not inherit the
// service connection. A signal that interrupts a blocking call (a handler the
// host installed without SA_RESTART) is a failure like any other: it ends a
// Read, which disconnects, and a Write, which reports the bytes sent before.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "msgpack/Stream.h"

class LocalSocket : public Stream {
 public:
  // Not connected.
  LocalSocket();
  // Takes over an already connected descriptor (as LocalSocketServer::Accept
  // hands out); -1 makes a socket that is not connected.
  explicit LocalSocket(int fd);
  // Takes the descriptor; `other` is left not connected.
  LocalSocket(LocalSocket&& other) noexcept;
  // Disconnects this socket first (unless `other` is this socket), then takes
  // the descriptor; `other` is left not connected.
  LocalSocket& operator=(LocalSocket&& other) noexcept;
  LocalSocket(const LocalSocket&) = delete;
  LocalSocket& operator=(const LocalSocket&) = delete;
  // Disconnect().
  ~LocalSocket() override;

  // Reads exactly `size` bytes into `data`, blocking without a time-out.
  // Success: returns `size`. Failure (the peer closed, an error, an
  // interrupted call): the socket
  // is disconnected and 0 is returned; bytes received before the failure are
  // lost, a partial read is never reported. `size` 0 returns 0 and makes no
  // system call.
  size_t Read(void* data, size_t size) override;
  // Sends the `size` bytes at `data`. Returns how many were sent: `size` on
  // success, fewer when a send failed or was interrupted part-way (the
  // socket stays connected;
  // the failure shows at the next Read). `size` 0 returns 0 and makes no
  // system call.
  size_t Write(const void* data, size_t size) override;

  // Connects to the service `name` at "/tmp/<name>". A socket that is already
  // connected is disconnected first. Success: true, connected. Failure: false,
  // not connected, errno as the failed call set it.
  bool Connect(const char* name);
  // Shuts down and closes the connection, if any. Afterwards not connected.
  void Disconnect();
  // True while a descriptor is held.
  bool connected() const { return m_fd != -1; }
  // The descriptor (-1 when not connected), still owned by this socket. A
  // server uses it to shut a connection down from another thread, which wakes
  // a thread blocked in receiving or sending on it.
  int fd() const { return m_fd; }

  // Bare names of the entries of /tmp that begin with `prefix` (exact,
  // case-sensitive), in the order the directory yields them; entries are not
  // checked for being sockets, so an empty prefix also yields "." and "..".
  // Empty when /tmp cannot be read or `prefix` is null.
  static std::vector<std::string> Enum(const char* prefix);

 private:
  int m_fd;
};
