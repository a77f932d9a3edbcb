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
// Memory: the decoder trusts announced counts by design; the target runs each
// input under the heap budget of FuzzHeapBudget.h, so a huge announced count
// is refused cheaply with std::bad_alloc instead of ending the process.
#include <cstdint>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

#include "fuzz/FuzzHeapBudget.h"
#include "msgpack/MemoryStream.h"
#include "msgpack/TinyMsgPackReader.h"
#include "msgpack/TinyMsgPackWriter.h"

namespace {

using fuzzbudget::BudgetScope;

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
