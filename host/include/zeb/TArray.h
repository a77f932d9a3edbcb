// TArray<T>: the framework's growable array.
//
// Layout (shared with code compiled against the framework): a virtual
// destructor, then the element pointer, the capacity and the count, both
// 64-bit element counts. Element storage comes from zeb::Alloc / zeb::Realloc
// and goes back through zeb::Free; elements are constructed and destroyed in
// place.
//
// Growth: when count + 1 (or a requested size) exceeds the capacity, the new
// capacity is max(capacity, 1), doubled while it is still too small. So an
// empty array that receives one element gets capacity 1, then 2, 4, 8, ...
// Storage never shrinks (Clear keeps it).
//
// Element access and removal check the index and raise
// zeb::ThrowOutOfRangeException with "TArray: index out of range." and
// "TArray::remove: index out of range." respectively. Exhausted memory raises
// CBadAllocException and leaves the array as it was.
//
// Storage of trivially copyable types is resized with Realloc; other types
// are moved element by element into a new block from Alloc (copied when their
// move may throw), so types that are not bitwise relocatable are safe. Add,
// Insert and growth give the strong guarantee: when an element's copy or move
// throws, the array keeps its count and elements.
//
// Not thread-safe: callers guard shared arrays themselves.
#pragma once

#include <cstddef>
#include <new>
#include <type_traits>
#include <utility>

#include <zeb/Memory.h>

namespace zeb {

template <class T>
class TArray {
 public:
  static constexpr unsigned long npos = ~0UL;

  TArray() noexcept : m_data(nullptr), m_capacity(0), m_count(0) {}
  TArray(const TArray& other) : TArray() {
    Reserve(other.m_count);
    for (unsigned long i = 0; i < other.m_count; ++i) {
      new (m_data + i) T(other.m_data[i]);
      ++m_count;
    }
  }
  TArray(TArray&& other) noexcept
      : m_data(other.m_data), m_capacity(other.m_capacity), m_count(other.m_count) {
    other.m_data = nullptr;
    other.m_capacity = 0;
    other.m_count = 0;
  }
  virtual ~TArray() {
    DestroyRange(0, m_count);
    Free(m_data);
  }

  TArray& operator=(const TArray& other) {
    if (this != &other) {
      TArray copy(other);
      Swap(copy);
    }
    return *this;
  }
  TArray& operator=(TArray&& other) noexcept {
    if (this != &other) {
      TArray taken(std::move(other));
      Swap(taken);
    }
    return *this;
  }

  void Swap(TArray& other) noexcept {
    std::swap(m_data, other.m_data);
    std::swap(m_capacity, other.m_capacity);
    std::swap(m_count, other.m_count);
  }

  unsigned long size() const { return m_count; }
  unsigned long count() const { return m_count; }
  unsigned long capacity() const { return m_capacity; }
  bool empty() const { return m_count == 0; }
  T* data() { return m_data; }
  const T* data() const { return m_data; }

  T* begin() { return m_data; }
  T* end() { return m_data + m_count; }
  const T* begin() const { return m_data; }
  const T* end() const { return m_data + m_count; }

  // Checked access: "TArray: index out of range." when index >= count.
  T& operator[](unsigned long index) {
    CheckIndex(index);
    return m_data[index];
  }
  const T& operator[](unsigned long index) const {
    CheckIndex(index);
    return m_data[index];
  }
  T& at(unsigned long index) { return (*this)[index]; }
  const T& at(unsigned long index) const { return (*this)[index]; }

  // Appends a copy / the moved value at the end; returns the new element.
  // `value` may be an element of this array. The count rises only once the
  // element is built, so a copy or move that throws leaves the array as it was.
  T& Add(const T& value) {
    if (m_count < m_capacity) return Construct(value);
    T copy(value);
    Grow(m_count + 1);
    return Construct(std::move(copy));
  }
  T& Add(T&& value) {
    if (m_count < m_capacity) return Construct(std::move(value));
    T moved(std::move(value));
    Grow(m_count + 1);
    return Construct(std::move(moved));
  }
  void push_back(const T& value) { Add(value); }
  void push_back(T&& value) { Add(std::move(value)); }

  // Inserts at `index` (<= count), moving later elements one place back.
  // An index past the end raises "TArray: index out of range.". A type whose
  // move may throw is inserted into a new block, so an exception leaves the
  // array's elements as they were.
  T& Insert(unsigned long index, T value) {
    if (index > m_count) ThrowOutOfRangeException("TArray: index out of range.");
    Grow(m_count + 1);
    if (index == m_count) return Construct(std::move(value));
    if (!kNothrowMove) return InsertIntoNewBlock(index, value);
    new (m_data + m_count) T(std::move(m_data[m_count - 1]));
    ++m_count;
    for (unsigned long i = m_count - 2; i > index; --i) m_data[i] = std::move(m_data[i - 1]);
    m_data[index] = std::move(value);
    return m_data[index];
  }

  // Destroys the element at `index`, moves every later element one place
  // forward (order kept) and lowers the count by one.
  // "TArray::remove: index out of range." when index >= count.
  void Remove(unsigned long index) {
    if (index >= m_count) ThrowOutOfRangeException("TArray::remove: index out of range.");
    m_data[index].~T();
    for (unsigned long i = index; i + 1 < m_count; ++i) {
      new (m_data + i) T(std::move(m_data[i + 1]));
      m_data[i + 1].~T();
    }
    --m_count;
  }

  // Index of the first element equal to `value` (operator==), or npos.
  unsigned long IndexOf(const T& value) const {
    for (unsigned long i = 0; i < m_count; ++i) {
      if (m_data[i] == value) return i;
    }
    return npos;
  }

  // Destroys every element; the storage stays allocated.
  void Clear() {
    DestroyRange(0, m_count);
    m_count = 0;
  }
  void RemoveAll() { Clear(); }

  // Makes room for at least `capacity` elements (growth rule above).
  void Reserve(unsigned long capacity) { Grow(capacity); }

  // Sets the count to `count`: extra elements are destroyed, new ones are
  // value-initialised (all-zero for plain records).
  void Resize(unsigned long count) {
    if (count < m_count) {
      DestroyRange(count, m_count);
      m_count = count;
      return;
    }
    Grow(count);
    while (m_count < count) {
      new (m_data + m_count) T();
      ++m_count;
    }
  }

 private:
  void CheckIndex(unsigned long index) const {
    if (index >= m_count) ThrowOutOfRangeException("TArray: index out of range.");
  }

  static constexpr bool kNothrowMove =
      std::is_nothrow_move_constructible<T>::value && std::is_nothrow_move_assignable<T>::value;

  void DestroyRange(unsigned long from, unsigned long to) {
    for (unsigned long i = from; i < to; ++i) m_data[i].~T();
  }

  // Builds the element behind the last one (capacity permitting), then counts it.
  template <class U>
  T& Construct(U&& value) {
    new (m_data + m_count) T(std::forward<U>(value));
    return m_data[m_count++];
  }

  // A new block of `capacity` elements whose first `count` are built from
  // source(k), k = 0 .. count - 1. When an element's construction throws, the
  // ones built are destroyed, the block is freed and the exception goes on.
  template <class Source>
  static T* BuildBlock(unsigned long capacity, unsigned long count, Source source) {
    T* block = static_cast<T*>(Alloc(capacity * sizeof(T)));
    if (!block) ThrowBadAllocException();
    unsigned long built = 0;
    try {
      for (; built < count; ++built) new (block + built) T(source(built));
    } catch (...) {
      for (unsigned long i = 0; i < built; ++i) block[i].~T();
      Free(block);
      throw;
    }
    return block;
  }

  // Insert for types whose move may throw: copies every element into a new
  // block of the same capacity around the new one, and takes the block over
  // only when all of them were built.
  T& InsertIntoNewBlock(unsigned long index, const T& value) {
    T* block = BuildBlock(m_capacity, m_count + 1, [&](unsigned long k) -> const T& {
      return k < index ? m_data[k] : k == index ? value : m_data[k - 1];
    });
    DestroyRange(0, m_count);
    Free(m_data);
    m_data = block;
    ++m_count;
    return m_data[index];
  }

  // Ensures capacity >= needed, by the doubling rule. Strong guarantee.
  void Grow(unsigned long needed) {
    if (needed <= m_capacity) return;
    unsigned long capacity = m_capacity > 0 ? m_capacity : 1;
    const unsigned long limit = ~0UL / sizeof(T);
    while (capacity < needed) {
      if (capacity > limit / 2) ThrowBadAllocException();
      capacity *= 2;
    }
    const unsigned long bytes = capacity * sizeof(T);
    if (std::is_trivially_copyable<T>::value) {
      void* block = Realloc(m_data, bytes);
      if (!block) ThrowBadAllocException();
      m_data = static_cast<T*>(block);
    } else {
      // A type whose move may throw is copied, so the old block stays whole.
      T* block = BuildBlock(capacity, m_count,
                            [&](unsigned long k) -> decltype(auto) { return std::move_if_noexcept(m_data[k]); });
      DestroyRange(0, m_count);
      Free(m_data);
      m_data = block;
    }
    m_capacity = capacity;
  }

  T* m_data;
  unsigned long m_capacity;
  unsigned long m_count;
};

static_assert(sizeof(TArray<int>) == 32, "TArray: vtable, data, capacity, count");

}  // namespace zeb
