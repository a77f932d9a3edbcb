// SocketAddress: the one rule that turns a service name into the address of
// its Unix-domain socket, shared by LocalSocket (connect) and
// LocalSocketServer (bind). Internal to ipc/.
//
// Pure function: callable from any thread.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <cstdio>
#include <cstring>

namespace ipc_detail {

// The address of service `name`: AF_UNIX, path "/tmp/<name>" cut to fit the
// 108-byte path field (at most 107 characters and the terminating zero), every
// other byte zero. Callers pass the full sizeof(sockaddr_un) as the length.
inline sockaddr_un SocketAddress(const char* name) {
  sockaddr_un address;
  std::memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof(address.sun_path), "/tmp/%s", name);
  return address;
}

}  // namespace ipc_detail
