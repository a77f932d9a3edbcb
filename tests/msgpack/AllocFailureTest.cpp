// Allocation failures in the value model and the decoder, injected by this
// program's own global array new: armed, it fails its n-th call. Every n is
// swept until the operation succeeds. After each failure the values involved
// must be whole and nothing may be left allocated (live count of array
// allocations back where it was).
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <new>

#include "msgpack/MemoryStream.h"
#include "msgpack/TinyMsgPackReader.h"
#include "tests/msgpack/TestUtil.h"

namespace {
long g_failAt = -1;  // armed when >= 0: the call with this index throws
long g_calls = 0;
long g_live = 0;  // array allocations not yet freed
}  // namespace

void* operator new[](size_t size) {
  if (g_failAt >= 0 && g_calls++ == g_failAt) throw std::bad_alloc();
  void* p = std::malloc(size ? size : 1);
  if (!p) throw std::bad_alloc();
  ++g_live;
  return p;
}

void operator delete[](void* p) noexcept {
  if (!p) return;
  --g_live;
  std::free(p);
}

void operator delete[](void* p, size_t) noexcept { operator delete[](p); }

namespace {

using msgpacktest::Render;
using O = TinyMsgPackObject;

// Makes the array allocation with index `failAt` from now on fail; -1 disarms.
void Arm(long failAt) {
  g_calls = 0;
  g_failAt = failAt;
}

// Runs `operation` with the n-th array allocation failing, for n = 0, 1, ...
// until it succeeds; `check(failed)` runs after each attempt, unarmed.
// Returns the number of failing attempts.
template <class Op, class Check>
long Sweep(Op operation, Check check) {
  for (long n = 0;; ++n) {
    bool failed = false;
    Arm(n);
    try {
      operation();
    } catch (const std::bad_alloc&) {
      failed = true;
    } catch (...) {
      Arm(-1);
      throw;
    }
    Arm(-1);
    check(failed);
    if (!failed) return n;
    if (n > 1000) return -1;
  }
}

// Strings, a blob, keys, nested arrays and maps: many allocations.
const char kTree[] =
    "83 a3616374 a465786563 a3 6f7264 02 a6 706172616d73 82 a4 696e666f 93 a16b c4 03 010203 81 a16d 92 90 a17a"
    " a4 6c697374 92 d9 20 3132333435363738393031323334353637383930313233343536373839303132 cb3ff0000000000000";

// A copy construction that fails frees its partial work; a copy assignment
// that fails also leaves the target with its old value.
TEST(AllocFailure, FailedCopyLeavesNothingBehindAndKeepsTheTarget) {
  const O source = msgpacktest::Decode(kTree);
  O target = O::CreateString("old", UINT32_MAX);
  const long baseline = g_live;
  const long constructFailures = Sweep([&] { O copy(source); }, [&](bool) { EXPECT_EQ(g_live, baseline); });
  const long assignFailures = Sweep([&] { target = source; },
                                    [&](bool failed) {
                                      if (!failed) return;
                                      EXPECT_EQ(Render(target), "s:6f6c64");
                                      EXPECT_EQ(g_live, baseline);
                                    });
  EXPECT_GT(constructFailures, 10);
  EXPECT_GT(assignFailures, 10);
  EXPECT_EQ(Render(target), Render(source));
}

TEST(AllocFailure, ReadObjectFreesThePartialTree) {
  const msgpacktest::Bytes bytes = msgpacktest::Hex(kTree);
  const long baseline = g_live;
  std::string rendered;
  const long failures = Sweep(
      [&] {
        MemoryStream stream(bytes.data(), bytes.size());
        rendered = Render(TinyMsgPackReader(&stream).ReadObject());
      },
      [&](bool) { EXPECT_EQ(g_live, baseline); });
  EXPECT_GT(failures, 10);
  EXPECT_EQ(rendered, Render(msgpacktest::Decode(kTree)));
}

// A container whose growth fails keeps its block and contents, and the value
// offered to it stays with the caller.
TEST(AllocFailure, FailedGrowthChangesNothing) {
  O array = O::CreateArray(2);
  array.push_back(O::CreatePosInteger(1));
  array.push_back(O::CreatePosInteger(2));
  O map = O::CreateMap(1);
  map.insert("a", O::CreatePosInteger(1));
  O value = O::CreateString("v", UINT32_MAX);
  for (long failAt : {0L, 1L}) {  // insert copies the key, then grows the block
    Arm(failAt);
    EXPECT_THROW(map.insert("b", std::move(value)), std::bad_alloc);
    Arm(-1);
    EXPECT_EQ(Render(value), "s:76");
  }
  Arm(0);
  EXPECT_THROW(array.push_back(std::move(value)), std::bad_alloc);
  Arm(-1);
  EXPECT_EQ(Render(value), "s:76");
  EXPECT_EQ(Render(array), "[+1,+2]");
  EXPECT_EQ(array.capacity(), 2u);
  EXPECT_EQ(Render(map), "{s:61:+1}");
  EXPECT_EQ(map.capacity(), 1u);
}

TEST(AllocFailure, FactoriesLeaveNothingBehind) {
  const unsigned char byte = 7;
  const long baseline = g_live;
  const std::function<void()> factories[] = {
      [] { O::CreateString("abc", 3); },
      [&] { O::CreateBlob(&byte, 1); },
      [] { O::CreateArray(4); },
      [] { O::CreateMap(4); },
  };
  for (const auto& make : factories) {
    Arm(0);
    EXPECT_THROW(make(), std::bad_alloc);
    Arm(-1);
    EXPECT_EQ(g_live, baseline);
  }
}

}  // namespace
