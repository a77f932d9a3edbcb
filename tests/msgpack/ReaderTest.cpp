// TinyMsgPackReader: the type-byte table with its sign rules and refusals,
// short streams, one stream read per argument, and the typed reads' messages.
#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <functional>

#include "msgpack/TinyMsgPackReader.h"
#include "tests/msgpack/TestUtil.h"

using msgpacktest::Hex;
using msgpacktest::RecordingStream;
using msgpacktest::Thrown;

namespace {

std::string Current(const TinyMsgPackReader& r) {
  char text[96];
  switch (r.type()) {
    case TinyMsgPackObject::Nil:
      return "nil";
    case TinyMsgPackObject::Bool:
      return r.boolValue() ? "true" : "false";
    case TinyMsgPackObject::PosInteger:
    case TinyMsgPackObject::NegInteger:
      std::snprintf(text, sizeof text, "%s:%" PRIu64 "/%" PRId64,
                    r.type() == TinyMsgPackObject::PosInteger ? "pos" : "neg", r.posIntegerValue(),
                    r.negIntegerValue());
      return text;
    case TinyMsgPackObject::Float:
      std::snprintf(text, sizeof text, "f:%.17g", r.floatValue());
      return text;
    case TinyMsgPackObject::String:
      return "s:" + r.stringValue();
    case TinyMsgPackObject::Blob:
      return "blob:" + std::to_string(r.count());
    case TinyMsgPackObject::Map:
      return "map:" + std::to_string(r.count());
    case TinyMsgPackObject::Array:
      return "array:" + std::to_string(r.count());
  }
  return "?";
}

struct ItemCase {
  std::string hex;
  std::string item;
  size_t left = 0;  // bytes that Read() leaves in the stream (blob payloads)
};

// Integer, container-count and string boundaries of both signs are also
// covered by the community vectors (SuiteTest); these add the reader's own
// fields: both integer readings, counts without elements, blob payloads left.
TEST(Reader, TypeByteTable) {
  // clang-format off
  const ItemCase cases[] = {
      {"00", "pos:0/0"}, {"7f", "pos:127/127"}, {"cc80", "pos:128/128"},
      {"cf8000000000000000", "pos:9223372036854775808/-9223372036854775808"},
      {"cfffffffffffffffff", "pos:18446744073709551615/-1"},
      {"d000", "pos:0/0"}, {"d005", "pos:5/5"}, {"d07f", "pos:127/127"},
      {"d080", "neg:18446744073709551488/-128"}, {"d0ff", "neg:18446744073709551615/-1"},
      {"d17fff", "pos:32767/32767"}, {"d18000", "neg:18446744073709518848/-32768"},
      {"d27fffffff", "pos:2147483647/2147483647"}, {"d280000000", "neg:18446744071562067968/-2147483648"},
      {"d30000000000000005", "pos:5/5"}, {"d38000000000000000", "neg:9223372036854775808/-9223372036854775808"},
      {"e0", "neg:18446744073709551584/-32"}, {"ff", "neg:18446744073709551615/-1"},
      {"80", "map:0"}, {"8f", "map:15"}, {"de0010", "map:16"}, {"df00010000", "map:65536"},
      {"dfffffffff", "map:4294967295"}, {"93", "array:3"}, {"9f", "array:15"}, {"dc0010", "array:16"},
      {"ddffffffff", "array:4294967295"}, {"a0", "s:"}, {"d900", "s:"}, {"db0000000161", "s:a"},
      {"c0", "nil"}, {"c2", "false"}, {"c3", "true"}, {"ca3f800000", "f:1"}, {"cbc004000000000000", "f:-2.5"},
      {"c400", "blob:0"}, {"c403010203", "blob:3", 3}, {"c5000201ff", "blob:2", 2}, {"c60000000100", "blob:1", 1}};
  // clang-format on
  for (const ItemCase& c : cases) {
    RecordingStream stream(Hex(c.hex));
    TinyMsgPackReader reader(&stream);
    ASSERT_TRUE(reader.Read()) << c.hex;
    EXPECT_EQ(Current(reader), c.item) << c.hex;
    EXPECT_EQ(stream.remaining(), c.left) << c.hex;
  }
}

// Only the type byte is consumed; every typed read reports a failed read.
TEST(Reader, RefusedTypeBytes) {
  const std::function<void(TinyMsgPackReader&)> typedReads[] = {
      [](TinyMsgPackReader& r) { r.ReadBool(); },       [](TinyMsgPackReader& r) { r.ReadMapCount(); },
      [](TinyMsgPackReader& r) { r.ReadArrayCount(); }, [](TinyMsgPackReader& r) { r.ReadPosInteger(); },
      [](TinyMsgPackReader& r) { r.ReadNegInteger(); }, [](TinyMsgPackReader& r) { r.ReadInteger(); },
      [](TinyMsgPackReader& r) { r.ReadBlobSize(); },   [](TinyMsgPackReader& r) { r.ReadString(); },
      [](TinyMsgPackReader& r) { r.ReadObject(); },     [](TinyMsgPackReader& r) { r.Skip(); },
  };
  for (int byte : {0xc1, 0xc7, 0xc8, 0xc9, 0xd4, 0xd5, 0xd6, 0xd7, 0xd8}) {
    const msgpacktest::Bytes input = {0xc3, static_cast<unsigned char>(byte), 0x01, 0x01};
    RecordingStream stream(input);
    TinyMsgPackReader reader(&stream);
    ASSERT_TRUE(reader.Read());
    EXPECT_FALSE(reader.Read()) << byte;
    EXPECT_EQ(reader.type(), TinyMsgPackObject::Bool) << byte;
    EXPECT_EQ(stream.remaining(), 2u) << byte;
    for (const auto& read : typedReads) {
      RecordingStream s({static_cast<unsigned char>(byte), 0x01, 0x01});
      TinyMsgPackReader r(&s);
      EXPECT_EQ(Thrown([&] { read(r); }), "runtime_error: Failed to read.") << byte;
    }
  }
}

struct PieceCase {
  std::string hex;
  std::vector<size_t> reads;
};

// One stream call for the type byte, one per argument at its full width, one
// for a string's text (none for an empty one); a blob's payload is not
// touched. Every proper prefix of the item fails, and the type stays that of
// the item before: m_type is set only once the whole item has been read.
TEST(Reader, OneStreamReadPerPieceAndShortStreams) {
  // clang-format off
  const PieceCase cases[] = {
      {"05", {1}}, {"cc80", {1, 1}}, {"cd0100", {1, 2}}, {"ce00010000", {1, 4}}, {"cf0000000100000000", {1, 8}},
      {"d0df", {1, 1}}, {"d1ff7f", {1, 2}}, {"d2ffff7fff", {1, 4}}, {"d3ffffffff7fffffff", {1, 8}},
      {"ca3f800000", {1, 4}}, {"cb3ff0000000000000", {1, 8}}, {"a0", {1}}, {"a3616263", {1, 3}},
      {"d900", {1, 1}}, {"d903616263", {1, 1, 3}}, {"da0003616263", {1, 2, 3}}, {"db00000003616263", {1, 4, 3}},
      {"c403", {1, 1}}, {"c50003", {1, 2}}, {"c600000003", {1, 4}}, {"dc0010", {1, 2}}, {"dd00010000", {1, 4}},
      {"de0010", {1, 2}}, {"df00010000", {1, 4}}};
  // clang-format on
  for (const PieceCase& c : cases) {
    const msgpacktest::Bytes full = Hex(c.hex);
    RecordingStream whole(full);
    ASSERT_TRUE(TinyMsgPackReader(&whole).Read()) << c.hex;
    EXPECT_EQ(whole.reads, c.reads) << c.hex;
    for (size_t cut = 0; cut < full.size(); ++cut) {
      msgpacktest::Bytes input = {0xc3};
      input.insert(input.end(), full.begin(), full.begin() + cut);
      RecordingStream stream(input);
      TinyMsgPackReader reader(&stream);
      ASSERT_TRUE(reader.Read());
      EXPECT_FALSE(reader.Read()) << c.hex << " cut at " << cut;
      EXPECT_EQ(reader.type(), TinyMsgPackObject::Bool) << c.hex << " cut at " << cut;
    }
  }
}

struct TypedCase {
  std::string hex;
  std::function<std::string(TinyMsgPackReader&)> read;
  std::string outcome;
};

TEST(Reader, TypedReadsAndTheirMessages) {
  using R = TinyMsgPackReader&;
  auto str = [](auto v) { return std::to_string(v); };
  const TypedCase cases[] = {
      {"c3", [&](R r) { return str(r.ReadBool()); }, "1"},
      {"01", [&](R r) { return str(r.ReadBool()); }, "runtime_error: Expected boolean."},
      {"82", [&](R r) { return str(r.ReadMapCount()); }, "2"},
      {"92", [&](R r) { return str(r.ReadMapCount()); }, "runtime_error: Expected map."},
      {"92", [&](R r) { return str(r.ReadArrayCount()); }, "2"},
      {"82", [&](R r) { return str(r.ReadArrayCount()); }, "runtime_error: Expected array."},
      {"d005", [&](R r) { return str(r.ReadPosInteger()); }, "5"},
      {"ff", [&](R r) { return str(r.ReadPosInteger()); }, "runtime_error: Expected pos integer."},
      {"d005", [&](R r) { return str(r.ReadNegInteger()); }, "runtime_error: Expected neg integer."},
      {"d0df", [&](R r) { return str(r.ReadNegInteger()); }, "-33"},
      {"ff", [&](R r) { return str(r.ReadInteger()); }, "-1"},
      {"cf7fffffffffffffff", [&](R r) { return str(r.ReadInteger()); }, "9223372036854775807"},
      {"cf8000000000000000", [&](R r) { return str(r.ReadInteger()); },
       "runtime_error: Integer value out of range, expected int64_t."},
      {"cfffffffffffffffff", [&](R r) { return str(r.ReadPosInteger()); }, "18446744073709551615"},
      {"c0", [&](R r) { return str(r.ReadInteger()); }, "runtime_error: Expected integer."},
      {"c403", [&](R r) { return str(r.ReadBlobSize()); }, "3"},
      {"a0", [&](R r) { return str(r.ReadBlobSize()); }, "runtime_error: Expected blob."},
      {"a26869", [&](R r) { return r.ReadString(); }, "hi"},
      {"c403", [&](R r) { return r.ReadString(); }, "runtime_error: Expected string."},
      {"", [&](R r) { return str(r.ReadBool()); }, "runtime_error: Failed to read."},
      {"cd01", [&](R r) { return str(r.ReadPosInteger()); }, "runtime_error: Failed to read."},
  };
  for (const TypedCase& c : cases) {
    RecordingStream stream(Hex(c.hex));
    TinyMsgPackReader reader(&stream);
    std::string result;
    const std::string thrown = Thrown([&] { result = c.read(reader); });
    EXPECT_EQ(thrown == "no exception" ? result : thrown, c.outcome) << c.hex;
  }
}

TEST(Reader, BlobData) {
  unsigned char data[3] = {};
  RecordingStream stream(Hex("c403010203 c403 c403 0102"));
  TinyMsgPackReader reader(&stream);
  ASSERT_EQ(reader.ReadBlobSize(), 3u);
  reader.ReadBlobData(data, 3);
  EXPECT_EQ(msgpacktest::ToHex(data, 3), "010203");
  ASSERT_EQ(reader.ReadBlobSize(), 3u);
  EXPECT_EQ(Thrown([&] { reader.ReadBlobData(data, 2); }), "runtime_error: Must read entire blob.");
  ASSERT_EQ(reader.ReadBlobSize(), 3u);
  EXPECT_EQ(Thrown([&] { reader.ReadBlobData(data, 3); }), "runtime_error: Failed to read.");  // 2 bytes left
  RecordingStream other(Hex("05"));
  TinyMsgPackReader second(&other);
  ASSERT_TRUE(second.Read());
  EXPECT_EQ(Thrown([&] { second.ReadBlobData(data, 0); }), "runtime_error: Not a blob.");
}

// A field keeps its value until an item of its kind replaces it.
TEST(Reader, FieldsSurviveItemsOfOtherTypes) {
  RecordingStream stream(Hex("2a a26869 c3 93 c0"));
  TinyMsgPackReader reader(&stream);
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(reader.Read());
  EXPECT_EQ(reader.type(), TinyMsgPackObject::Nil);
  EXPECT_EQ(reader.posIntegerValue(), 42u);
  EXPECT_EQ(reader.stringValue(), "hi");
  EXPECT_TRUE(reader.boolValue());
  EXPECT_EQ(reader.count(), 3u);
}

}  // namespace
