#include "msgpack/TinyMsgPackWriter.h"

#include <cstring>
#include <stdexcept>

#include "msgpack/TinyMsgPackObject.h"

namespace {

// Stores the low `width` bytes of `value` big-endian (most significant first).
void StoreBigEndian(unsigned char* out, uint64_t value, size_t width) {
  for (size_t i = 0; i < width; ++i) out[i] = static_cast<unsigned char>(value >> (8 * (width - 1 - i)));
}

}  // namespace

void TinyMsgPackWriter::WriteHeader(const unsigned char* header, size_t size) { m_stream->Write(header, size); }

void TinyMsgPackWriter::WritePayload(const void* data, size_t size) { m_stream->Write(data, size); }

void TinyMsgPackWriter::WriteBytes(const unsigned char* data, size_t size) { m_stream->Write(data, size); }

void TinyMsgPackWriter::WriteNil() {
  const unsigned char header = 0xc0;
  WriteHeader(&header, 1);
}

void TinyMsgPackWriter::WriteBool(bool value) {
  const unsigned char header = value ? 0xc3 : 0xc2;
  WriteHeader(&header, 1);
}

void TinyMsgPackWriter::WritePosInteger(uint64_t value) {
  unsigned char header[9];
  if (value <= 0x7f) {
    header[0] = static_cast<unsigned char>(value);
    WriteHeader(header, 1);
    return;
  }
  size_t width = 8;
  header[0] = 0xcf;
  if (value <= 0xff) {
    width = 1;
    header[0] = 0xcc;
  } else if (value <= 0xffff) {
    width = 2;
    header[0] = 0xcd;
  } else if (value <= 0xffffffff) {
    width = 4;
    header[0] = 0xce;
  }
  StoreBigEndian(header + 1, value, width);
  WriteHeader(header, 1 + width);
}

void TinyMsgPackWriter::WriteNegInteger(int64_t value) {
  if (value >= 0) {
    WritePosInteger(static_cast<uint64_t>(value));
    return;
  }
  unsigned char header[9];
  const uint64_t bits = static_cast<uint64_t>(value);  // two's complement
  if (value >= -32) {
    header[0] = static_cast<unsigned char>(bits);
    WriteHeader(header, 1);
    return;
  }
  size_t width = 8;
  header[0] = 0xd3;
  if (value >= INT8_MIN) {
    width = 1;
    header[0] = 0xd0;
  } else if (value >= INT16_MIN) {
    width = 2;
    header[0] = 0xd1;
  } else if (value >= INT32_MIN) {
    width = 4;
    header[0] = 0xd2;
  }
  StoreBigEndian(header + 1, bits, width);
  WriteHeader(header, 1 + width);
}

void TinyMsgPackWriter::WriteFloat(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  unsigned char header[5] = {0xca};
  StoreBigEndian(header + 1, bits, 4);
  WriteHeader(header, 5);
}

void TinyMsgPackWriter::WriteDouble(double value) {
  uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  unsigned char header[9] = {0xcb};
  StoreBigEndian(header + 1, bits, 8);
  WriteHeader(header, 9);
}

void TinyMsgPackWriter::WriteLengthHeader(uint64_t length, unsigned char small, unsigned char medium,
                                          unsigned char large) {
  unsigned char header[5];
  size_t width = 4;
  header[0] = large;
  if (length <= 0xff && small) {
    width = 1;
    header[0] = small;
  } else if (length <= 0xffff) {
    width = 2;
    header[0] = medium;
  }
  StoreBigEndian(header + 1, length, width);  // DB: the low 32 bits of a longer text
  WriteHeader(header, 1 + width);
}

// Strings use every form: fixstr, then D9 (str 8), DA, DB.
void TinyMsgPackWriter::WriteString(const char* text, size_t length) {
  if (length == static_cast<size_t>(-1)) length = text ? std::strlen(text) : 0;
  if (length <= 31) {
    const unsigned char header = static_cast<unsigned char>(0xa0 | length);
    WriteHeader(&header, 1);
  } else {
    WriteLengthHeader(length, 0xd9, 0xda, 0xdb);
  }
  WritePayload(text, length);
}

void TinyMsgPackWriter::WriteString(const std::string& text) { WriteString(text.data(), text.size()); }

void TinyMsgPackWriter::WriteBlob(const void* data, uint32_t size) {
  WriteLengthHeader(size, 0xc4, 0xc5, 0xc6);
  WritePayload(data, size);
}

void TinyMsgPackWriter::WriteExt(int8_t type, const void* data, uint32_t size) {
  unsigned char header[6];
  size_t used;
  switch (size) {
    case 1:
      header[0] = 0xd4;
      used = 1;
      break;
    case 2:
      header[0] = 0xd5;
      used = 1;
      break;
    case 4:
      header[0] = 0xd6;
      used = 1;
      break;
    case 8:
      header[0] = 0xd7;
      used = 1;
      break;
    case 16:
      header[0] = 0xd8;
      used = 1;
      break;
    default:
      if (size <= 0xff) {
        header[0] = 0xc7;
        used = 2;
      } else if (size <= 0xffff) {
        header[0] = 0xc8;
        used = 3;
      } else {
        header[0] = 0xc9;
        used = 5;
      }
      StoreBigEndian(header + 1, size, used - 1);
      break;
  }
  header[used] = static_cast<unsigned char>(type);
  WriteHeader(header, used + 1);
  WritePayload(data, size);
}

void TinyMsgPackWriter::StartArray(uint32_t count) {
  if (count <= 15) {
    const unsigned char header = static_cast<unsigned char>(0x90 | count);
    WriteHeader(&header, 1);
    return;
  }
  WriteLengthHeader(count, 0, 0xdc, 0xdd);
}

void TinyMsgPackWriter::StartMap(uint32_t count) {
  if (count <= 15) {
    const unsigned char header = static_cast<unsigned char>(0x80 | count);
    WriteHeader(&header, 1);
    return;
  }
  WriteLengthHeader(count, 0, 0xde, 0xdf);
}

// Floats always go out as float 64; strings with their stored length (zero
// bytes included); map keys by strlen, as they are zero-terminated.
void TinyMsgPackWriter::WriteObject(const TinyMsgPackObject& value) {
  switch (value.type()) {
    case TinyMsgPackObject::Nil:
      WriteNil();
      return;
    case TinyMsgPackObject::NegInteger:
      WriteNegInteger(value.negIntegerValue());
      return;
    case TinyMsgPackObject::PosInteger:
      WritePosInteger(value.posIntegerValue());
      return;
    case TinyMsgPackObject::String:
      WriteString(value.stringValue(), value.size());
      return;
    case TinyMsgPackObject::Bool:
      WriteBool(value.boolValue());
      return;
    case TinyMsgPackObject::Float:
      WriteDouble(value.floatValue());
      return;
    case TinyMsgPackObject::Blob:
      WriteBlob(value.blobData(), value.size());
      return;
    case TinyMsgPackObject::Map:
      StartMap(value.size());
      for (uint32_t i = 0; i < value.size(); ++i) {
        WriteString(value.keyAt(i), static_cast<size_t>(-1));
        WriteObject(value.valueAt(i));
      }
      return;
    case TinyMsgPackObject::Array:
      StartArray(value.size());
      for (uint32_t i = 0; i < value.size(); ++i) WriteObject(value.at(i));
      return;
  }
  throw std::runtime_error("unrecognized object type.");
}
