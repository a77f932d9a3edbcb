#include "msgpack/TinyMsgPackObject.h"

#include <cstring>
#include <memory>
#include <stdexcept>
#include <utility>

namespace {

const char kNotAnArray[] = "Object is not an array.";
const char kNotAMap[] = "Object is not a map.";
const char kNotABlob[] = "Object type is not blob, but blob expected.";

// A zero-terminated copy of `key` in a new array; a null key is copied as "".
char* CopyKey(const char* key) {
  if (!key) key = "";
  const size_t length = std::strlen(key);
  char* copy = new char[length + 1];
  std::memcpy(copy, key, length + 1);
  return copy;
}

}  // namespace

TinyMsgPackObject::TinyMsgPackObject(const TinyMsgPackObject& other) : TinyMsgPackObject() { CopyFrom(other); }

// Copy first, release afterwards: a copy that fails part-way leaves the target
// with its previous value (and frees what was copied so far), and assigning a
// value that lives inside the target's own tree reads it before it is freed.
TinyMsgPackObject& TinyMsgPackObject::operator=(const TinyMsgPackObject& other) {
  if (this == &other) return *this;
  TinyMsgPackObject copy(other);
  Destroy();
  TakeFrom(copy);
  return *this;
}

TinyMsgPackObject::TinyMsgPackObject(TinyMsgPackObject&& other) noexcept : TinyMsgPackObject() { TakeFrom(other); }

// The source is taken out before the target is destroyed, so that a value may
// be moved up from inside the target's own tree.
TinyMsgPackObject& TinyMsgPackObject::operator=(TinyMsgPackObject&& other) noexcept {
  if (this == &other) return *this;
  TinyMsgPackObject taken(std::move(other));
  Destroy();
  TakeFrom(taken);
  return *this;
}

void TinyMsgPackObject::Destroy() noexcept {
  switch (m_type) {
    case String:
      delete[] m_value.string;
      break;
    case Blob:
      delete[] m_value.blob;
      break;
    case Array:
      delete[] m_value.array;  // every slot releases its own children
      break;
    case Map:
      for (uint32_t i = 0; i < m_size; ++i) delete[] m_value.map[i].key;
      delete[] m_value.map;
      break;
    default:
      break;
  }
  m_value.posInteger = 0;
  m_size = 0;
  m_capacity = 0;
  m_type = Nil;
}

// Strings carry all m_size bytes and the terminating zero, so that a text with
// zero bytes inside survives a copy whole. Containers get exactly m_size slots.
void TinyMsgPackObject::CopyFrom(const TinyMsgPackObject& other) {
  switch (other.m_type) {
    case String: {
      char* text = new char[size_t(other.m_size) + 1];
      std::memcpy(text, other.m_value.string, size_t(other.m_size) + 1);
      m_value.string = text;
      break;
    }
    case Blob: {
      unsigned char* bytes = new unsigned char[other.m_size];
      if (other.m_size) std::memcpy(bytes, other.m_value.blob, other.m_size);
      m_value.blob = bytes;
      break;
    }
    case Array: {
      const uint32_t n = other.m_size;
      std::unique_ptr<TinyMsgPackObject[]> block(n ? new TinyMsgPackObject[n] : nullptr);
      for (uint32_t i = 0; i < n; ++i) block[i].CopyFrom(other.m_value.array[i]);
      m_value.array = block.release();
      m_capacity = n;
      break;
    }
    case Map: {
      const uint32_t n = other.m_size;
      std::unique_ptr<SMapEntry[]> block(n ? new SMapEntry[n] : nullptr);
      try {
        for (uint32_t i = 0; i < n; ++i) {
          block[i].value.CopyFrom(other.m_value.map[i].value);
          block[i].key = CopyKey(other.m_value.map[i].key);
        }
      } catch (...) {
        for (uint32_t i = 0; i < n; ++i) delete[] block[i].key;
        throw;
      }
      m_value.map = block.release();
      m_capacity = n;
      break;
    }
    default:
      m_value = other.m_value;
      break;
  }
  m_size = other.m_size;
  m_type = other.m_type;
}

// Factories ------------------------------------------------------------------

// Every member is set, also those the type does not use.
TinyMsgPackObject TinyMsgPackObject::Make(EType type) {
  TinyMsgPackObject obj(nullptr);
  obj.m_type = type;
  obj.m_value.posInteger = 0;
  obj.m_size = 0;
  obj.m_capacity = 0;
  return obj;
}

TinyMsgPackObject TinyMsgPackObject::CreateNil() { return Make(Nil); }

TinyMsgPackObject TinyMsgPackObject::CreateBool(bool value) {
  TinyMsgPackObject obj = Make(Bool);
  obj.m_value.boolean = value;
  return obj;
}

TinyMsgPackObject TinyMsgPackObject::CreatePosInteger(uint64_t value) {
  TinyMsgPackObject obj = Make(PosInteger);
  obj.m_value.posInteger = value;
  return obj;
}

TinyMsgPackObject TinyMsgPackObject::CreateNegInteger(int64_t value) {
  TinyMsgPackObject obj = Make(NegInteger);
  obj.m_value.negInteger = value;
  return obj;
}

TinyMsgPackObject TinyMsgPackObject::CreateFloat(double value) {
  TinyMsgPackObject obj = Make(Float);
  obj.m_value.real = value;
  return obj;
}

// Texts of 4 GiB and more do not fit the 32-bit length; callers keep below.
TinyMsgPackObject TinyMsgPackObject::CreateString(const char* text, uint32_t length) {
  if (!text) {
    text = "";
    length = 0;
  } else if (length == UINT32_MAX) {
    length = static_cast<uint32_t>(std::strlen(text));
  }
  char* copy = new char[size_t(length) + 1];
  if (length) std::memcpy(copy, text, length);
  copy[length] = '\0';
  TinyMsgPackObject obj = Make(String);
  obj.m_value.string = copy;
  obj.m_size = length;
  return obj;
}

TinyMsgPackObject TinyMsgPackObject::CreateBlob(const unsigned char* data, uint32_t size) {
  unsigned char* copy = new unsigned char[size];
  if (size) std::memcpy(copy, data, size);
  return CreateBlobNoCopy(copy, size);
}

TinyMsgPackObject TinyMsgPackObject::CreateBlobNoCopy(unsigned char* data, uint32_t size) {
  TinyMsgPackObject obj = Make(Blob);
  obj.m_value.blob = data;
  obj.m_size = size;
  return obj;
}

TinyMsgPackObject TinyMsgPackObject::CreateArray(uint32_t capacity) {
  TinyMsgPackObject* block = capacity ? new TinyMsgPackObject[capacity] : nullptr;
  TinyMsgPackObject obj = Make(Array);
  obj.m_value.array = block;
  obj.m_capacity = capacity;
  return obj;
}

TinyMsgPackObject TinyMsgPackObject::CreateMap(uint32_t capacity) {
  SMapEntry* block = capacity ? new SMapEntry[capacity] : nullptr;
  TinyMsgPackObject obj = Make(Map);
  obj.m_value.map = block;
  obj.m_capacity = capacity;
  return obj;
}

// Accessors ------------------------------------------------------------------

void TinyMsgPackObject::Require(EType type, const char* message) const {
  if (m_type != type) throw std::runtime_error(message);
}

bool TinyMsgPackObject::boolValue() const {
  Require(Bool, "Object type is not bool, but bool expected.");
  return m_value.boolean;
}

uint64_t TinyMsgPackObject::posIntegerValue() const {
  Require(PosInteger, "Object type is not positive integer, but positive integer expected.");
  return m_value.posInteger;
}

int64_t TinyMsgPackObject::negIntegerValue() const {
  Require(NegInteger, "Object type is not negative integer, but negative integer expected.");
  return m_value.negInteger;
}

int64_t TinyMsgPackObject::integerValue() const {
  if (m_type == NegInteger) return m_value.negInteger;
  if (m_type != PosInteger) throw std::runtime_error("Object type is not an integer, but an integer was expected.");
  if (m_value.posInteger > uint64_t(INT64_MAX))
    throw std::runtime_error("Integer value out of range, expected int64_t.");
  return static_cast<int64_t>(m_value.posInteger);
}

double TinyMsgPackObject::floatValue() const {
  Require(Float, "Object type is not float, but float expected.");
  return m_value.real;
}

const char* TinyMsgPackObject::stringValue() const {
  Require(String, "Object type is not string, but string expected.");
  return m_value.string;
}

const unsigned char* TinyMsgPackObject::blobData() const {
  Require(Blob, kNotABlob);
  return m_value.blob;
}

uint32_t TinyMsgPackObject::blobSize() const {
  Require(Blob, kNotABlob);
  return m_size;
}

unsigned char* TinyMsgPackObject::ReleaseBlobData() {
  Require(Blob, kNotABlob);
  unsigned char* data = m_value.blob;
  m_value.blob = nullptr;
  m_size = 0;
  return data;
}

uint32_t TinyMsgPackObject::size() const {
  if (m_type != String && m_type != Blob && m_type != Map && m_type != Array)
    throw std::runtime_error("Object does not have size, array/map/string/blob expected.");
  return m_size;
}

uint32_t TinyMsgPackObject::capacity() const { return (m_type == Map || m_type == Array) ? m_capacity : 0; }

// Containers -----------------------------------------------------------------

// Capacities double from 2 (or from the preallocated count). The new block is
// complete before the old one is touched, so a failed allocation changes
// nothing. A container of UINT32_MAX elements cannot grow: std::length_error.
void TinyMsgPackObject::Grow() {
  if (m_size < m_capacity) return;
  if (m_capacity == UINT32_MAX) throw std::length_error("Container is full.");
  const uint32_t capacity = m_capacity == 0 ? 2 : (m_capacity > UINT32_MAX / 2 ? UINT32_MAX : m_capacity * 2);
  if (m_type == Array) {
    TinyMsgPackObject* block = new TinyMsgPackObject[capacity];
    for (uint32_t i = 0; i < m_size; ++i) block[i].TakeFrom(m_value.array[i]);
    delete[] m_value.array;
    m_value.array = block;
  } else {
    SMapEntry* block = new SMapEntry[capacity];
    for (uint32_t i = 0; i < m_size; ++i) {
      block[i].key = m_value.map[i].key;
      m_value.map[i].key = nullptr;
      block[i].value.TakeFrom(m_value.map[i].value);
    }
    delete[] m_value.map;
    m_value.map = block;
  }
  m_capacity = capacity;
}

// The value is taken out before the block grows: it may be one of this
// container's own elements, whose slot moves with the block. If growing
// fails, it is put back.
void TinyMsgPackObject::push_back(TinyMsgPackObject&& value) {
  Require(Array, kNotAnArray);
  if (&value == this) throw std::invalid_argument("Object cannot contain itself.");
  TinyMsgPackObject element(std::move(value));
  try {
    Grow();
  } catch (...) {
    value.TakeFrom(element);
    throw;
  }
  m_value.array[m_size].TakeFrom(element);
  ++m_size;
}

const TinyMsgPackObject& TinyMsgPackObject::at(uint32_t index) const {
  Require(Array, kNotAnArray);
  if (index >= m_size) throw std::out_of_range("Index out of array range.");
  return m_value.array[index];
}

// The key is copied before anything changes, so that a failed allocation of
// the key or of the grown block leaves the map and `value` as they were.
TinyMsgPackObject& TinyMsgPackObject::insert(const char* key, TinyMsgPackObject&& value) {
  Require(Map, kNotAMap);
  if (&value == this) throw std::invalid_argument("Object cannot contain itself.");
  std::unique_ptr<char[]> keyCopy(CopyKey(key));
  TinyMsgPackObject element(std::move(value));
  try {
    Grow();
  } catch (...) {
    value.TakeFrom(element);
    throw;
  }
  SMapEntry& slot = m_value.map[m_size];
  slot.key = keyCopy.release();
  slot.value.TakeFrom(element);
  ++m_size;
  return *this;
}

void TinyMsgPackObject::RequireMapIndex(uint32_t index) const {
  Require(Map, kNotAMap);
  if (index >= m_size) throw std::out_of_range("Index out of map range.");
}

const char* TinyMsgPackObject::keyAt(uint32_t index) const {
  RequireMapIndex(index);
  return m_value.map[index].key;
}

const TinyMsgPackObject& TinyMsgPackObject::valueAt(uint32_t index) const {
  RequireMapIndex(index);
  return m_value.map[index].value;
}

TinyMsgPackObject& TinyMsgPackObject::valueAt(uint32_t index) {
  RequireMapIndex(index);
  return m_value.map[index].value;
}

// Linear, from the first entry: with duplicate keys the first one wins.
uint32_t TinyMsgPackObject::findKey(const char* key) const {
  Require(Map, kNotAMap);
  if (!key) key = "";
  for (uint32_t i = 0; i < m_size; ++i) {
    const char* k = m_value.map[i].key;
    if (k && std::strcmp(k, key) == 0) return i;
  }
  return UINT32_MAX;
}

bool TinyMsgPackObject::hasKey(const char* key) const { return findKey(key) != UINT32_MAX; }

const TinyMsgPackObject& TinyMsgPackObject::valueForKey(const char* key) const {
  const uint32_t index = findKey(key);
  if (index == UINT32_MAX) throw std::runtime_error("Key not found in map.");
  return m_value.map[index].value;
}

TinyMsgPackObject& TinyMsgPackObject::valueForKey(const char* key) {
  const TinyMsgPackObject& value = static_cast<const TinyMsgPackObject&>(*this).valueForKey(key);
  return const_cast<TinyMsgPackObject&>(value);
}
