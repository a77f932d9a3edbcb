// Helpers shared by the msgpack tests: hex bytes, a recording stream, a
// canonical text for values, and exception capture.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "msgpack/Stream.h"
#include "msgpack/TinyMsgPackObject.h"

namespace msgpacktest {

using Bytes = std::vector<unsigned char>;

// "cd 01-00" -> {0xcd, 0x01, 0x00}; spaces and dashes are ignored.
Bytes Hex(const std::string& text);
// Lower-case hex without separators.
std::string ToHex(const void* data, size_t size);
inline std::string ToHex(const Bytes& bytes) { return ToHex(bytes.data(), bytes.size()); }

// Reads from `input`, logging the size of every Read call, and logs every
// Write call as the hex of its bytes ("" for an empty one).
class RecordingStream : public Stream {
 public:
  explicit RecordingStream(Bytes input = {}) : m_input(std::move(input)) {}
  size_t Read(void* data, size_t size) override;
  size_t Write(const void* data, size_t size) override;
  size_t remaining() const { return m_input.size() - m_pos; }

  std::vector<size_t> reads;
  std::vector<std::string> writes;
  size_t writeResult = SIZE_MAX;  // what Write returns; SIZE_MAX: the size given

 private:
  Bytes m_input;
  size_t m_pos = 0;
};

// Canonical text of a value: nil, true, false, +N (PosInteger), -N or
// neg:N (NegInteger), f:%.17g, s:HEX, b:HEX, [a,b], {s:HEX:value,...}.
std::string Render(const TinyMsgPackObject& value);

// Bytes that WriteObject produces for `value`, as hex.
std::string Encode(const TinyMsgPackObject& value);
// ReadObject over the bytes of `hex`; the whole input must be consumed.
TinyMsgPackObject Decode(const std::string& hex);

// "runtime_error: MESSAGE", "out_of_range: MESSAGE", "bad_alloc", "other: ..."
// or "no exception"; runtime_error means exactly std::runtime_error.
template <class F>
std::string Thrown(F&& f);

}  // namespace msgpacktest

#include <new>
#include <stdexcept>
#include <typeinfo>

template <class F>
std::string msgpacktest::Thrown(F&& f) {
  try {
    f();
  } catch (const std::out_of_range& e) {
    return std::string("out_of_range: ") + e.what();
  } catch (const std::runtime_error& e) {
    if (typeid(e) != typeid(std::runtime_error)) return std::string("other: ") + e.what();
    return std::string("runtime_error: ") + e.what();
  } catch (const std::bad_alloc&) {
    return "bad_alloc";
  } catch (const std::exception& e) {
    return std::string("other: ") + e.what();
  }
  return "no exception";
}
