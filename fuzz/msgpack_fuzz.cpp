// Fuzz target for the MessagePack decoder: arbitrary bytes through a
// MemoryStream into Skip and ReadObject. A decoded value must also
//   - have been consumed by Skip to exactly the same byte,
//   - have every container at capacity == size (preallocated, never regrown),
//   - re-encode with WriteObject into bytes that decode to a value that
//     encodes to the same bytes again, and copy into a value that encodes the
//     same.
// Expected outcomes are the decoder's own errors ("Failed to read.",
// "Expected string.", "Nesting too deep.") and std::bad_alloc; anything else
// (another message, another exception, a sanitizer report, a leak) is a
// finding.
//
// Memory: the decoder trusts announced counts by design, so a five-byte map
// header can ask for 2^32-1 entries (about 128 GiB). Under ASan such a `new`
// does not throw but aborts the process, so this target replaces the global
// operator new/delete with a budgeted version: while an input runs, a request
// that would take the heap more than the input's budget above where it was
// throws std::bad_alloc, which the library propagates and cleans up after like
// any allocation failure. The library itself is built unchanged.
#include <malloc.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

#include "msgpack/MemoryStream.h"
#include "msgpack/TinyMsgPackReader.h"
#include "msgpack/TinyMsgPackWriter.h"

namespace {

// Heap that one input may use: far more than any real tree of its size needs
// (an element takes at least one input byte and at most 32 bytes of tree),
// small enough to keep big announced counts cheap to refuse.
constexpr int64_t kBaseBudget = int64_t(1) << 20;
constexpr int64_t kBudgetPerInputByte = 64;
std::atomic<int64_t> g_live{0};  // bytes handed out by operator new, not yet freed
std::atomic<bool> g_enforce{false};
std::atomic<int64_t> g_limit{0};  // g_live may not exceed this while enforced

void* Allocate(size_t size) {
  if (g_enforce.load(std::memory_order_relaxed) &&
      (size > size_t(INT64_MAX) || int64_t(size) > g_limit.load(std::memory_order_relaxed) - g_live.load()))
    throw std::bad_alloc();
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  g_live += int64_t(malloc_usable_size(p));
  return p;
}

void Release(void* p) {
  if (!p) return;
  g_live -= int64_t(malloc_usable_size(p));
  std::free(p);
}

}  // namespace

void* operator new(size_t size) { return Allocate(size); }
void* operator new[](size_t size) { return Allocate(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  try {
    return Allocate(size);
  } catch (...) {
    return nullptr;
  }
}
void* operator new[](size_t size, const std::nothrow_t& tag) noexcept { return operator new(size, tag); }
void operator delete(void* p) noexcept { Release(p); }
void operator delete[](void* p) noexcept { Release(p); }
void operator delete(void* p, size_t) noexcept { Release(p); }
void operator delete[](void* p, size_t) noexcept { Release(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { Release(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { Release(p); }

namespace {

// While an input runs, its allocations may add up to its budget on top of
// what was live before (libFuzzer's own corpus and state).
struct BudgetScope {
  explicit BudgetScope(size_t inputSize) {
    g_limit = g_live.load() + kBaseBudget + kBudgetPerInputByte * int64_t(inputSize);
    g_enforce = true;
  }
  ~BudgetScope() { g_enforce = false; }
};

[[noreturn]] void Finding() { __builtin_trap(); }

void CheckExpected(const std::runtime_error& e) {
  static const char* const expected[] = {"Failed to read.", "Expected string.", "Nesting too deep."};
  for (const char* message : expected)
    if (std::strcmp(e.what(), message) == 0) return;
  Finding();
}

// Skip or ReadObject over the input; false on an expected error. `consumed`
// receives the number of bytes used on success.
template <class Op>
bool Decode(const uint8_t* data, size_t size, size_t& consumed, Op op) {
  MemoryStream stream(data, size);
  TinyMsgPackReader reader(&stream);
  try {
    op(reader);
  } catch (const std::bad_alloc&) {
    return false;
  } catch (const std::runtime_error& e) {
    CheckExpected(e);
    return false;
  }
  consumed = size - stream.remaining();
  return true;
}

void CheckCapacities(const TinyMsgPackObject& value) {
  const TinyMsgPackObject::EType type = value.type();
  if (type != TinyMsgPackObject::Map && type != TinyMsgPackObject::Array) return;
  if (value.capacity() != value.size()) Finding();
  for (uint32_t i = 0; i < value.size(); ++i)
    CheckCapacities(type == TinyMsgPackObject::Map ? value.valueAt(i) : value.at(i));
}

std::vector<unsigned char> Encode(const TinyMsgPackObject& value) {
  MemoryStream out;
  TinyMsgPackWriter(&out).WriteObject(value);
  return out.bytes();
}

void RoundTrip(const TinyMsgPackObject& value) {
  try {
    const std::vector<unsigned char> first = Encode(value);
    MemoryStream in(first.data(), first.size());
    const TinyMsgPackObject again = TinyMsgPackReader(&in).ReadObject();
    if (in.remaining() != 0 || Encode(again) != first) Finding();
    const TinyMsgPackObject copy(value);
    if (Encode(copy) != first) Finding();
  } catch (const std::bad_alloc&) {
    // The second tree and the copy count against the same budget.
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  BudgetScope budget(size);
  size_t skipped = 0, read = 0;
  const bool skipOk = Decode(data, size, skipped, [](TinyMsgPackReader& r) { r.Skip(); });
  TinyMsgPackObject value;
  if (!Decode(data, size, read, [&](TinyMsgPackReader& r) { value = r.ReadObject(); })) return 0;
  // Skip allocates a subset of what ReadObject holds at once, so it succeeds
  // whenever ReadObject does, and stops at the same byte.
  if (!skipOk || skipped != read) Finding();
  CheckCapacities(value);
  RoundTrip(value);
  return 0;
}
