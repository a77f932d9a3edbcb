// Fuzz target for whole exchanges of the service client: the input's bytes
// are what a service sends, through a socketpair, into CTrkClient commands.
//
// Input: byte 0 chooses the first command, byte 1 the second (each modulo
// 14: the thirteen commands, or 13 for the version check itself); the rest
// is the stream the client reads. Unless the version check is chosen, a
// valid version answer is sent first. The service end of the pair is shut
// for writing after the bytes, so no read ever waits.
//
// Every command must return true or false and never crash, throw or leak
// (memory: LeakSanitizer; descriptors: the client's end must be closed once
// the client is gone). A connected client stays Connected whatever it reads:
// a failed exchange fails that command only. After each exchange its socket
// is either closed (the stream ended inside the answer) or has consumed
// exactly the next whole value when one decodes there (the version check's or
// the command's answer); where none decodes, the client has read on (at least
// the byte that failed) and leaves the rest on the stream for the next
// command, as designed. A client whose version check failed is Idle and must
// read nothing more.
//
// Memory: every input runs under the heap budget of FuzzHeapBudget.h.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <new>
#include <stdexcept>
#include <vector>

#include <zeb/CMemFile.h>
#include <zeb/CString.h>

#include "client/CTrkClient.h"
#include "fuzz/FuzzHeapBudget.h"
#include "ipc/LocalSocket.h"
#include "msgpack/MemoryStream.h"
#include "msgpack/TinyMsgPackReader.h"

namespace {

constexpr unsigned int kCommands = 13;  // ordinals 0..12; 13 chooses the version check
const unsigned char kVersionAnswer[] = {0x81, 0xA6, 'r', 'e', 's', 'u', 'l', 't', 0x81, 0xA3, 'v', 'e', 'r', 0x00};

[[noreturn]] void Finding() { __builtin_trap(); }

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

size_t Unread(int fd) {
  int count = 0;
  if (ioctl(fd, FIONREAD, &count) != 0) Finding();
  return static_cast<size_t>(count);
}

// How many bytes of `stream` from `at` the client's decoder reads for one
// value; `whole` tells whether the value decoded.
size_t DecodedLength(const std::vector<unsigned char>& stream, size_t at, bool& whole) {
  MemoryStream in(stream.data() + at, stream.size() - at);
  TinyMsgPackReader reader(&in);
  whole = true;
  try {
    reader.ReadObject();
  } catch (...) {
    whole = false;
  }
  return stream.size() - at - in.remaining();
}

void Run(CTrkClient& client, unsigned int command) {
  switch (command % kCommands) {
    case 0:
      client.DetectDrive();
      break;
    case 1: {
      unsigned int count = 0;
      client.ListMovies(count);
      break;
    }
    case 2: {
      STrkMovieInfo info = {};
      client.GetMovieInfo(1, &info);
      if (info.name[sizeof info.name - 1] != '\0') Finding();  // always terminated
      break;
    }
    case 3: {
      unsigned int index = 0;
      client.GetMovieIndex("12-Run A", index);
      break;
    }
    case 4: {
      zeb::CString mapping;
      client.OpenMovie(2, mapping);
      break;
    }
    case 5:
      client.CloseMovie(2);
      break;
    case 6:
      client.ReadFrame(2, 70000);
      break;
    case 7:
      client.DeleteMovie(2);
      break;
    case 8:
      client.DeleteAllMovies();
      break;
    case 9:
      client.ReadInfoFile(2, zeb::CMemFile::Create());
      break;
    case 10: {
      unsigned int queueId = 0;
      client.CreateEventQueue(queueId);
      break;
    }
    case 11:
      client.DestroyEventQueue(3);
      break;
    default: {
      STrkEvent event = {};
      client.ReadEventQueue(3, event);
    }
  }
}

// After an exchange of a connected client: it is still Connected (Adopt
// answers true without traffic then), and its end is closed or has read
// exactly the next whole value of `stream` when one decodes there, otherwise
// at least one byte; `consumed` then moves to where the client stands. (A
// value that does not decode here may have failed for the heap budget, which
// the client's own read may have had room for, so it is not held to the same
// length.)
void CheckExchange(CTrkClient& client, int fd, const std::vector<unsigned char>& stream, size_t& consumed) {
  if (!client.Adopt(LocalSocket())) Finding();
  if (!IsOpen(fd)) return;
  bool whole = false;
  const size_t length = DecodedLength(stream, consumed, whole);
  const size_t now = stream.size() - Unread(fd);
  if (whole ? now != consumed + length : now <= consumed) Finding();
  consumed = now;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const unsigned int first = data[0] % (kCommands + 1);
  const unsigned int second = data[1] % (kCommands + 1);
  std::vector<unsigned char> stream;
  if (first != kCommands) stream.assign(kVersionAnswer, kVersionAnswer + sizeof kVersionAnswer);
  stream.insert(stream.end(), data + 2, data + size);

  int ends[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) return 0;
  // The inputs are small (-max_len), far below the socket's buffer.
  if (!stream.empty() && send(ends[1], stream.data(), stream.size(), MSG_NOSIGNAL) != ssize_t(stream.size())) {
    Finding();
  }
  shutdown(ends[1], SHUT_WR);
  {
    fuzzbudget::BudgetScope budget(size);
    CTrkClient client;
    size_t consumed = 0;
    const bool connected = client.Adopt(LocalSocket(ends[0]));
    // A failed version check leaves the client Idle with its socket as it
    // is (designed so); an Idle client then reads nothing at all.
    if (connected) CheckExchange(client, ends[0], stream, consumed);
    const size_t idleUnread = !connected && IsOpen(ends[0]) ? Unread(ends[0]) : 0;
    for (unsigned int command : {first, second}) {
      if (command == kCommands) command = 0;
      Run(client, command);
      if (connected) {
        CheckExchange(client, ends[0], stream, consumed);
      } else if (IsOpen(ends[0]) && Unread(ends[0]) != idleUnread) {
        Finding();
      }
    }
  }
  if (IsOpen(ends[0])) Finding();  // the client left its descriptor open
  close(ends[1]);
  return 0;
}
