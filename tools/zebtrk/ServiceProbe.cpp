#include "tools/zebtrk/ServiceProbe.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

ServiceProbe::EState ServiceProbe::Probe(std::string& detail, const char* socketPath) {
  detail.clear();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (strlen(socketPath) >= sizeof(address.sun_path)) {
    detail = "socket path too long";
    return EState::kUnreachable;
  }
  strcpy(address.sun_path, socketPath);
  // Non-blocking: a service whose backlog is full makes connect wait, and a
  // probe must not hang; EAGAIN means somebody listens.
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    detail = strerror(errno);
    return EState::kUnreachable;
  }
  int result;
  do {
    result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  } while (result != 0 && errno == EINTR);
  const int error = result == 0 ? 0 : errno;
  close(fd);
  if (result == 0 || error == EAGAIN || error == EINPROGRESS) return EState::kAnswers;
  detail = strerror(error);
  if (error == ENOENT) return EState::kNoSocket;
  if (error == ECONNREFUSED) return EState::kStale;
  return EState::kUnreachable;
}

std::string ServiceProbe::NotRunningMessage(EState state, const std::string& detail) {
  std::string message = "the movie service is not running (";
  switch (state) {
    case EState::kNoSocket:
      message += std::string("no socket at ") + kSocketPath;
      break;
    case EState::kStale:
      message += std::string(kSocketPath) + " is left over from a service that stopped";
      break;
    default:
      message += std::string("cannot connect to ") + kSocketPath + ": " + detail;
      break;
  }
  message +=
      ").\n"
      "Start the simulator on a drive folder:  zebtrksvc --drive DIR &\n"
      "(make a demo drive first with:          zebtrksvc make-demo DIR)\n"
      "or use the cache directory instead:     export ZEBTRK_ENABLE_EMULATOR=1";
  return message;
}
