// FuzzHeapBudget: a per-input heap budget for the fuzz targets.
//
// The decoder trusts announced counts by design, so a five-byte map header
// can ask for 2^32-1 entries (about 128 GiB). Under AddressSanitizer such a
// `new` does not throw but aborts the process, so each target replaces the
// global operator new/delete with a budgeted version (include this header in
// exactly one source file of the target): while a BudgetScope is alive, a
// request that would take the heap more than the input's budget above where
// it was throws std::bad_alloc, which the library propagates and cleans up
// after like any allocation failure. The library itself is built unchanged.
//
// Threads: the counters are atomic; the budget is meant for targets that run
// one input at a time.
#pragma once

#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace fuzzbudget {

// Heap that one input may use: far more than any real tree of its size needs
// (an element takes at least one input byte and at most 32 bytes of tree),
// small enough to keep big announced counts cheap to refuse.
constexpr int64_t kBaseBudget = int64_t(1) << 20;
constexpr int64_t kBudgetPerInputByte = 64;

inline std::atomic<int64_t> g_live{0};  // bytes handed out by operator new, not yet freed
inline std::atomic<bool> g_enforce{false};
inline std::atomic<int64_t> g_limit{0};  // g_live may not exceed this while enforced

inline void* Allocate(size_t size) {
  if (g_enforce.load(std::memory_order_relaxed) &&
      (size > size_t(INT64_MAX) || int64_t(size) > g_limit.load(std::memory_order_relaxed) - g_live.load()))
    throw std::bad_alloc();
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  g_live += int64_t(malloc_usable_size(p));
  return p;
}

inline void Release(void* p) {
  if (!p) return;
  g_live -= int64_t(malloc_usable_size(p));
  std::free(p);
}

// While an input runs, its allocations may add up to its budget on top of
// what was live before (libFuzzer's own corpus and state).
struct BudgetScope {
  explicit BudgetScope(size_t inputSize) {
    g_limit = g_live.load() + kBaseBudget + kBudgetPerInputByte * int64_t(inputSize);
    g_enforce = true;
  }
  ~BudgetScope() { g_enforce = false; }
  BudgetScope(const BudgetScope&) = delete;
  BudgetScope& operator=(const BudgetScope&) = delete;
};

}  // namespace fuzzbudget

void* operator new(size_t size) { return fuzzbudget::Allocate(size); }
void* operator new[](size_t size) { return fuzzbudget::Allocate(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  try {
    return fuzzbudget::Allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete(void* p) noexcept { fuzzbudget::Release(p); }
void operator delete[](void* p) noexcept { fuzzbudget::Release(p); }
void operator delete(void* p, size_t) noexcept { fuzzbudget::Release(p); }
void operator delete[](void* p, size_t) noexcept { fuzzbudget::Release(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { fuzzbudget::Release(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { fuzzbudget::Release(p); }
