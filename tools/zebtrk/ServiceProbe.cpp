#include "tools/zebtrk/ServiceProbe.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include "msgpack/MemoryStream.h"
#include "msgpack/TinyMsgPackReader.h"

namespace {

// {"act": "verCheck", "ver": 1}
const unsigned char kVersionCheck[] = {0x82, 0xA3, 'a', 'c', 't', 0xA8, 'v', 'e', 'r', 'C', 'h', 'e', 'c', 'k',
                                       0xA3, 'v',  'e', 'r', 0x01};
// {"act": "exec", "ord": 0}: DetectDrive
const unsigned char kDetectDrive[] = {0x82, 0xA3, 'a', 'c', 't', 0xA4, 'e', 'x', 'e', 'c', 0xA3, 'o', 'r', 'd', 0x00};
// An answer longer than this that still does not parse is not ours.
constexpr size_t kMaxAnswerBytes = 4096;

// True when `bytes` hold a whole answer whose "result" map has `key` of
// `type` (a Bool's value goes to `value`); `complete` false when the bytes may
// be the start of such an answer.
bool HasResult(const std::vector<unsigned char>& bytes, const char* key, TinyMsgPackObject::EType type, bool& complete,
               bool* value) {
  complete = true;
  MemoryStream stream(bytes.data(), bytes.size());
  TinyMsgPackReader reader(&stream);
  try {
    const TinyMsgPackObject answer = reader.ReadObject();
    if (answer.type() != TinyMsgPackObject::Map || !answer.hasKey("result")) return false;
    const TinyMsgPackObject& result = answer.valueForKey("result");
    if (result.type() != TinyMsgPackObject::Map || !result.hasKey(key) || result.valueForKey(key).type() != type) {
      return false;
    }
    if (value) *value = result.valueForKey(key).boolValue();
    return true;
  } catch (const std::exception&) {
    complete = stream.remaining() != 0 || bytes.size() > kMaxAnswerBytes;
    return false;
  }
}

class Socket {
 public:
  Socket() : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {}
  ~Socket() {
    if (m_fd >= 0) close(m_fd);
  }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  int fd() const { return m_fd; }

 private:
  int m_fd;
};

}  // namespace

ServiceProbe::EState ServiceProbe::Probe(std::string& detail, int limitMs, int cancelFd, const char* socketPath,
                                         bool* driveDetected) {
  detail.clear();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (strlen(socketPath) >= sizeof(address.sun_path)) {
    detail = "socket path too long";
    return EState::kUnreachable;
  }
  strcpy(address.sun_path, socketPath);
  // Non-blocking: a service whose backlog is full makes connect wait, and a
  // probe must not hang; EAGAIN means somebody listens (and is not taking
  // connections: it is then as good as silent, which the wait below shows).
  const Socket socket;
  if (socket.fd() < 0) {
    detail = strerror(errno);
    return EState::kUnreachable;
  }
  int result;
  do {
    result = connect(socket.fd(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  } while (result != 0 && errno == EINTR);
  const int error = result == 0 ? 0 : errno;
  if (result != 0 && error != EAGAIN && error != EINPROGRESS) {
    detail = strerror(error);
    if (error == ENOENT) return EState::kNoSocket;
    if (error == ECONNREFUSED) return EState::kStale;
    return EState::kUnreachable;
  }

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
  // The version check, then (when asked) DetectDrive on the same connection.
  const std::vector<unsigned char> requests[] = {
      std::vector<unsigned char>(kVersionCheck, kVersionCheck + sizeof(kVersionCheck)),
      std::vector<unsigned char>(kDetectDrive, kDetectDrive + sizeof(kDetectDrive))};
  const size_t exchanges = driveDetected ? 2 : 1;
  for (size_t exchange = 0; exchange < exchanges; ++exchange) {
    const std::vector<unsigned char>& request = requests[exchange];
    size_t sent = 0;
    std::vector<unsigned char> answer;
    for (;;) {
      const long left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
      if (left <= 0) {
        detail = answer.empty() ? "no answer" : "an incomplete answer";
        return EState::kSilent;
      }
      pollfd fds[2] = {{socket.fd(), static_cast<short>(sent < request.size() ? POLLOUT : POLLIN), 0},
                       {cancelFd, POLLIN, 0}};
      const int ready = poll(fds, cancelFd >= 0 ? 2 : 1, static_cast<int>(left));
      if (ready < 0 && errno != EINTR) {
        detail = strerror(errno);
        return EState::kUnreachable;
      }
      if (cancelFd >= 0 && fds[1].revents) return EState::kCancelled;
      if (ready <= 0 || fds[0].revents == 0) continue;
      if (sent < request.size()) {
        const ssize_t n = send(socket.fd(), request.data() + sent, request.size() - sent, MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
          detail = std::string("the connection broke: ") + strerror(errno);
          return errno == EPIPE || errno == ECONNRESET ? EState::kForeign : EState::kUnreachable;
        }
        if (n > 0) sent += static_cast<size_t>(n);
        continue;
      }
      unsigned char buffer[512];
      const ssize_t n = recv(socket.fd(), buffer, sizeof(buffer), 0);
      if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
      if (n <= 0) {
        detail = n == 0 ? "it closed the connection without an answer" : strerror(errno);
        return EState::kForeign;
      }
      answer.insert(answer.end(), buffer, buffer + n);
      bool complete = true;
      const bool ok = exchange == 0 ? HasResult(answer, "ver", TinyMsgPackObject::PosInteger, complete, nullptr)
                                    : HasResult(answer, "detected", TinyMsgPackObject::Bool, complete, driveDetected);
      if (ok) break;
      if (complete) {
        detail = exchange == 0 ? "its answer to the version check is not the protocol's"
                               : "its answer to DetectDrive is not the protocol's";
        return EState::kForeign;
      }
    }
  }
  return EState::kAnswers;
}

std::string ServiceProbe::Message(EState state, const std::string& detail, int limitMs) {
  const std::string socket = kSocketPath;
  char seconds[32];
  snprintf(seconds, sizeof(seconds), "%g s", limitMs / 1000.0);
  switch (state) {
    case EState::kSilent:
      return "the movie service at " + socket + " accepts connections but did not answer within " + seconds + " (" +
             detail + "): is it stopped or hung? (--timeout S waits longer)";
    case EState::kForeign:
      return "the movie service at " + socket + " does not speak the expected protocol (" + detail + ")";
    default:
      break;
  }
  std::string message = "the movie service is not running (";
  if (state == EState::kNoSocket) {
    message += "no socket at " + socket;
  } else if (state == EState::kStale) {
    message += socket + " is left over from a service that stopped";
  } else {
    message += "cannot connect to " + socket + ": " + detail;
  }
  message +=
      ").\n"
      "Start the simulator on a drive folder:  zebtrksvc --drive DIR &\n"
      "(make a demo drive first with:          zebtrksvc make-demo DIR)\n"
      "or use the cache directory instead:     export ZEBTRK_ENABLE_EMULATOR=1";
  return message;
}
