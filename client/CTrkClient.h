// CTrkClient: one connection to the movie service zebtrksvc, the local
// process that owns the recorder's drive.
//
// Every operation is one exchange: one MessagePack request map written to the
// socket, one MessagePack response read back as a TinyMsgPackObject tree and
// looked up by key. Requests are {"act": "exec", "ord": n} or
// {"act": "exec", "ord": n, "params": {...}}, keys in that order and every
// integer in its smallest unsigned form. A response whose "error" is present
// and not nil fails the command (nil counts as no error).
//
// Results: every operation returns bool, true on success. False when the
// client is not connected (nothing is sent then) or on any failure: a service
// "error", a broken or closed stream, a response that is not a map, a missing
// key or a value of the wrong type. No exception ever leaves an operation.
// Out-parameters are written only from a response; where an operation stores
// several values, those stored before the failing one keep their new values.
// Numbers wider than their field keep their low bits.
//
// States: Idle (constructed, disconnected, or after a failed Connect) and
// Connected (after a successful Connect). A failed command leaves the client
// Connected; once the service has closed the stream every command fails in its
// read while Connect keeps returning true. Nothing reconnects by itself.
//
// Ownership: the client owns its socket; the reader and writer are bound to
// it, so the object is neither copied nor moved. Files handed to ReadInfoFile
// stay the caller's.
//
// Threads: any thread may call any operation. The client's lock is held for a
// whole exchange, so requests and responses of one client never interleave;
// an operation waiting for its answer (above all ReadEventQueue) blocks every
// other operation on the same client, Disconnect included. There is no
// time-out: a read waits until the service answers or the stream ends.
//
// What a caller sees when the service sends something undecodable (bytes
// the decoder does not accept, an ext value, nesting beyond the decoder's
// bound, a map key that is not a string, a count that cannot be allocated):
// that command returns false, and nothing else changes. The client stays
// Connected and keeps its socket open, so the next command is sent as usual.
// The rest of the undecodable answer is still on the stream, though, and the
// next command reads from there: it may fail too, or take those bytes (or the
// answer behind them) for its own answer, and every answer after it may
// belong to the request before, until the stream happens to be back in step
// or the service closes it. A caller that meets such a failure and can no
// longer trust the stream calls Disconnect and Connect to start over on a new
// connection. A stream that ends inside an answer closes the socket (as in
// LocalSocket::Read): every later command then fails in its read.
#pragma once

#include <cstdint>
#include <mutex>

#include <zeb/CCriticalSection.h>
#include <zeb/CString.h>
#include <zeb/IFile.h>
#include <zeb/TSharedPtr.h>

#include "client/STrkEvent.h"
#include "client/STrkMovieInfo.h"
#include "ipc/LocalSocket.h"
#include "msgpack/TinyMsgPackObject.h"
#include "msgpack/TinyMsgPackReader.h"
#include "msgpack/TinyMsgPackWriter.h"

class CTrkClient {
 public:
  // Idle: no socket, not connected.
  CTrkClient();
  // Disconnect(), then frees.
  ~CTrkClient();
  CTrkClient(const CTrkClient&) = delete;
  CTrkClient& operator=(const CTrkClient&) = delete;

  // Connects to the service "zebtrksvc" and runs the version check
  // ({"act": "verCheck", "ver": 0}; any positive integer "ver" is accepted).
  // True: Connected. A client that is already Connected returns true without
  // traffic. False: Idle; when the socket connected but the version check
  // failed, that socket stays open until Disconnect, destruction or the next
  // Connect.
  bool Connect() noexcept;
  // Connect over `socket`, an already connected stream, instead of the
  // service socket: takes it over and runs the same version check. For
  // tests and fuzzing, which feed the client through a socketpair. A client
  // that is already Connected returns true and leaves `socket` to the
  // caller.
  bool Adopt(LocalSocket&& socket) noexcept;
  // Closes the connection and makes the client Idle. Sends nothing; harmless
  // on a client that never connected. Waits for a running exchange.
  void Disconnect() noexcept;

  // Ordinal 0. True when the service reports a drive ("detected": true);
  // false when it reports none or on any failure.
  bool DetectDrive() noexcept;

  // Ordinal 1. `count` <- "count" (low 32 bits).
  bool ListMovies(unsigned int& count) noexcept;
  // Ordinal 2. Fills *info field by field from "info", in declaration order;
  // at a missing or mistyped key it stops and returns false, the fields
  // before it keeping their new values. A "name" of more than 63 characters
  // makes `name` empty (not a failure). A null `info` fails without traffic.
  bool GetMovieInfo(unsigned int index, STrkMovieInfo* info) noexcept;
  // Ordinal 3. Sends `name` (its whole strlen); `index` <- "index" (low 32
  // bits). A null `name` fails without traffic.
  bool GetMovieIndex(const char* name, unsigned int& index) noexcept;
  // Ordinal 4. `mapping` <- "mapping": the name of the shared memory segment
  // that will hold this movie's frames.
  bool OpenMovie(unsigned int fileId, zeb::CString& mapping) noexcept;
  // Ordinal 5. True unless the service answers with an error.
  bool CloseMovie(unsigned int fileId) noexcept;
  // Ordinal 6. On true the service has written the frame at the start of the
  // segment named by OpenMovie for this fileId.
  bool ReadFrame(unsigned int fileId, unsigned long frameNumber) noexcept;
  // Ordinal 7. True unless the service answers with an error.
  bool DeleteMovie(unsigned int fileId) noexcept;
  // Ordinal 8. True unless the service answers with an error.
  bool DeleteAllMovies() noexcept;
  // Ordinal 9. Writes the "data" blob to `file` with one WriteBytes at its
  // current position (a blob of 0 bytes too); false when WriteBytes fails.
  // The file is neither seeked nor closed. An empty `file` fails without
  // traffic.
  bool ReadInfoFile(unsigned int fileId, zeb::TSharedPtr<zeb::IFile> file) noexcept;

  // Ordinal 10. `queueId` <- "queueId" (low 32 bits).
  bool CreateEventQueue(unsigned int& queueId) noexcept;
  // Ordinal 11. True unless the service answers with an error.
  bool DestroyEventQueue(unsigned int queueId) noexcept;
  // Ordinal 12. Waits until the service has an event for the queue (or the
  // queue is closed). `event.type` <- "type", then `event.drive` <- "drive"
  // (low 32 bits each); without a valid "drive" it returns false with
  // `event.type` already written.
  bool ReadEventQueue(unsigned int queueId, STrkEvent& event) noexcept;

  // Ending a blocked exchange from another thread (the file system's
  // destructor uses it when the service does not answer):
  // PrepareShutdown keeps a duplicate of the connected socket's descriptor,
  // so that Shutdown never touches a descriptor number that a failed read
  // has closed meanwhile and the host may have reused. True when the
  // duplicate is held; false when not connected or it cannot be made. The
  // duplicate is closed by Disconnect (and destruction).
  bool PrepareShutdown() noexcept;
  // Shuts the connection down in both directions through that duplicate,
  // without taking the client's lock (a blocked exchange holds it): the
  // waiting read fails and its operation returns false, as do later ones.
  // Does nothing without PrepareShutdown. Any thread.
  void Shutdown() noexcept;

 private:
  // The frame every command runs in: takes the lock; fails at once when Idle;
  // writes the request (with a "params" map of `paramCount` pairs written by
  // `writeParams`, or none when it is 0), reads the response, applies the
  // "error" rule and hands the response to `readResults`, whose bool is the
  // operation's result. Any exception on the way gives false.
  template <class WriteParams, class ReadResults>
  bool Execute(unsigned int ordinal, uint32_t paramCount, WriteParams writeParams,
               ReadResults readResults) noexcept;

  // The version check on the connected m_socket; true: Connected.
  bool CheckVersion();
  void WriteText(const char* text);
  void WriteParam(const char* key, uint64_t value);
  // The "error" rule: throws std::runtime_error with the service's message
  // for a non-nil "error" (the object model's exception when it is not a
  // string, or when the response is not a map); returns otherwise.
  static void CheckError(const TinyMsgPackObject& response);

  LocalSocket m_socket;
  zeb::CCriticalSection m_lock;
  bool m_connected;
  TinyMsgPackReader m_reader;
  TinyMsgPackWriter m_writer;
  std::mutex m_wakeLock;  // guards m_wakeFd; never held across an exchange
  int m_wakeFd;           // PrepareShutdown's duplicate, -1 when none
};
