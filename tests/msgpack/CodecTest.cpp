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

O Str(const char* text) { return O::CreateString(text, UINT32_MAX); }

TEST(Codec, WriteObjectRequestIsEightWriteCalls) {
  O request = O::CreateMap(2);
  request.insert("act", Str("exec")).insert("ord", O::CreatePosInteger(1));
  RecordingStream stream;
  TinyMsgPackWriter(&stream).WriteObject(request);
  EXPECT_EQ(stream.writes, (std::vector<std::string>{"82", "a3", "616374", "a4", "65786563", "a3", "6f7264", "01"}));
}

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

struct ReadCase {
  std::string hex;
  std::string outcome;  // Render of the value, or the exception
};

TEST(Codec, ReadObject) {
  const ReadCase cases[] = {{"81 a3616374 a465786563", "{s:616374:s:65786563}"},
                            {"82 a3616374 01 a3616374 02", "{s:616374:+1,s:616374:+2}"},
                            {"81 a3610062 01", "{s:61:+1}"},  // keys are zero-terminated: cut at the zero byte
                            {"dd00000000", "[]"},
                            {"c402aabb", "b:aabb"},
                            {"92 90 80", "[[],{}]"},
                            {"81 01 02", "runtime_error: Expected string."},
                            {"92 01", "runtime_error: Failed to read."},
                            {"81 a161", "runtime_error: Failed to read."},
                            {"c403 0102", "runtime_error: Failed to read."},
                            {"91 d4 01 00", "runtime_error: Failed to read."},
                            {"", "runtime_error: Failed to read."}};
  for (const ReadCase& c : cases) {
    std::string rendered;
    const std::string thrown = Thrown([&] { rendered = Render(Decode(c.hex)); });
    EXPECT_EQ(thrown == "no exception" ? rendered : thrown, c.outcome) << c.hex;
  }
  // Decoded containers were preallocated at their announced count.
  const O decoded = Decode("dc0003 010203");
  EXPECT_EQ(decoded.capacity(), 3u);
  EXPECT_EQ(Decode("dd00000000").capacity(), 0u);
  EXPECT_EQ(Decode("83 a161 c0 a162 c0 a163 c0").capacity(), 3u);
}

struct SkipCase {
  std::string hex;
  std::string outcome;  // "ok" when exactly the item was consumed
};

TEST(Codec, SkipConsumesExactlyOneValue) {
  const SkipCase cases[] = {
      {"82 a161 01 a162 92 01 02", "ok"},
      {"81 01 02", "ok"},  // keys of any type
      {"c403 010203", "ok"},
      {"c600000000", "ok"},
      {"db00000002 6869", "ok"},
      {"dc0002 cb3ff0000000000000 ff", "ok"},
      {"91 91 91 c0", "ok"},
      {"92 01", "runtime_error: Failed to read."},
      {"c403 0102", "runtime_error: Failed to read."},
      {"81 c7 00 01", "runtime_error: Failed to read."},
  };
  for (const SkipCase& c : cases) {
    msgpacktest::Bytes input = Hex(c.hex);
    if (c.outcome == "ok") input.push_back(0xc0);  // a following item that must stay unread
    RecordingStream stream(input);
    TinyMsgPackReader reader(&stream);
    std::string outcome = Thrown([&] { reader.Skip(); });
    if (outcome == "no exception") outcome = stream.remaining() == 1 ? "ok" : "consumed wrong";
    EXPECT_EQ(outcome, c.outcome) << c.hex;
  }
}

TEST(Codec, SkipToMapField) {
  {
    RecordingStream stream(Hex("82 a161 01 a162 02"));
    TinyMsgPackReader reader(&stream);
    uint32_t remaining = reader.ReadMapCount();
    reader.SkipToMapField(remaining, "b");
    EXPECT_EQ(remaining, 0u);
    EXPECT_EQ(reader.ReadPosInteger(), 2u);
  }
  {
    RecordingStream stream(Hex("82 a161 91 05 a162 02 c0"));
    TinyMsgPackReader reader(&stream);
    uint32_t remaining = reader.ReadMapCount();
    EXPECT_EQ(Thrown([&] { reader.SkipToMapField(remaining, "ab"); }), "runtime_error: Map field not found.");
    EXPECT_EQ(remaining, 0u);
    EXPECT_EQ(stream.remaining(), 1u);  // both entries consumed, nothing more
  }
  {
    RecordingStream stream(Hex("82 a161 01 a162 02"));
    TinyMsgPackReader reader(&stream);
    uint32_t remaining = reader.ReadMapCount();
    reader.SkipToMapField(remaining, "a");
    EXPECT_EQ(remaining, 1u);
    EXPECT_EQ(reader.ReadPosInteger(), 1u);
  }
  RecordingStream empty(Hex("a161"));
  TinyMsgPackReader reader(&empty);
  uint32_t none = 0;
  EXPECT_EQ(Thrown([&] { reader.SkipToMapField(none, "a"); }), "runtime_error: Map field not found.");
  EXPECT_TRUE(empty.reads.empty());
  RecordingStream badKey(Hex("01 02"));
  TinyMsgPackReader badReader(&badKey);
  uint32_t one = 1;
  EXPECT_EQ(Thrown([&] { badReader.SkipToMapField(one, "a"); }), "runtime_error: Expected string.");
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

TEST(Codec, NestingBound) {
  const uint32_t max = TinyMsgPackReader::kMaxDepth;
  for (const std::string kinds : {"a", "m", "am"}) {
    for (bool skip : {false, true}) {
      EXPECT_EQ(ReadNested(Nested(max, kinds), skip), "no exception") << kinds << skip;
      EXPECT_EQ(ReadNested(Nested(max + 1, kinds), skip), "runtime_error: Nesting too deep.") << kinds << skip;
    }
  }
  // The refusal comes before the container is allocated: a huge count is not
  // looked at when the depth is already exhausted.
  msgpacktest::Bytes huge = Nested(max, "a");
  huge.back() = 0xdd;
  huge.insert(huge.end(), {0xff, 0xff, 0xff, 0xff});
  EXPECT_EQ(ReadNested(huge, false), "runtime_error: Nesting too deep.");
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

// The deepest accepted input, read and skipped on a thread of its own, stays
// well inside a 256 KiB stack, sanitizer builds included (their frames are the
// largest). The per-level cost is recorded in the test report.
TEST(Codec, DeepestInputFitsASmallThreadStack) {
  const uint32_t max = TinyMsgPackReader::kMaxDepth;
  size_t worstPerLevel = 0, worstTotal = 0;
  for (const std::string kinds : {"a", "m"}) {
    for (bool skip : {false, true}) {
      std::string shallowOutcome, deepOutcome, tooDeepOutcome;
      const size_t shallow = StackUsed(1 << 20, [&] { shallowOutcome = ReadNested(Nested(1, kinds), skip); });
      const size_t deep = StackUsed(1 << 20, [&] { deepOutcome = ReadNested(Nested(max, kinds), skip); });
      StackUsed(1 << 20, [&] { tooDeepOutcome = ReadNested(Nested(max + 1, kinds), skip); });
      ASSERT_EQ(shallowOutcome, "no exception");
      ASSERT_EQ(deepOutcome, "no exception");
      ASSERT_EQ(tooDeepOutcome, "runtime_error: Nesting too deep.");
      ASSERT_GT(deep, shallow);
      worstPerLevel = std::max(worstPerLevel, (deep - shallow) / (max - 1));
      worstTotal = std::max(worstTotal, deep);
    }
  }
  RecordProperty("stack_bytes_per_level", std::to_string(worstPerLevel));
  RecordProperty("stack_bytes_deepest", std::to_string(worstTotal));
  EXPECT_LT(worstPerLevel * max, 128u * 1024) << worstPerLevel << " bytes per level";
  EXPECT_LT(worstTotal, 256u * 1024);
}

}  // namespace
