#include "tests/msgpack/TestUtil.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "msgpack/MemoryStream.h"
#include "msgpack/TinyMsgPackReader.h"
#include "msgpack/TinyMsgPackWriter.h"

namespace msgpacktest {

Bytes Hex(const std::string& text) {
  Bytes bytes;
  std::string digits;
  for (char c : text)
    if (c != ' ' && c != '-') digits += c;
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    bytes.push_back(static_cast<unsigned char>(std::stoul(digits.substr(i, 2), nullptr, 16)));
  return bytes;
}

std::string ToHex(const void* data, size_t size) {
  static const char digits[] = "0123456789abcdef";
  const unsigned char* p = static_cast<const unsigned char*>(data);
  std::string text;
  for (size_t i = 0; i < size; ++i) {
    text += digits[p[i] >> 4];
    text += digits[p[i] & 15];
  }
  return text;
}

size_t RecordingStream::Read(void* data, size_t size) {
  reads.push_back(size);
  const size_t n = std::min(size, remaining());
  if (n) std::memcpy(data, m_input.data() + m_pos, n);
  m_pos += n;
  return n;
}

size_t RecordingStream::Write(const void* data, size_t size) {
  writes.push_back(ToHex(data, size));
  return writeResult == SIZE_MAX ? size : writeResult;
}

std::string Render(const TinyMsgPackObject& value) {
  char text[64];
  switch (value.type()) {
    case TinyMsgPackObject::Nil:
      return "nil";
    case TinyMsgPackObject::Bool:
      return value.boolValue() ? "true" : "false";
    case TinyMsgPackObject::PosInteger:
      std::snprintf(text, sizeof text, "+%" PRIu64, value.posIntegerValue());
      return text;
    case TinyMsgPackObject::NegInteger:
      std::snprintf(text, sizeof text, value.negIntegerValue() < 0 ? "%" PRId64 : "neg:%" PRId64,
                    value.negIntegerValue());
      return text;
    case TinyMsgPackObject::Float:
      std::snprintf(text, sizeof text, "f:%.17g", value.floatValue());
      return text;
    case TinyMsgPackObject::String:
      return "s:" + ToHex(value.stringValue(), value.size());
    case TinyMsgPackObject::Blob:
      return "b:" + ToHex(value.blobData(), value.size());
    case TinyMsgPackObject::Array: {
      std::string out = "[";
      for (uint32_t i = 0; i < value.size(); ++i) out += (i ? "," : "") + Render(value.at(i));
      return out + "]";
    }
    case TinyMsgPackObject::Map: {
      std::string out = "{";
      for (uint32_t i = 0; i < value.size(); ++i)
        out += (i ? ",s:" : "s:") + ToHex(value.keyAt(i), std::strlen(value.keyAt(i))) + ":" + Render(value.valueAt(i));
      return out + "}";
    }
  }
  return "?";
}

std::string Encode(const TinyMsgPackObject& value) {
  MemoryStream stream;
  TinyMsgPackWriter(&stream).WriteObject(value);
  return ToHex(stream.bytes());
}

TinyMsgPackObject Decode(const std::string& hex) {
  const Bytes bytes = Hex(hex);
  MemoryStream stream(bytes.data(), bytes.size());
  TinyMsgPackObject value = TinyMsgPackReader(&stream).ReadObject();
  if (stream.remaining()) throw std::logic_error("Decode left bytes behind: " + hex);
  return value;
}

}  // namespace msgpacktest
