// TinyMsgPackObject: one decoded MessagePack value.
//
// A scalar, a string, a blob, or a container that owns its elements: a value
// type with deep copy and cheap move. TinyMsgPackReader::ReadObject builds one
// tree per service response; TinyMsgPackWriter::WriteObject writes trees back.
//
// Ownership: strings, blobs, element blocks and map keys are owned by the value
// that holds them, allocated with array new and freed with array delete. A map
// keeps its entries in insertion order; keys are zero-terminated copies and
// need not be unique (every lookup returns the first match).
//
// Errors: type and lookup errors throw std::runtime_error with fixed messages;
// index errors throw std::out_of_range. Allocation failures propagate as
// std::bad_alloc.
//
// Threads: none. A tree belongs to one thread at a time; the const accessors
// may be called from several threads only while nobody modifies the tree.
#pragma once

#include <cstddef>
#include <cstdint>

class TinyMsgPackObject {
 public:
  // The type of a value; the reader reports item types with the same values.
  enum EType : uint32_t {
    Nil = 0,
    NegInteger = 1,
    PosInteger = 2,
    String = 3,
    Bool = 4,
    Float = 5,
    Blob = 6,
    Map = 7,
    Array = 8,
  };

  // One slot of a map block. `key` is meaningful only in the first size()
  // slots; the values of the other slots are Nil.
  struct SMapEntry;

  // A Nil value. Every member gets a determinate value (not only the type), so
  // that moving or copying a default-constructed value never reads
  // uninitialised memory. Inline: a container block constructs one per slot.
  TinyMsgPackObject() : m_type(Nil), m_size(0), m_capacity(0) { m_value.posInteger = 0; }
  // The factories' raw constructor: sets nothing; each factory sets every
  // member that its type uses right after. An object made with it holds no
  // value yet (not even a type) and must not be used, copied, assigned or
  // destroyed before a factory has set it; nothing outside this class and
  // the reader's ReadObject has a reason to call it. Explicit, so that no
  // nullptr turns into such an object by accident.
  explicit TinyMsgPackObject(std::nullptr_t) {}
  // Deep copy. On an allocation failure nothing is left allocated.
  TinyMsgPackObject(const TinyMsgPackObject& other);
  // Deep copy. Success: this holds a copy of `other` (containers with capacity
  // equal to size). Failure (std::bad_alloc): this keeps its previous value.
  // Assigning an object to itself changes nothing.
  TinyMsgPackObject& operator=(const TinyMsgPackObject& other);
  // Move: this takes the members, `other` becomes Nil.
  TinyMsgPackObject(TinyMsgPackObject&& other) noexcept;
  TinyMsgPackObject& operator=(TinyMsgPackObject&& other) noexcept;
  // Inline so that the many scalar slots of a container block cost no call
  // when the block is freed; only String, Blob, Map and Array own anything.
  ~TinyMsgPackObject() {
    if (m_type == String || m_type >= Blob) Destroy();
  }

  // Releases everything owned and sets the type to Nil.
  void Destroy() noexcept;

  // Factories. Each returns a new value; the allocating ones throw
  // std::bad_alloc and leave nothing allocated on failure.
  static TinyMsgPackObject CreateNil();
  static TinyMsgPackObject CreateBool(bool value);
  static TinyMsgPackObject CreatePosInteger(uint64_t value);
  // Holds `value` unchanged, whatever its sign.
  static TinyMsgPackObject CreateNegInteger(int64_t value);
  static TinyMsgPackObject CreateFloat(double value);
  // Copies `length` bytes of `text` (all of them, zero bytes included) and
  // appends a zero byte. A length of UINT32_MAX means strlen(text); a null
  // `text` is taken as empty.
  static TinyMsgPackObject CreateString(const char* text, uint32_t length);
  // Copies `size` bytes from `data`.
  static TinyMsgPackObject CreateBlob(const unsigned char* data, uint32_t size);
  // Takes ownership of `data`, which must come from array new; copies nothing.
  static TinyMsgPackObject CreateBlobNoCopy(unsigned char* data, uint32_t size);
  // Empty container with `capacity` Nil slots allocated (none for 0).
  static TinyMsgPackObject CreateArray(uint32_t capacity);
  static TinyMsgPackObject CreateMap(uint32_t capacity);

  // Typed accessors: each throws std::runtime_error when the type differs.
  EType type() const { return m_type; }
  bool boolValue() const;
  uint64_t posIntegerValue() const;
  int64_t negIntegerValue() const;
  // NegInteger, or PosInteger up to INT64_MAX.
  int64_t integerValue() const;
  double floatValue() const;
  // Zero-terminated; its length is size() (the text may hold zero bytes).
  const char* stringValue() const;
  const unsigned char* blobData() const;
  uint32_t blobSize() const;
  // Hands the bytes to the caller (free with array delete); the value stays a
  // Blob of size 0 that owns nothing.
  unsigned char* ReleaseBlobData();
  // String, Blob, Map or Array: length or element count.
  uint32_t size() const;
  // Array or Map: slots allocated; 0 for every other type. Never throws.
  uint32_t capacity() const;

  // Arrays. push_back moves `value` in (it becomes Nil). On failure (wrong
  // type, allocation) neither this nor `value` changes. `value` must not be
  // this object or a container that holds it.
  void push_back(TinyMsgPackObject&& value);
  const TinyMsgPackObject& at(uint32_t index) const;

  // Maps. insert appends a copy of `key` and moves `value` in; it returns the
  // map. On failure neither this nor `value` changes; `value` must not be this
  // object or a container that holds it.
  TinyMsgPackObject& insert(const char* key, TinyMsgPackObject&& value);
  const char* keyAt(uint32_t index) const;
  const TinyMsgPackObject& valueAt(uint32_t index) const;
  TinyMsgPackObject& valueAt(uint32_t index);
  // Index of the first entry whose key equals `key` (strcmp), or UINT32_MAX.
  uint32_t findKey(const char* key) const;
  bool hasKey(const char* key) const;
  const TinyMsgPackObject& valueForKey(const char* key) const;
  TinyMsgPackObject& valueForKey(const char* key);

 private:
  // ReadObject builds a decoded tree in place: it fills the Nil slots of a
  // block preallocated by CreateArray or CreateMap directly and counts them in
  // m_size, where push_back and insert would move each value in through a
  // temporary and test for growth that cannot happen.
  friend class TinyMsgPackReader;

  // A value of `type` made with the raw constructor, all members zero.
  static TinyMsgPackObject Make(EType type);

  void Require(EType type, const char* message) const;
  void RequireMapIndex(uint32_t index) const;
  // Takes the members of `other`, which becomes Nil. This must own nothing.
  void TakeFrom(TinyMsgPackObject& other) noexcept {
    m_type = other.m_type;
    m_value = other.m_value;
    m_size = other.m_size;
    m_capacity = other.m_capacity;
    other.m_type = Nil;
    other.m_value.posInteger = 0;
    other.m_size = 0;
    other.m_capacity = 0;
  }
  // Deep copy of `other` into this, which must be Nil. Throws std::bad_alloc
  // with this still Nil and nothing allocated.
  void CopyFrom(const TinyMsgPackObject& other);
  // Makes room for one more element or entry; changes nothing on failure.
  void Grow();

  EType m_type;
  union {
    bool boolean;
    int64_t negInteger;
    uint64_t posInteger;
    double real;
    char* string;
    unsigned char* blob;
    TinyMsgPackObject* array;
    SMapEntry* map;
  } m_value;
  uint32_t m_size;
  uint32_t m_capacity;
};

struct TinyMsgPackObject::SMapEntry {
  char* key = nullptr;
  TinyMsgPackObject value;
};

// A tag, one 8-byte word and two 32-bit counts: 4 + 4 (padding) + 8 + 4 + 4.
static_assert(sizeof(TinyMsgPackObject) == 24, "TinyMsgPackObject layout changed");
