#include "msgpack/TinyMsgPackReader.h"

#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace {

const char kFailedToRead[] = "Failed to read.";

[[noreturn]] void Fail(const char* message) { throw std::runtime_error(message); }

// The big-endian argument of sizeof(T) bytes at `bytes`: one load and one
// byte swap where a loop over the bytes would cost one step each. The library
// runs on x86-64 only.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the argument decoding assumes a little-endian host");
template <class T>
uint64_t LoadBigEndian(const unsigned char* bytes) {
  T raw;
  std::memcpy(&raw, bytes, sizeof raw);
  if (sizeof raw == 2) return __builtin_bswap16(static_cast<uint16_t>(raw));
  if (sizeof raw == 4) return __builtin_bswap32(static_cast<uint32_t>(raw));
  return __builtin_bswap64(static_cast<uint64_t>(raw));
}

}  // namespace

TinyMsgPackReader::TinyMsgPackReader(Stream* stream)
    : m_stream(stream),
      m_count(0),
      m_negInteger(0),
      m_posInteger(0),
      m_bool(false),
      m_float(0),
      m_buffer(),
      m_type(TinyMsgPackObject::Nil) {}

bool TinyMsgPackReader::ReadArgument(size_t width, uint64_t& value) {
  if (!ReadBytes(m_buffer + 1, width)) return false;
  switch (width) {
    case 1:
      value = m_buffer[1];
      break;
    case 2:
      value = LoadBigEndian<uint16_t>(m_buffer + 1);
      break;
    case 4:
      value = LoadBigEndian<uint32_t>(m_buffer + 1);
      break;
    default:
      value = LoadBigEndian<uint64_t>(m_buffer + 1);
      break;
  }
  return true;
}

// Unsigned forms are zero-extended and always PosInteger, also above INT64_MAX.
bool TinyMsgPackReader::ReadUnsigned(size_t width) {
  uint64_t value;
  if (!ReadArgument(width, value)) return false;
  m_posInteger = value;
  m_negInteger = static_cast<int64_t>(value);
  m_type = TinyMsgPackObject::PosInteger;
  return true;
}

// Signed forms are sign-extended; a value of zero or more is PosInteger.
bool TinyMsgPackReader::ReadSigned(size_t width) {
  uint64_t raw;
  if (!ReadArgument(width, raw)) return false;
  int64_t value;
  switch (width) {
    case 1:
      value = static_cast<int8_t>(raw);
      break;
    case 2:
      value = static_cast<int16_t>(raw);
      break;
    case 4:
      value = static_cast<int32_t>(raw);
      break;
    default:
      value = static_cast<int64_t>(raw);
      break;
  }
  m_negInteger = value;
  m_posInteger = static_cast<uint64_t>(value);
  m_type = value < 0 ? TinyMsgPackObject::NegInteger : TinyMsgPackObject::PosInteger;
  return true;
}

bool TinyMsgPackReader::ReadFloatItem(size_t width) {
  uint64_t bits;
  if (!ReadArgument(width, bits)) return false;
  if (width == 4) {
    const uint32_t bits32 = static_cast<uint32_t>(bits);
    float single;
    std::memcpy(&single, &bits32, sizeof single);
    m_float = single;
  } else {
    std::memcpy(&m_float, &bits, sizeof m_float);
  }
  m_type = TinyMsgPackObject::Float;
  return true;
}

// Map, Array or Blob header with a `width`-byte count; a blob's payload stays
// in the stream.
bool TinyMsgPackReader::ReadContainer(EType type, size_t width) {
  uint64_t count;
  if (!ReadArgument(width, count)) return false;
  m_count = static_cast<uint32_t>(count);
  m_type = type;
  return true;
}

// The length comes from the type byte (`lengthWidth` 0) or from a 1-, 2- or
// 4-byte argument; the text is read in one call straight into m_string.
bool TinyMsgPackReader::ReadStringItem(size_t lengthWidth, uint32_t length) {
  if (lengthWidth) {
    uint64_t announced;
    if (!ReadArgument(lengthWidth, announced)) return false;
    length = static_cast<uint32_t>(announced);
  }
  // The text's storage is reused from item to item, but not kept for long
  // texts: a reader lives as long as its connection, and one long text, or
  // one only announced by a length that the stream never delivers, must not
  // hold its memory for that long. A failed read gives it back at once; a
  // long text that arrived gives it back at the next shorter one (every
  // answer's first key).
  if (length <= kKeptTextCapacity && m_string.capacity() > kKeptTextCapacity) std::string().swap(m_string);
  m_string.resize(length);
  if (length && !ReadBytes(reinterpret_cast<unsigned char*>(&m_string[0]), length)) {
    std::string().swap(m_string);
    return false;
  }
  m_type = TinyMsgPackObject::String;
  return true;
}

bool TinyMsgPackReader::Read() {
  if (!ReadBytes(m_buffer, 1)) return false;
  const unsigned char byte = m_buffer[0];
  if (byte <= 0x7f) {
    m_posInteger = byte;
    m_negInteger = byte;
    m_type = TinyMsgPackObject::PosInteger;
    return true;
  }
  if (byte >= 0xe0) {
    m_negInteger = static_cast<int8_t>(byte);
    m_posInteger = static_cast<uint64_t>(m_negInteger);
    m_type = TinyMsgPackObject::NegInteger;
    return true;
  }
  if (byte <= 0x9f) {
    m_count = byte & 0x0f;
    m_type = byte <= 0x8f ? TinyMsgPackObject::Map : TinyMsgPackObject::Array;
    return true;
  }
  if (byte <= 0xbf) return ReadStringItem(0, byte & 0x1f);
  switch (byte) {
    case 0xc0:
      m_type = TinyMsgPackObject::Nil;
      return true;
    case 0xc2:
    case 0xc3:
      m_bool = byte == 0xc3;
      m_type = TinyMsgPackObject::Bool;
      return true;
    case 0xc4:
      return ReadContainer(TinyMsgPackObject::Blob, 1);
    case 0xc5:
      return ReadContainer(TinyMsgPackObject::Blob, 2);
    case 0xc6:
      return ReadContainer(TinyMsgPackObject::Blob, 4);
    case 0xca:
      return ReadFloatItem(4);
    case 0xcb:
      return ReadFloatItem(8);
    case 0xcc:
    case 0xcd:
    case 0xce:
    case 0xcf:
      return ReadUnsigned(size_t(1) << (byte - 0xcc));
    case 0xd0:
    case 0xd1:
    case 0xd2:
    case 0xd3:
      return ReadSigned(size_t(1) << (byte - 0xd0));
    case 0xd9:
    case 0xda:
    case 0xdb:
      return ReadStringItem(size_t(1) << (byte - 0xd9), 0);
    case 0xdc:
      return ReadContainer(TinyMsgPackObject::Array, 2);
    case 0xdd:
      return ReadContainer(TinyMsgPackObject::Array, 4);
    case 0xde:
      return ReadContainer(TinyMsgPackObject::Map, 2);
    case 0xdf:
      return ReadContainer(TinyMsgPackObject::Map, 4);
    default:
      return false;  // C1 and the ext family C7-C9, D4-D8
  }
}

void TinyMsgPackReader::ReadBlobData(void* data, uint32_t size) {
  if (m_type != TinyMsgPackObject::Blob) Fail("Not a blob.");
  if (size != m_count) Fail("Must read entire blob.");
  if (!ReadBytes(static_cast<unsigned char*>(data), size)) Fail(kFailedToRead);
}

// Typed reads ------------------------------------------------------------------

void TinyMsgPackReader::ReadExpecting(EType type, const char* message) {
  if (!Read()) Fail(kFailedToRead);
  if (m_type != type) Fail(message);
}

bool TinyMsgPackReader::ReadBool() {
  ReadExpecting(TinyMsgPackObject::Bool, "Expected boolean.");
  return m_bool;
}

uint32_t TinyMsgPackReader::ReadMapCount() {
  ReadExpecting(TinyMsgPackObject::Map, "Expected map.");
  return m_count;
}

uint32_t TinyMsgPackReader::ReadArrayCount() {
  ReadExpecting(TinyMsgPackObject::Array, "Expected array.");
  return m_count;
}

uint64_t TinyMsgPackReader::ReadPosInteger() {
  ReadExpecting(TinyMsgPackObject::PosInteger, "Expected pos integer.");
  return m_posInteger;
}

int64_t TinyMsgPackReader::ReadNegInteger() {
  ReadExpecting(TinyMsgPackObject::NegInteger, "Expected neg integer.");
  return m_negInteger;
}

int64_t TinyMsgPackReader::ReadInteger() {
  if (!Read()) Fail(kFailedToRead);
  if (m_type == TinyMsgPackObject::NegInteger) return m_negInteger;
  if (m_type != TinyMsgPackObject::PosInteger) Fail("Expected integer.");
  if (m_negInteger < 0) Fail("Integer value out of range, expected int64_t.");
  return m_negInteger;
}

uint32_t TinyMsgPackReader::ReadBlobSize() {
  ReadExpecting(TinyMsgPackObject::Blob, "Expected blob.");
  return m_count;
}

std::string TinyMsgPackReader::ReadString() {
  ReadExpecting(TinyMsgPackObject::String, "Expected string.");
  return m_string;
}

// Whole values -----------------------------------------------------------------

// `depth` counts the containers open around the item about to be read; a
// container that would make it exceed kMaxDepth is refused before anything is
// allocated for it.
void TinyMsgPackReader::CheckDepth(uint32_t depth) {
  if (depth >= kMaxDepth) Fail("Nesting too deep.");
}

TinyMsgPackObject TinyMsgPackReader::ReadObject() {
  TinyMsgPackObject value;
  ReadObjectInto(value, 0);
  return value;
}

// The tree is built in place: every value is decoded straight into the slot
// that keeps it, and a container's slots are those of the block that
// CreateArray or CreateMap allocated at the announced count, counted in m_size
// as each one is complete. A partly built container is thus always a whole
// value (slots beyond m_size are Nil or a partly built value that frees like
// any other), and its owner frees it when the exception passes.
void TinyMsgPackReader::ReadObjectInto(TinyMsgPackObject& slot, uint32_t depth) {
  if (!Read()) Fail(kFailedToRead);
  switch (m_type) {
    case TinyMsgPackObject::Nil:
      return;
    case TinyMsgPackObject::NegInteger:
      slot.m_value.negInteger = m_negInteger;
      break;
    case TinyMsgPackObject::PosInteger:
      slot.m_value.posInteger = m_posInteger;
      break;
    case TinyMsgPackObject::Bool:
      slot.m_value.boolean = m_bool;
      break;
    case TinyMsgPackObject::Float:
      slot.m_value.real = m_float;
      break;
    case TinyMsgPackObject::String: {
      // A text of exactly UINT32_MAX bytes would be measured with strlen (the
      // marker of CreateString); the format cannot announce a longer one.
      TinyMsgPackObject text =
          TinyMsgPackObject::CreateString(m_string.data(), static_cast<uint32_t>(m_string.size()));
      slot.TakeFrom(text);
      return;
    }
    case TinyMsgPackObject::Blob: {
      const uint32_t size = m_count;
      std::unique_ptr<unsigned char[]> data(new unsigned char[size]);
      ReadBlobData(data.get(), size);
      TinyMsgPackObject blob = TinyMsgPackObject::CreateBlobNoCopy(data.release(), size);
      slot.TakeFrom(blob);
      return;
    }
    case TinyMsgPackObject::Map:
      ReadMapInto(slot, depth);
      return;
    case TinyMsgPackObject::Array:
      ReadArrayInto(slot, depth);
      return;
    default:
      Fail("Unrecognized object type.");
  }
  slot.m_type = m_type;
}

// Each key is copied once, from m_string into the entry's own array, and cut
// at its first zero byte as insert cuts it. The key is set only once the value
// is complete: a slot at m_size has no key to free.
void TinyMsgPackReader::ReadMapInto(TinyMsgPackObject& slot, uint32_t depth) {
  CheckDepth(depth);
  const uint32_t n = m_count;
  TinyMsgPackObject map = TinyMsgPackObject::CreateMap(n);
  slot.TakeFrom(map);
  for (uint32_t i = 0; i < n; ++i) {
    if (!Read()) Fail(kFailedToRead);
    if (m_type != TinyMsgPackObject::String) Fail("Expected string.");
    const size_t keyLength = std::strlen(m_string.c_str());
    std::unique_ptr<char[]> key(new char[keyLength + 1]);
    std::memcpy(key.get(), m_string.c_str(), keyLength + 1);
    TinyMsgPackObject::SMapEntry& entry = slot.m_value.map[i];
    ReadObjectInto(entry.value, depth + 1);
    entry.key = key.release();
    slot.m_size = i + 1;
  }
}

void TinyMsgPackReader::ReadArrayInto(TinyMsgPackObject& slot, uint32_t depth) {
  CheckDepth(depth);
  const uint32_t n = m_count;
  TinyMsgPackObject array = TinyMsgPackObject::CreateArray(n);
  slot.TakeFrom(array);
  for (uint32_t i = 0; i < n; ++i) {
    ReadObjectInto(slot.m_value.array[i], depth + 1);
    slot.m_size = i + 1;
  }
}

void TinyMsgPackReader::Skip() { SkipAt(0); }

void TinyMsgPackReader::SkipAt(uint32_t depth) {
  if (!Read()) Fail(kFailedToRead);
  switch (m_type) {
    case TinyMsgPackObject::Blob: {
      std::unique_ptr<unsigned char[]> payload(new unsigned char[m_count]);
      if (!ReadBytes(payload.get(), m_count)) Fail(kFailedToRead);
      return;
    }
    case TinyMsgPackObject::Map: {
      CheckDepth(depth);
      const uint32_t n = m_count;
      for (uint32_t i = 0; i < n; ++i) {
        SkipAt(depth + 1);
        SkipAt(depth + 1);
      }
      return;
    }
    case TinyMsgPackObject::Array: {
      CheckDepth(depth);
      const uint32_t n = m_count;
      for (uint32_t i = 0; i < n; ++i) SkipAt(depth + 1);
      return;
    }
    default:
      return;  // strings are consumed whole by Read()
  }
}

void TinyMsgPackReader::SkipToMapField(uint32_t& remaining, const char* name) {
  if (remaining == 0) Fail("Map field not found.");
  if (!name) name = "";
  const size_t nameLength = std::strlen(name);
  for (;;) {
    ReadExpecting(TinyMsgPackObject::String, "Expected string.");
    if (m_string.size() == nameLength && std::memcmp(m_string.data(), name, nameLength) == 0) {
      --remaining;
      return;
    }
    Skip();
    if (--remaining == 0) Fail("Map field not found.");
  }
}
