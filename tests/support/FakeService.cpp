#include "tests/support/FakeService.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <stdexcept>

#include "msgpack/MemoryStream.h"
#include "msgpack/Stream.h"
#include "msgpack/TinyMsgPackReader.h"
#include "msgpack/TinyMsgPackWriter.h"

namespace {

const char* const kServiceName = "zebtrksvc";
const char* const kUnscripted = "FakeService: no reply scripted";

// A Stream that passes reads and writes through to another and keeps a copy
// of every byte read, so that the bytes of exactly one request are captured
// while the reader decodes it.
class RecordingStream : public Stream {
 public:
  explicit RecordingStream(Stream* inner) : m_inner(inner) {}

  size_t Read(void* data, size_t size) override {
    size_t count = m_inner->Read(data, size);
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    m_bytes.insert(m_bytes.end(), bytes, bytes + count);
    return count;
  }
  size_t Write(const void* data, size_t size) override { return m_inner->Write(data, size); }

  std::vector<unsigned char> TakeBytes() { return std::move(m_bytes); }

 private:
  Stream* m_inner;
  std::vector<unsigned char> m_bytes;
};

// The value under `key` of a map; null when `map` is no map or lacks the key.
const TinyMsgPackObject* Lookup(const TinyMsgPackObject& map, const char* key) {
  if (map.type() != TinyMsgPackObject::Map) return nullptr;
  uint32_t at = map.findKey(key);
  return at == UINT32_MAX ? nullptr : &map.valueAt(at);
}

long long PositiveOrMinusOne(const TinyMsgPackObject* value) {
  if (value == nullptr || value->type() != TinyMsgPackObject::PosInteger) return -1;
  return static_cast<long long>(value->posIntegerValue());
}

TinyMsgPackObject Signed(long long value) {
  return value < 0 ? TinyMsgPackObject::CreateNegInteger(value)
                   : TinyMsgPackObject::CreatePosInteger(static_cast<uint64_t>(value));
}

}  // namespace

// --- Value -----------------------------------------------------------------

FakeService::Value::Value(std::nullptr_t) : m_object(TinyMsgPackObject::CreateNil()) {}
FakeService::Value::Value(bool value) : m_object(TinyMsgPackObject::CreateBool(value)) {}
FakeService::Value::Value(int value) : m_object(Signed(value)) {}
FakeService::Value::Value(long value) : m_object(Signed(value)) {}
FakeService::Value::Value(long long value) : m_object(Signed(value)) {}
FakeService::Value::Value(unsigned int value) : m_object(TinyMsgPackObject::CreatePosInteger(value)) {}
FakeService::Value::Value(unsigned long value) : m_object(TinyMsgPackObject::CreatePosInteger(value)) {}
FakeService::Value::Value(unsigned long long value) : m_object(TinyMsgPackObject::CreatePosInteger(value)) {}
FakeService::Value::Value(double value) : m_object(TinyMsgPackObject::CreateFloat(value)) {}
FakeService::Value::Value(const char* text) : m_object(TinyMsgPackObject::CreateString(text, UINT32_MAX)) {}
FakeService::Value::Value(const std::string& text)
    : m_object(TinyMsgPackObject::CreateString(text.data(), static_cast<uint32_t>(text.size()))) {}
FakeService::Value::Value(TinyMsgPackObject object) : m_object(std::move(object)) {}

TinyMsgPackObject FakeService::Map(std::initializer_list<Field> fields) {
  TinyMsgPackObject map = TinyMsgPackObject::CreateMap(static_cast<uint32_t>(fields.size()));
  for (const Field& field : fields) map.insert(field.first, TinyMsgPackObject(field.second.object()));
  return map;
}

TinyMsgPackObject FakeService::Blob(const std::vector<unsigned char>& bytes) {
  return TinyMsgPackObject::CreateBlob(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

std::vector<unsigned char> FakeService::Wire(const std::string& notation) {
  std::vector<unsigned char> bytes;
  size_t at = 0;
  while (at < notation.size()) {
    char c = notation[at];
    if (c == ' ') {
      ++at;
    } else if (c == '\'') {
      size_t end = notation.find('\'', at + 1);
      if (end == std::string::npos) throw std::invalid_argument("Wire: unterminated text in: " + notation);
      bytes.insert(bytes.end(), notation.begin() + static_cast<long>(at) + 1, notation.begin() + static_cast<long>(end));
      at = end + 1;
    } else {
      if (at + 1 >= notation.size() || !std::isxdigit(static_cast<unsigned char>(c)) ||
          !std::isxdigit(static_cast<unsigned char>(notation[at + 1]))) {
        throw std::invalid_argument("Wire: not a byte at offset " + std::to_string(at) + " of: " + notation);
      }
      bytes.push_back(static_cast<unsigned char>(std::stoul(notation.substr(at, 2), nullptr, 16)));
      at += 2;
    }
  }
  return bytes;
}

// --- Request ---------------------------------------------------------------

std::string FakeService::Request::act() const {
  const TinyMsgPackObject* value = Lookup(message, "act");
  if (value == nullptr || value->type() != TinyMsgPackObject::String) return "";
  return std::string(value->stringValue(), value->size());
}

long long FakeService::Request::ord() const { return PositiveOrMinusOne(Lookup(message, "ord")); }

const TinyMsgPackObject& FakeService::Request::params() const {
  static const TinyMsgPackObject kNil;
  const TinyMsgPackObject* value = Lookup(message, "params");
  return value != nullptr ? *value : kNil;
}

long long FakeService::Request::param(const char* key) const { return PositiveOrMinusOne(Lookup(params(), key)); }

// --- Reply -----------------------------------------------------------------

FakeService::Reply::Reply(EAction action, std::vector<unsigned char> bytes)
    : m_action(action), m_bytes(std::move(bytes)), m_closeAfter(SIZE_MAX), m_stall(false), m_delay(0) {}

FakeService::Reply FakeService::Reply::Answer(const TinyMsgPackObject& response) {
  MemoryStream stream;
  TinyMsgPackWriter writer(&stream);
  writer.WriteObject(response);
  return Reply(EAction::kSend, stream.bytes());
}

FakeService::Reply FakeService::Reply::Result(std::initializer_list<Field> fields) {
  return Answer(Map({{"result", Map(fields)}}));
}

FakeService::Reply FakeService::Reply::Error(const char* message) { return Answer(Map({{"error", message}})); }

FakeService::Reply FakeService::Reply::Raw(std::vector<unsigned char> bytes) {
  return Reply(EAction::kSend, std::move(bytes));
}

FakeService::Reply FakeService::Reply::Close() { return Reply(EAction::kClose, {}); }

FakeService::Reply FakeService::Reply::Never() { return Reply(EAction::kNever, {}); }

FakeService::Reply FakeService::Reply::CloseAfter(size_t bytes) const {
  Reply reply = *this;
  reply.m_closeAfter = bytes;
  return reply;
}

FakeService::Reply FakeService::Reply::StallAfter(size_t bytes) const {
  Reply reply = *this;
  reply.m_closeAfter = bytes;
  reply.m_stall = true;
  return reply;
}

FakeService::Reply FakeService::Reply::Delay(std::chrono::milliseconds delay) const {
  Reply reply = *this;
  reply.m_delay = delay;
  return reply;
}

// --- FakeService -----------------------------------------------------------

FakeService::FakeService()
    : m_versionHandler([](const Request&) { return Reply::Result({{"ver", 0}}); }) {}

FakeService::~FakeService() { Stop(); }

bool FakeService::Start() {
  std::lock_guard<std::mutex> lifecycle(m_lifecycle);
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_running) return true;
  }
  if (!m_server.Create(kServiceName)) return false;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = false;
    m_running = true;
  }
  m_acceptThread = std::thread(&FakeService::AcceptLoop, this);
  return true;
}

void FakeService::Stop() {
  std::lock_guard<std::mutex> lifecycle(m_lifecycle);
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_running) return;
    m_stopping = true;
    m_changed.notify_all();  // delays, Never replies and waiting handlers end
  }
  // Destroy wakes the waiting Accept at once; once the accept thread has
  // ended no connection is added any more.
  m_server.Destroy();
  if (m_acceptThread.joinable()) m_acceptThread.join();
  // Shutting a socket down wakes a thread blocked in receiving or sending on
  // it; the client sees the stream end.
  for (const auto& connection : m_connections) {
    if (connection->wakeFd != -1) shutdown(connection->wakeFd, SHUT_RDWR);
  }
  for (const auto& connection : m_connections) {
    if (connection->thread.joinable()) connection->thread.join();
    if (connection->wakeFd != -1) close(connection->wakeFd);
    connection->wakeFd = -1;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  m_running = false;
}

void FakeService::Enqueue(Reply reply) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_queue.push_back(std::move(reply));
}

void FakeService::SetHandler(Handler handler) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_handler = std::move(handler);
}

void FakeService::SetVersionHandler(Handler handler) {
  std::lock_guard<std::mutex> lock(m_mutex);
  m_versionHandler = std::move(handler);
}

std::vector<FakeService::Request> FakeService::Requests() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_requests;
}

size_t FakeService::RequestCount() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_requests.size();
}

size_t FakeService::ConnectionCount() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_connections.size();
}

bool FakeService::WaitForRequests(size_t count, std::chrono::milliseconds limit) const {
  return WaitUntil([&] { return m_requests.size() >= count; }, limit);
}

bool FakeService::WaitForOpenConnections(size_t count, std::chrono::milliseconds limit) const {
  return WaitUntil(
      [&] {
        return static_cast<size_t>(std::count_if(m_connections.begin(), m_connections.end(),
                                                 [](const std::unique_ptr<Connection>& c) { return c->open; })) ==
               count;
      },
      limit);
}

bool FakeService::WaitUntil(const std::function<bool()>& predicate, std::chrono::milliseconds limit) const {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_changed.wait_for(lock, limit, [&] { return predicate() || m_stopping; });
  return predicate();
}

void FakeService::AcceptLoop() {
  for (;;) {
    LocalSocket socket;
    try {
      socket = m_server.Accept();
    } catch (const std::exception& error) {
      // "socket closed" is how Stop ends the loop; anything else is a fault.
      std::lock_guard<std::mutex> lock(m_mutex);
      if (!m_stopping) ADD_FAILURE() << "FakeService: Accept failed: " << error.what();
      return;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_stopping) return;  // the connection closes with `socket`
    auto connection = std::make_unique<Connection>();
    connection->index = m_connections.size();
    connection->wakeFd = fcntl(socket.fd(), F_DUPFD_CLOEXEC, 0);
    if (connection->wakeFd == -1) {
      // Without a way to wake its thread Stop could hang: refuse it.
      ADD_FAILURE() << "FakeService: cannot duplicate a connection: " << std::strerror(errno);
      continue;
    }
    Connection* served = connection.get();
    m_connections.push_back(std::move(connection));
    served->thread = std::thread(&FakeService::Serve, this, served, std::move(socket));
    m_changed.notify_all();
  }
}

void FakeService::Serve(Connection* connection, LocalSocket socket) {
  for (;;) {
    Request request;
    if (!ReadRequest(socket, connection->index, request)) break;
    if (!Deliver(socket, Choose(request))) break;
  }
  socket.Disconnect();
  std::lock_guard<std::mutex> lock(m_mutex);
  connection->open = false;
  m_changed.notify_all();
}

bool FakeService::ReadRequest(LocalSocket& socket, size_t connection, Request& request) {
  RecordingStream stream(&socket);
  TinyMsgPackReader reader(&stream);
  request.connection = connection;
  try {
    request.message = reader.ReadObject();
    request.complete = true;
  } catch (...) {
    request.complete = false;
  }
  request.bytes = stream.TakeBytes();
  if (request.complete) return true;
  // The stream ended between requests (nothing read), or a request did not
  // decode: record what arrived, since a test may look for it; the
  // connection is out of step and ends.
  if (!request.bytes.empty()) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.push_back(request);
    m_changed.notify_all();
  }
  return false;
}

FakeService::Reply FakeService::Choose(const Request& request) {
  Handler handler;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.push_back(request);
    m_changed.notify_all();
    if (m_versionHandler && request.act() == "verCheck") {
      handler = m_versionHandler;
    } else if (!m_queue.empty()) {
      Reply reply = std::move(m_queue.front());
      m_queue.pop_front();
      return reply;
    } else if (m_handler) {
      handler = m_handler;
    } else {
      return Reply::Error(kUnscripted);
    }
  }
  // Outside the lock: a handler may wait for another connection's request.
  try {
    return handler(request);
  } catch (const std::exception& error) {
    ADD_FAILURE() << "FakeService: handler threw: " << error.what();
  } catch (...) {
    ADD_FAILURE() << "FakeService: handler threw";
  }
  return Reply::Close();
}

bool FakeService::Deliver(LocalSocket& socket, const Reply& reply) {
  auto stopping = [this] { return m_stopping; };
  if (reply.m_delay.count() > 0 && WaitUntil(stopping, reply.m_delay)) return false;
  if (reply.m_action == Reply::EAction::kNever) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, stopping);
    return false;
  }
  if (reply.m_action == Reply::EAction::kClose) return false;
  size_t size = std::min(reply.m_bytes.size(), reply.m_closeAfter);
  if (size > 0 && socket.Write(reply.m_bytes.data(), size) != size) return false;
  if (reply.m_stall) {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_changed.wait(lock, stopping);
    return false;
  }
  return reply.m_closeAfter == SIZE_MAX;
}
