// Whole values: WriteObject, ReadObject, Skip, SkipToMapField, the nesting
// bound and the stack that the deepest accepted input needs.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>

#include <cstring>
#include <functional>
#include <type_traits>

#include "msgpack/MemoryStream.h"
#include "msgpack/TinyMsgPackReader.h"
#include "msgpack/TinyMsgPackWriter.h"
#include "tests/msgpack/TestUtil.h"

using msgpacktest::Decode;
using msgpacktest::Encode;
using msgpacktest::Hex;
using msgpacktest::RecordingStream;
using msgpacktest::Render;
using msgpacktest::Thrown;
using O = TinyMsgPackObject;

namespace {

struct WriteCase {
  O value;
  std::string bytes;
};

// Every type through WriteObject, then back through ReadObject and out again.
TEST(Codec, RoundTripEveryType) {
  const unsigned char blob[] = {0xaa, 0x00, 0xbb};
  O tree = O::CreateMap(0);
  O list = O::CreateArray(0);
  list.push_back(O::CreateNegInteger(-200));
  list.push_back(O::CreateBool(false));
  tree.insert("info", std::move(list)).insert("data", O::CreateBlob(blob, 3)).insert("error", O());
  WriteCase cases[] = {
      {O(), "c0"},
      {O::CreateBool(true), "c3"},
      {O::CreatePosInteger(UINT64_MAX), "cfffffffffffffffff"},
      {O::CreateNegInteger(INT64_MIN), "d38000000000000000"},
      {O::CreateNegInteger(5), "05"},  // a non-negative NegInteger goes out unsigned
      {O::CreateFloat(1.0), "cb3ff0000000000000"},
      {O::CreateString("a\0b", 3), "a3610062"},
      {O::CreateBlob(blob, 0), "c400"},
      {O::CreateArray(3), "90"},
      {std::move(tree), "83a4696e666f92d1ff38c2a464617461c403aa00bba56572726f72c0"},
  };
  for (const WriteCase& c : cases) {
    EXPECT_EQ(Encode(c.value), c.bytes);
    const O back = Decode(c.bytes);
    EXPECT_EQ(Encode(back), c.bytes);
    if (c.value.type() != O::NegInteger) {
      EXPECT_EQ(Render(back), Render(c.value));
    }
  }
  EXPECT_EQ(Encode(Decode("ca3f800000")), "cb3ff0000000000000");  // float 32 comes back as float 64
}

TEST(Codec, WriteObjectRefusesAnUnknownType) {
  static_assert(std::is_standard_layout<O>::value, "m_type is the first member");
  O corrupt = O::CreateArray(1);
  corrupt.push_back(O());
  O& element = const_cast<O&>(corrupt.at(0));
  *reinterpret_cast<O::EType*>(&element) = static_cast<O::EType>(9);
  MemoryStream stream;
  EXPECT_EQ(Thrown([&] { TinyMsgPackWriter(&stream).WriteObject(corrupt); }),
            "runtime_error: unrecognized object type.");
  EXPECT_EQ(msgpacktest::ToHex(stream.bytes()), "91");
}

struct WholeValueCase {
  std::string hex;
  std::string read;  // ReadObject: Render of the value, or the exception
  std::string skip;  // Skip: "ok", or the exception
};

// ReadObject and Skip over the same bytes. Each must consume exactly the value:
// after a complete one, a following nil stays unread.
TEST(Codec, ReadObjectAndSkip) {
  const WholeValueCase cases[] = {
      {"81 a3616374 a465786563", "{s:616374:s:65786563}", "ok"},
      {"82 a3616374 01 a3616374 02", "{s:616374:+1,s:616374:+2}", "ok"},
      {"82 a161 01 a162 92 01 02", "{s:61:+1,s:62:[+1,+2]}", "ok"},
      {"81 a3610062 01", "{s:61:+1}", "ok"},  // keys are zero-terminated: cut at the zero byte
      {"dd00000000", "[]", "ok"},
      {"c402aabb", "b:aabb", "ok"},
      {"c600000000", "b:", "ok"},
      {"db00000002 6869", "s:6869", "ok"},
      {"dc0002 cb3ff0000000000000 ff", "[f:1,-1]", "ok"},
      {"92 90 80", "[[],{}]", "ok"},
      {"91 91 91 c0", "[[[nil]]]", "ok"},
      {"81 01 02", "runtime_error: Expected string.", "ok"},  // Skip takes keys of any type
      {"92 01", "runtime_error: Failed to read.", "runtime_error: Failed to read."},
      {"81 a161", "runtime_error: Failed to read.", "runtime_error: Failed to read."},
      {"c403 0102", "runtime_error: Failed to read.", "runtime_error: Failed to read."},
      {"91 d4 01 00", "runtime_error: Failed to read.", "runtime_error: Failed to read."},
      {"81 c7 00 01", "runtime_error: Failed to read.", "runtime_error: Failed to read."},
      {"", "runtime_error: Failed to read.", "runtime_error: Failed to read."}};
  for (const WholeValueCase& c : cases) {
    msgpacktest::Bytes input = Hex(c.hex);
    if (c.skip == "ok") input.push_back(0xc0);
    for (bool skip : {false, true}) {
      RecordingStream stream(input);
      TinyMsgPackReader reader(&stream);
      std::string rendered;
      std::string outcome = Thrown([&] {
        if (skip)
          reader.Skip();
        else
          rendered = Render(reader.ReadObject());
      });
      if (outcome == "no exception") outcome = stream.remaining() != 1 ? "consumed wrong" : skip ? "ok" : rendered;
      EXPECT_EQ(outcome, skip ? c.skip : c.read) << c.hex << (skip ? " Skip" : " ReadObject");
    }
  }
  // Decoded containers were preallocated at their announced count.
  EXPECT_EQ(Decode("dc0003 010203").capacity(), 3u);
  EXPECT_EQ(Decode("dd00000000").capacity(), 0u);
  EXPECT_EQ(Decode("83 a161 c0 a162 c0 a163 c0").capacity(), 3u);
}

struct FieldCase {
  std::string hex;  // a map header, its entries and what follows
  uint32_t remaining;  // entries not yet consumed; the map's count when UINT32_MAX
  const char* name;
  std::string outcome;  // the exception, or "at VALUE, R left"
  size_t unread;  // bytes left in the stream afterwards
};

// Stops before the named field's value; absent, it consumes every entry (and
// nothing more); with no entries left it reads nothing at all.
TEST(Codec, SkipToMapField) {
  const FieldCase cases[] = {
      {"82 a161 01 a162 02", UINT32_MAX, "b", "at 2, 0 left", 0},
      {"82 a161 01 a162 02", UINT32_MAX, "a", "at 1, 1 left", 3},
      {"82 a161 91 05 a162 02 c0", UINT32_MAX, "ab", "runtime_error: Map field not found., 0 left", 1},
      {"a161", 0, "a", "runtime_error: Map field not found., 0 left", 2},
      {"01 02", 1, "a", "runtime_error: Expected string., 1 left", 1},
  };
  for (const FieldCase& c : cases) {
    RecordingStream stream(Hex(c.hex));
    TinyMsgPackReader reader(&stream);
    uint32_t remaining = c.remaining == UINT32_MAX ? reader.ReadMapCount() : c.remaining;
    std::string outcome = Thrown([&] { reader.SkipToMapField(remaining, c.name); });
    if (outcome == "no exception") outcome = "at " + std::to_string(reader.ReadPosInteger());
    EXPECT_EQ(outcome + ", " + std::to_string(remaining) + " left", c.outcome) << c.hex << " " << c.name;
    EXPECT_EQ(stream.remaining(), c.unread) << c.hex << " " << c.name;
    if (c.remaining == 0) {
      EXPECT_TRUE(stream.reads.empty());
    }
  }
}

// `levels` containers nested in one another around a nil: arrays (91), maps
// with the key "a" (81 a1 61), or both alternating.
msgpacktest::Bytes Nested(uint32_t levels, const std::string& kinds) {
  msgpacktest::Bytes bytes;
  for (uint32_t i = 0; i < levels; ++i) {
    const char kind = kinds[i % kinds.size()];
    if (kind == 'a') bytes.push_back(0x91);
    if (kind == 'm') bytes.insert(bytes.end(), {0x81, 0xa1, 0x61});
  }
  bytes.push_back(0xc0);
  return bytes;
}

std::string ReadNested(const msgpacktest::Bytes& input, bool skip) {
  MemoryStream stream(input.data(), input.size());
  TinyMsgPackReader reader(&stream);
  std::string outcome = Thrown([&] {
    if (skip)
      reader.Skip();
    else
      reader.ReadObject();
  });
  if (outcome == "no exception" && stream.remaining() != 0) outcome = "left bytes";
  return outcome;
}

// Runs `body` on a thread with a `size`-byte stack of our own, painted with a
// pattern beforehand, and returns how many bytes of it were touched.
__attribute__((no_sanitize("address"))) size_t Untouched(const unsigned char* stack, size_t size) {
  size_t n = 0;
  while (n < size && stack[n] == 0xa5) ++n;
  return n;
}

size_t StackUsed(size_t size, std::function<void()> body) {
  void* stack = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0);
  if (stack == MAP_FAILED) return SIZE_MAX;
  std::memset(stack, 0xa5, size);
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstack(&attr, stack, size);
  pthread_t thread;
  auto run = [](void* f) -> void* {
    (*static_cast<std::function<void()>*>(f))();
    return nullptr;
  };
  size_t used = SIZE_MAX;
  if (pthread_create(&thread, &attr, run, &body) == 0) {
    pthread_join(thread, nullptr);
    used = size - Untouched(static_cast<unsigned char*>(stack), size);
  }
  pthread_attr_destroy(&attr);
  munmap(stack, size);
  return used;
}

// At most kMaxDepth containers open at once, arrays, maps or both, through
// ReadObject and Skip; the deepest accepted input, read on a thread of its
// own, stays well inside a 256 KiB stack, sanitizer builds included (their
// frames are the largest). The per-level cost is recorded in the test report.
TEST(Codec, NestingBoundAndStack) {
  const uint32_t max = TinyMsgPackReader::kMaxDepth;
  size_t worstPerLevel = 0, worstTotal = 0;
  for (const std::string kinds : {"a", "m", "am"}) {
    for (bool skip : {false, true}) {
      std::string shallowOutcome, deepOutcome, tooDeepOutcome;
      const size_t shallow = StackUsed(1 << 20, [&] { shallowOutcome = ReadNested(Nested(1, kinds), skip); });
      const size_t deep = StackUsed(1 << 20, [&] { deepOutcome = ReadNested(Nested(max, kinds), skip); });
      StackUsed(1 << 20, [&] { tooDeepOutcome = ReadNested(Nested(max + 1, kinds), skip); });
      ASSERT_EQ(shallowOutcome, "no exception") << kinds << skip;
      ASSERT_EQ(deepOutcome, "no exception") << kinds << skip;
      ASSERT_EQ(tooDeepOutcome, "runtime_error: Nesting too deep.") << kinds << skip;
      ASSERT_GT(deep, shallow);
      worstPerLevel = std::max(worstPerLevel, (deep - shallow) / (max - 1));
      worstTotal = std::max(worstTotal, deep);
    }
  }
  RecordProperty("stack_bytes_per_level", std::to_string(worstPerLevel));
  RecordProperty("stack_bytes_deepest", std::to_string(worstTotal));
  EXPECT_LT(worstPerLevel * max, 128u * 1024) << worstPerLevel << " bytes per level";
  EXPECT_LT(worstTotal, 256u * 1024);
  // The refusal comes before the container is allocated: a huge count is not
  // looked at when the depth is already exhausted.
  msgpacktest::Bytes huge = Nested(max, "a");
  huge.back() = 0xdd;
  huge.insert(huge.end(), {0xff, 0xff, 0xff, 0xff});
  EXPECT_EQ(ReadNested(huge, false), "runtime_error: Nesting too deep.");
}

}  // namespace
