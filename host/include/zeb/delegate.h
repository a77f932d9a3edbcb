// delegate<R(Args...)>: the framework's callable value (used as
// delegate<void()> for notification handlers).
//
// Layout (shared with code compiled against the framework and with the C
// struct zebDelegate), three words in order:
//   invoker  R (*)(void* target, Args...)
//   target   void*
//   table    const STable*: { clone, destroy } operations of the target
// An empty delegate has all three null. Calling an empty delegate does
// nothing and returns R().
//
// Copying copies the words with target replaced by clone(target) when the
// table is not null. Moving takes the words and leaves the source with all
// three null. Destruction calls destroy(target) when the table is not null.
// Two delegates are equal when their three words are equal.
//
// FromLamda(f) moves a function object into a heap target laid out as
//   { the function object; clone; destroy; 32-bit atomic count = 1 }
// with the table word pointing at the clone/destroy pair. clone adds one to
// the count and returns the same target (so copies compare equal); destroy
// subtracts one and frees the target at 0. Copies may thus be released in
// different threads. One delegate object is used by one thread at a time.
#pragma once

#include <atomic>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

#include <zeb/zebDelegate.h>

namespace zeb {

template <class Signature>
class delegate;

template <class R, class... Args>
class delegate<R(Args...)> {
 public:
  typedef R (*Invoker)(void* target, Args... args);
  struct STable {
    void* (*clone)(void* target);
    void (*destroy)(void* target);
  };

  delegate() noexcept : m_invoker(nullptr), m_target(nullptr), m_table(nullptr) {}
  // Takes one reference to `target` (no clone).
  delegate(Invoker invoker, void* target, const STable* table) noexcept
      : m_invoker(invoker), m_target(target), m_table(table) {}
  delegate(const delegate& other)
      : m_invoker(other.m_invoker),
        m_target(other.m_table ? other.m_table->clone(other.m_target) : other.m_target),
        m_table(other.m_table) {}
  delegate(delegate&& other) noexcept
      : m_invoker(other.m_invoker), m_target(other.m_target), m_table(other.m_table) {
    other.m_invoker = nullptr;
    other.m_target = nullptr;
    other.m_table = nullptr;
  }
  ~delegate() { Release(); }

  delegate& operator=(const delegate& other) {
    if (this != &other) {
      delegate copy(other);
      swap(copy);
    }
    return *this;
  }
  delegate& operator=(delegate&& other) noexcept {
    if (this != &other) {
      delegate taken(std::move(other));
      swap(taken);
    }
    return *this;
  }

  void swap(delegate& other) noexcept {
    std::swap(m_invoker, other.m_invoker);
    std::swap(m_target, other.m_target);
    std::swap(m_table, other.m_table);
  }

  R operator()(Args... args) const {
    if (!m_invoker) return R();
    return m_invoker(m_target, std::forward<Args>(args)...);
  }
  explicit operator bool() const { return m_invoker != nullptr; }

  bool operator==(const delegate& other) const {
    return m_invoker == other.m_invoker && m_target == other.m_target && m_table == other.m_table;
  }
  bool operator!=(const delegate& other) const { return !(*this == other); }

  // Hands the three words to the caller, who takes over the reference that
  // they carry; the delegate is left empty.
  void Detach(Invoker* invoker, void** target, const STable** table) noexcept {
    *invoker = m_invoker;
    *target = m_target;
    *table = m_table;
    m_invoker = nullptr;
    m_target = nullptr;
    m_table = nullptr;
  }

  Invoker invoker() const { return m_invoker; }
  void* target() const { return m_target; }
  const STable* table() const { return m_table; }

  // A delegate owning a heap copy of the function object `function`.
  // Raises std::bad_alloc when out of memory.
  template <class F>
  static delegate FromLamda(F&& function) {
    typedef SHolder<typename std::decay<F>::type> Holder;
    Holder* holder = new Holder(std::forward<F>(function));
    return delegate(&Holder::Invoke, holder, reinterpret_cast<const STable*>(&holder->clone));
  }

 private:
  // The heap target of FromLamda: function object, then clone, destroy and
  // the count, in this order.
  template <class F>
  struct SHolder {
    explicit SHolder(F&& f) : function(std::move(f)), clone(&Clone), destroy(&Destroy), count(1) {}
    explicit SHolder(const F& f) : function(f), clone(&Clone), destroy(&Destroy), count(1) {}

    static R Invoke(void* target, Args... args) {
      return static_cast<SHolder*>(target)->function(std::forward<Args>(args)...);
    }
    static void* Clone(void* target) {
      static_cast<SHolder*>(target)->count.fetch_add(1, std::memory_order_relaxed);
      return target;
    }
    static void Destroy(void* target) {
      SHolder* holder = static_cast<SHolder*>(target);
      if (holder->count.fetch_sub(1, std::memory_order_acq_rel) == 1) delete holder;
    }

    F function;
    void* (*clone)(void*);
    void (*destroy)(void*);
    std::atomic<std::uint32_t> count;
  };

  void Release() noexcept {
    if (m_table) m_table->destroy(m_target);
    m_invoker = nullptr;
    m_target = nullptr;
    m_table = nullptr;
  }

  Invoker m_invoker;
  void* m_target;
  const STable* m_table;
};

static_assert(sizeof(delegate<void()>) == 3 * sizeof(void*), "delegate: invoker, target, table");

// Conversions between delegate<void()> and its C view. ToC gives up the
// delegate's reference to the caller (the delegate is left empty); FromC
// takes over the reference that the C value carried.
inline zebDelegate ToC(delegate<void()>&& value) {
  delegate<void()>::Invoker invoker;
  void* target;
  const delegate<void()>::STable* table;
  value.Detach(&invoker, &target, &table);
  return zebDelegate{invoker, target, table};
}
inline delegate<void()> FromC(zebDelegate value) {
  return delegate<void()>(value.invoker, value.target,
                          static_cast<const delegate<void()>::STable*>(value.table));
}

}  // namespace zeb
