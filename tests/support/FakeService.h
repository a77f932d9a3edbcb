// FakeService: a scriptable stand-in for the movie service zebtrksvc, for
// tests of the service client, the file system and fault injection.
//
// It listens on the real service socket /tmp/zebtrksvc, accepts any number of
// connections and serves each on its own thread, one request at a time. Every
// request is recorded twice: as the exact bytes received for it and decoded.
// Each request is answered from the script, first match wins:
//   1. a version check ("act" "verCheck") by the version handler, which by
//      default answers {"result": {"ver": 0}} (SetVersionHandler(nullptr)
//      sends version checks down the ordinary path);
//   2. the next reply queued with Enqueue (one queue for all connections, in
//      the order requests arrive);
//   3. the handler set with SetHandler;
//   4. otherwise {"error": "FakeService: no reply scripted"}.
// A reply is a value to encode, raw bytes (malformed answers), "close the
// connection now", "close after writing N bytes", "write N bytes then fall
// silent", "delay then answer" or "never answer until the fake is stopped". A request that does not decode is
// recorded as incomplete and its connection closed.
//
// Tests that use it run with a private /tmp (the socket path is fixed) and are
// marked SERVICE. At most one FakeService listens in a process at a time.
//
// Ownership: the fake owns the listening socket, every accepted connection
// and every thread. Stop() and the destructor end them all promptly, also
// while clients still hold connections or wait for an answer.
//
// Threads: every public operation may be called from any thread. Handlers run
// on the connection threads, concurrently with each other and with no lock of
// the fake held; they may call the fake (its waits, for instance),
// and must return soon after Stop() (the fake's waits return false then).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ipc/LocalSocket.h"
#include "ipc/LocalSocketServer.h"
#include "msgpack/TinyMsgPackObject.h"

class FakeService {
 public:
  // How long the Wait operations wait by default before giving up: long
  // enough for a slow sanitizer build, short enough to fail instead of hang.
  static constexpr std::chrono::milliseconds kWaitLimit{10000};

  // A MessagePack value written as a C++ literal: nullptr (nil), bool, any
  // integer (negative ones as NegInteger), double, text, or a ready-made
  // TinyMsgPackObject (for instance from Map or Blob).
  class Value {
   public:
    Value(std::nullptr_t);  // NOLINT: implicit by design, as all of these
    Value(bool value);
    Value(int value);
    Value(long value);
    Value(long long value);
    Value(unsigned int value);
    Value(unsigned long value);
    Value(unsigned long long value);
    Value(double value);
    Value(const char* text);
    Value(const std::string& text);
    Value(TinyMsgPackObject object);
    const TinyMsgPackObject& object() const { return m_object; }

   private:
    TinyMsgPackObject m_object;
  };
  using Field = std::pair<const char*, Value>;

  // A map of the fields in the order given, e.g. Map({{"type", 1}, {"drive", 0}}).
  static TinyMsgPackObject Map(std::initializer_list<Field> fields);
  // A bin value holding `bytes`.
  static TinyMsgPackObject Blob(const std::vector<unsigned char>& bytes);
  // Bytes from a notation of hexadecimal byte pairs and quoted texts,
  // separated by blanks: "83 A3 'act' A4 'exec'". Throws
  // std::invalid_argument on anything else.
  static std::vector<unsigned char> Wire(const std::string& notation);

  // One request as the fake received it.
  struct Request {
    size_t connection = 0;             // 0-based, in the order connections were accepted
    // Exactly the bytes of this request. For an incomplete one, the bytes
    // read before decoding failed (a read cut short by the end of the stream
    // delivers nothing).
    std::vector<unsigned char> bytes;
    bool complete = false;  // false: the bytes did not decode into one value
    TinyMsgPackObject message;         // the decoded value (Nil when incomplete)

    // "act" as text; "" when absent or not a string.
    std::string act() const;
    // "ord"; -1 when absent or not a positive integer.
    long long ord() const;
    // "params"; a Nil value when absent.
    const TinyMsgPackObject& params() const;
    // The positive integer params()[key]; -1 when absent or of another type.
    long long param(const char* key) const;
  };

  // What the fake does with one request.
  class Reply {
   public:
    // Encodes `response` and sends it.
    static Reply Answer(const TinyMsgPackObject& response);
    // {"result": {fields...}}.
    static Reply Result(std::initializer_list<Field> fields = {});
    // {"error": message}.
    static Reply Error(const char* message);
    // Sends `bytes` unchanged.
    static Reply Raw(std::vector<unsigned char> bytes);
    // Closes the connection without answering.
    static Reply Close();
    // Never answers; the connection stays open until the fake stops.
    static Reply Never();

    // This reply, but only its first `bytes` bytes are written, then the
    // connection is closed.
    Reply CloseAfter(size_t bytes) const;
    // This reply, acted on after `delay` (cut short by Stop).
    Reply Delay(std::chrono::milliseconds delay) const;
    // This reply, but only its first `bytes` bytes are written; then the
    // fake falls silent on the connection, which stays open until the fake
    // stops (a service that hangs in the middle of an answer).
    Reply StallAfter(size_t bytes) const;

   private:
    friend class FakeService;
    enum class EAction { kSend, kClose, kNever };
    Reply(EAction action, std::vector<unsigned char> bytes);

    EAction m_action;
    std::vector<unsigned char> m_bytes;
    size_t m_closeAfter;  // SIZE_MAX: write all and keep the connection
    bool m_stall;         // after m_closeAfter bytes: wait for Stop, then close
    std::chrono::milliseconds m_delay;
  };
  using Handler = std::function<Reply(const Request&)>;

  FakeService();
  // Stop().
  ~FakeService();
  FakeService(const FakeService&) = delete;
  FakeService& operator=(const FakeService&) = delete;

  // Listens on /tmp/zebtrksvc and starts accepting. True when listening
  // (also when it already was). A stopped fake may be started again; what it
  // recorded is kept and connection numbers go on counting.
  bool Start();
  // Stops accepting, ends every connection (clients see the stream close)
  // and joins every thread. Returns promptly whatever clients do. Harmless
  // when not started. Not to be called from a handler (it joins the
  // handler's own thread).
  void Stop();

  void Enqueue(Reply reply);
  void SetHandler(Handler handler);
  void SetVersionHandler(Handler handler);

  // Copies of the requests received so far, in order of arrival.
  std::vector<Request> Requests() const;
  size_t RequestCount() const;
  // Connections accepted so far.
  size_t ConnectionCount() const;

  // Each waits until its condition holds and returns true; false when
  // `limit` passes first, or when the fake stops without the condition
  // holding.
  bool WaitForRequests(size_t count, std::chrono::milliseconds limit = kWaitLimit) const;
  bool WaitForOpenConnections(size_t count, std::chrono::milliseconds limit = kWaitLimit) const;

 private:
  struct Connection {
    size_t index = 0;
    // A duplicate of the connection's descriptor, owned by the fake: Stop
    // shuts the socket down through it to wake a thread blocked on the
    // socket, without touching a descriptor number the thread may close.
    int wakeFd = -1;
    bool open = true;
    std::thread thread;
  };

  void AcceptLoop();
  void Serve(Connection* connection, LocalSocket socket);
  // Reads one request; false when the connection has ended (a request that
  // failed to decode half-way is recorded as incomplete first).
  bool ReadRequest(LocalSocket& socket, size_t connection, Request& request);
  // Records the request and picks its reply.
  Reply Choose(const Request& request);
  // Acts on the reply; false when the connection is to be closed.
  bool Deliver(LocalSocket& socket, const Reply& reply);
  // Waits until `predicate` (called with m_mutex held) holds, the fake stops
  // or `limit` passes; returns the predicate's last value.
  bool WaitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds limit) const;

  std::mutex m_lifecycle;  // serialises Start and Stop
  LocalSocketServer m_server;
  std::thread m_acceptThread;

  mutable std::mutex m_mutex;
  mutable std::condition_variable m_changed;  // requests, connections, stopping
  bool m_running = false;
  bool m_stopping = false;
  std::vector<std::unique_ptr<Connection>> m_connections;
  std::vector<Request> m_requests;
  std::deque<Reply> m_queue;
  Handler m_handler;
  Handler m_versionHandler;
};
