// ServiceClient: the test side of the movie protocol, spoken directly with
// the codec over a LocalSocket (no plug-in code involved): requests are
// encoded into bytes and sent in one write, answers read back as trees.
//
// Receiving gives up after kReceiveTimeoutSeconds, so a service that never
// answers fails the test instead of hanging it. One thread at a time per
// client.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "ipc/LocalSocket.h"
#include "msgpack/TinyMsgPackObject.h"
#include "msgpack/TinyMsgPackReader.h"
#include "msgpack/TinyMsgPackWriter.h"

namespace tooltest {

using Bytes = std::vector<unsigned char>;

// Whatever `write` writes, as bytes.
Bytes Encode(const std::function<void(TinyMsgPackWriter&)>& write);
// {"act": "exec", "ord": ordinal}
Bytes Exec(uint64_t ordinal);
// {"act": "exec", "ord": ordinal, "params": {key: number, ...}}
Bytes Exec(uint64_t ordinal, std::initializer_list<std::pair<const char*, uint64_t>> params);

// The "error" text of an answer; empty when it has none.
std::string ErrorText(const TinyMsgPackObject& answer);

class ServiceClient {
 public:
  static constexpr int kReceiveTimeoutSeconds = 30;

  ServiceClient() : m_reader(&m_socket) {}
  ServiceClient(const ServiceClient&) = delete;
  ServiceClient& operator=(const ServiceClient&) = delete;

  // Connects to /tmp/zebtrksvc. True when connected.
  bool Connect();
  void Disconnect() { m_socket.Disconnect(); }
  // Sends the bytes in one write; true when all went out.
  bool Send(const Bytes& request);
  // Reads one answer; throws std::runtime_error when none arrives.
  TinyMsgPackObject Receive();
  TinyMsgPackObject Call(const Bytes& request);
  // "result" of an answer to `request`; throws (failing the test) when the
  // answer is an error.
  TinyMsgPackObject Result(const Bytes& request);
  // The error text of the answer to `request` (empty when it succeeded).
  std::string Error(const Bytes& request);
  // True when the service has closed this connection (waits for it).
  bool ClosedByService();

 private:
  LocalSocket m_socket;
  TinyMsgPackReader m_reader;
};

}  // namespace tooltest
