#include "tests/tools/ServiceClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <stdexcept>

#include "msgpack/MemoryStream.h"

namespace tooltest {

Bytes Encode(const std::function<void(TinyMsgPackWriter&)>& write) {
  MemoryStream stream;
  TinyMsgPackWriter writer(&stream);
  write(writer);
  return stream.bytes();
}

Bytes Exec(uint64_t ordinal) {
  return Encode([&](TinyMsgPackWriter& w) {
    w.StartMap(2);
    w.WriteString("act");
    w.WriteString("exec");
    w.WriteString("ord");
    w.WritePosInteger(ordinal);
  });
}

Bytes Exec(uint64_t ordinal, std::initializer_list<std::pair<const char*, uint64_t>> params) {
  return Encode([&](TinyMsgPackWriter& w) {
    w.StartMap(3);
    w.WriteString("act");
    w.WriteString("exec");
    w.WriteString("ord");
    w.WritePosInteger(ordinal);
    w.WriteString("params");
    w.StartMap(static_cast<uint32_t>(params.size()));
    for (const auto& param : params) {
      w.WriteString(param.first, static_cast<size_t>(-1));
      w.WritePosInteger(param.second);
    }
  });
}

std::string ErrorText(const TinyMsgPackObject& answer) {
  if (!answer.hasKey("error")) return std::string();
  const TinyMsgPackObject& error = answer.valueForKey("error");
  return error.type() == TinyMsgPackObject::String ? error.stringValue() : "(error that is not a string)";
}

bool ServiceClient::Connect() {
  if (!m_socket.Connect("zebtrksvc")) return false;
  timeval timeout = {kReceiveTimeoutSeconds, 0};
  setsockopt(m_socket.fd(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  return true;
}

bool ServiceClient::Send(const Bytes& request) {
  return m_socket.Write(request.data(), request.size()) == request.size();
}

TinyMsgPackObject ServiceClient::Receive() { return m_reader.ReadObject(); }

TinyMsgPackObject ServiceClient::Call(const Bytes& request) {
  if (!Send(request)) throw std::runtime_error("request not sent");
  return Receive();
}

TinyMsgPackObject ServiceClient::Result(const Bytes& request) {
  TinyMsgPackObject answer = Call(request);
  const std::string error = ErrorText(answer);
  if (!error.empty()) throw std::runtime_error("service answered an error: " + error);
  return answer.valueForKey("result");
}

std::string ServiceClient::Error(const Bytes& request) { return ErrorText(Call(request)); }

bool ServiceClient::ClosedByService() {
  pollfd watched = {m_socket.fd(), POLLIN, 0};
  if (poll(&watched, 1, kReceiveTimeoutSeconds * 1000) != 1) return false;
  char byte;
  return recv(m_socket.fd(), &byte, 1, MSG_PEEK) == 0;
}

}  // namespace tooltest
