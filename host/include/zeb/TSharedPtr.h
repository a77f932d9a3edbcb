// TSharedPtr<T>: the framework's shared-ownership pointer.
//
// Layout (shared with code compiled against the framework), three words:
//   1. the object pointer;
//   2. the CReferenceCounter* that all copies share (null when empty);
//   3. the release word, consulted when the last copy goes:
//        null            delete the object through its (virtual) destructor;
//        all bits set    release nothing: the object is borrowed;
//        anything else   a function void(void*) called with the object
//                        pointer (as held by the last copy, converted to
//                        void*).
//
// Copies share the counter (AddRef); conversion from TSharedPtr<Derived> to
// TSharedPtr<Base> shares it too. The counter is atomic, so copies may be
// released in different threads; one TSharedPtr object itself is used by one
// thread at a time.
#pragma once

#include <cstdint>
#include <type_traits>
#include <utility>

#include <zeb/CReferenceCounter.h>

namespace zeb {

template <class T>
class TSharedPtr {
 public:
  typedef void (*ReleaseFunction)(void* object);

  // The release word's value for a borrowed object.
  static ReleaseFunction BorrowedRelease() {
    return reinterpret_cast<ReleaseFunction>(~std::uintptr_t(0));
  }

  TSharedPtr() noexcept : m_object(nullptr), m_counter(nullptr), m_release(nullptr) {}
  TSharedPtr(std::nullptr_t) noexcept : TSharedPtr() {}  // NOLINT

  // Takes ownership of `object` (made with new); deleted when the last copy
  // goes. A null object gives an empty pointer. Should the counter not be
  // allocated, the object is deleted and CBadAllocException propagates.
  explicit TSharedPtr(T* object) : TSharedPtr(object, nullptr) {}

  // Takes `object` with an explicit release word (see above).
  TSharedPtr(T* object, ReleaseFunction release)
      : m_object(nullptr), m_counter(nullptr), m_release(release) {
    if (!object) return;
    try {
      m_counter = CReferenceCounter::Create();
    } catch (...) {
      ReleaseObject(object, release);
      throw;
    }
    m_object = object;
  }

  // A pointer to an object that someone else owns: nothing is released.
  static TSharedPtr Borrow(T* object) { return TSharedPtr(object, BorrowedRelease()); }

  TSharedPtr(const TSharedPtr& other) noexcept
      : m_object(other.m_object), m_counter(other.m_counter), m_release(other.m_release) {
    if (m_counter) m_counter->AddRef();
  }
  TSharedPtr(TSharedPtr&& other) noexcept
      : m_object(other.m_object), m_counter(other.m_counter), m_release(other.m_release) {
    other.m_object = nullptr;
    other.m_counter = nullptr;
    other.m_release = nullptr;
  }
  template <class U, class = typename std::enable_if<std::is_convertible<U*, T*>::value>::type>
  TSharedPtr(const TSharedPtr<U>& other) noexcept  // NOLINT: implicit upcast
      : m_object(other.m_object), m_counter(other.m_counter), m_release(other.m_release) {
    if (m_counter) m_counter->AddRef();
  }
  template <class U, class = typename std::enable_if<std::is_convertible<U*, T*>::value>::type>
  TSharedPtr(TSharedPtr<U>&& other) noexcept  // NOLINT: implicit upcast
      : m_object(other.m_object), m_counter(other.m_counter), m_release(other.m_release) {
    other.m_object = nullptr;
    other.m_counter = nullptr;
    other.m_release = nullptr;
  }

  ~TSharedPtr() { reset(); }

  TSharedPtr& operator=(const TSharedPtr& other) noexcept {
    TSharedPtr copy(other);
    swap(copy);
    return *this;
  }
  TSharedPtr& operator=(TSharedPtr&& other) noexcept {
    TSharedPtr taken(std::move(other));
    swap(taken);
    return *this;
  }

  void swap(TSharedPtr& other) noexcept {
    std::swap(m_object, other.m_object);
    std::swap(m_counter, other.m_counter);
    std::swap(m_release, other.m_release);
  }

  // Drops this copy; the last copy releases the object by the release word.
  void reset() noexcept {
    T* object = m_object;
    CReferenceCounter* counter = m_counter;
    ReleaseFunction release = m_release;
    m_object = nullptr;
    m_counter = nullptr;
    m_release = nullptr;
    if (counter && counter->Release()) ReleaseObject(object, release);
  }

  T* get() const { return m_object; }
  T* operator->() const { return m_object; }
  T& operator*() const { return *m_object; }
  explicit operator bool() const { return m_object != nullptr; }
  // Number of copies sharing the object; 0 when empty.
  unsigned long use_count() const { return m_counter ? m_counter->count() : 0; }
  CReferenceCounter* counter() const { return m_counter; }
  ReleaseFunction release() const { return m_release; }

  // A pointer to the same object as U (dynamic_cast), sharing the counter;
  // empty when the object is not a U.
  template <class U>
  TSharedPtr<U> DynamicCast() const {
    U* object = dynamic_cast<U*>(m_object);
    if (!object) return TSharedPtr<U>();
    return TSharedPtr<U>(object, m_counter, m_release);
  }
  // As DynamicCast, for a known type (static_cast).
  template <class U>
  TSharedPtr<U> StaticCast() const {
    if (!m_object) return TSharedPtr<U>();
    return TSharedPtr<U>(static_cast<U*>(m_object), m_counter, m_release);
  }

 private:
  template <class U>
  friend class TSharedPtr;

  // Aliasing constructor: another view of an existing counter (AddRef).
  TSharedPtr(T* object, CReferenceCounter* counter, ReleaseFunction release) noexcept
      : m_object(object), m_counter(counter), m_release(release) {
    if (m_counter) m_counter->AddRef();
  }

  static void ReleaseObject(T* object, ReleaseFunction release) {
    if (release == nullptr) {
      delete object;
    } else if (release != BorrowedRelease()) {
      release(const_cast<void*>(static_cast<const volatile void*>(object)));
    }
  }

  T* m_object;
  CReferenceCounter* m_counter;
  ReleaseFunction m_release;
};

template <class T, class U>
bool operator==(const TSharedPtr<T>& a, const TSharedPtr<U>& b) {
  return a.get() == b.get();
}
template <class T, class U>
bool operator!=(const TSharedPtr<T>& a, const TSharedPtr<U>& b) {
  return a.get() != b.get();
}

static_assert(sizeof(TSharedPtr<int>) == 3 * sizeof(void*), "TSharedPtr: object, counter, release");

}  // namespace zeb
