// TinyMsgPackWriter: the exact bytes of every form at its boundaries, and how
// they are split into Stream::Write calls (one per header, one per payload).
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "msgpack/TinyMsgPackWriter.h"
#include "tests/msgpack/TestUtil.h"

using msgpacktest::RecordingStream;
using Calls = std::vector<std::string>;

namespace {

Calls Record(const std::function<void(TinyMsgPackWriter&)>& write) {
  RecordingStream stream;
  TinyMsgPackWriter writer(&stream);
  write(writer);
  return stream.writes;
}

struct ScalarCase {
  std::function<void(TinyMsgPackWriter&)> write;
  std::string bytes;  // the single Write call
};

TEST(Writer, ScalarFormsAtEveryBoundary) {
  using W = TinyMsgPackWriter&;
  const ScalarCase cases[] = {
      {[](W w) { w.WriteNil(); }, "c0"},
      {[](W w) { w.WriteBool(false); }, "c2"},
      {[](W w) { w.WriteBool(true); }, "c3"},
      {[](W w) { w.WritePosInteger(0); }, "00"},
      {[](W w) { w.WritePosInteger(127); }, "7f"},
      {[](W w) { w.WritePosInteger(128); }, "cc80"},
      {[](W w) { w.WritePosInteger(255); }, "ccff"},
      {[](W w) { w.WritePosInteger(256); }, "cd0100"},
      {[](W w) { w.WritePosInteger(65535); }, "cdffff"},
      {[](W w) { w.WritePosInteger(65536); }, "ce00010000"},
      {[](W w) { w.WritePosInteger(4294967295u); }, "ceffffffff"},
      {[](W w) { w.WritePosInteger(4294967296u); }, "cf0000000100000000"},
      {[](W w) { w.WritePosInteger(UINT64_MAX); }, "cfffffffffffffffff"},
      {[](W w) { w.WriteNegInteger(0); }, "00"},
      {[](W w) { w.WriteNegInteger(127); }, "7f"},
      {[](W w) { w.WriteNegInteger(200); }, "ccc8"},
      {[](W w) { w.WriteNegInteger(65536); }, "ce00010000"},
      {[](W w) { w.WriteNegInteger(INT64_MAX); }, "cf7fffffffffffffff"},
      {[](W w) { w.WriteNegInteger(-1); }, "ff"},
      {[](W w) { w.WriteNegInteger(-32); }, "e0"},
      {[](W w) { w.WriteNegInteger(-33); }, "d0df"},
      {[](W w) { w.WriteNegInteger(-128); }, "d080"},
      {[](W w) { w.WriteNegInteger(-129); }, "d1ff7f"},
      {[](W w) { w.WriteNegInteger(-32768); }, "d18000"},
      {[](W w) { w.WriteNegInteger(-32769); }, "d2ffff7fff"},
      {[](W w) { w.WriteNegInteger(INT32_MIN); }, "d280000000"},
      {[](W w) { w.WriteNegInteger(int64_t(INT32_MIN) - 1); }, "d3ffffffff7fffffff"},
      {[](W w) { w.WriteNegInteger(INT64_MIN); }, "d38000000000000000"},
      {[](W w) { w.WriteFloat(1.0f); }, "ca3f800000"},
      {[](W w) { w.WriteFloat(-2.5f); }, "cac0200000"},
      {[](W w) { w.WriteDouble(1.0); }, "cb3ff0000000000000"},
      {[](W w) { w.WriteDouble(-2.5); }, "cbc004000000000000"},
      {[](W w) { w.StartArray(0); }, "90"},
      {[](W w) { w.StartArray(15); }, "9f"},
      {[](W w) { w.StartArray(16); }, "dc0010"},
      {[](W w) { w.StartArray(65535); }, "dcffff"},
      {[](W w) { w.StartArray(65536); }, "dd00010000"},
      {[](W w) { w.StartArray(UINT32_MAX); }, "ddffffffff"},
      {[](W w) { w.StartMap(0); }, "80"},
      {[](W w) { w.StartMap(15); }, "8f"},
      {[](W w) { w.StartMap(16); }, "de0010"},
      {[](W w) { w.StartMap(65535); }, "deffff"},
      {[](W w) { w.StartMap(65536); }, "df00010000"},
      {[](W w) { w.StartMap(UINT32_MAX); }, "dfffffffff"},
  };
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(Record(cases[i].write), Calls{cases[i].bytes}) << "case " << i;
}

enum class Kind { String, Blob, Ext };

struct PayloadCase {
  Kind kind;
  uint32_t size;
  int8_t extType;
  std::string header;
};

// Header in one call, then the payload in a call of its own, even when empty.
TEST(Writer, PayloadHeadersAtEveryBoundary) {
  const PayloadCase cases[] = {
      {Kind::String, 0, 0, "a0"},          {Kind::String, 1, 0, "a1"},
      {Kind::String, 31, 0, "bf"},         {Kind::String, 32, 0, "d920"},
      {Kind::String, 255, 0, "d9ff"},      {Kind::String, 256, 0, "da0100"},
      {Kind::String, 65535, 0, "daffff"},  {Kind::String, 65536, 0, "db00010000"},
      {Kind::Blob, 0, 0, "c400"},          {Kind::Blob, 1, 0, "c401"},
      {Kind::Blob, 255, 0, "c4ff"},        {Kind::Blob, 256, 0, "c50100"},
      {Kind::Blob, 65535, 0, "c5ffff"},    {Kind::Blob, 65536, 0, "c600010000"},
      {Kind::Ext, 0, 1, "c70001"},         {Kind::Ext, 1, 1, "d401"},
      {Kind::Ext, 2, 2, "d502"},           {Kind::Ext, 3, -1, "c703ff"},
      {Kind::Ext, 4, 4, "d604"},           {Kind::Ext, 8, 8, "d708"},
      {Kind::Ext, 16, 5, "d805"},          {Kind::Ext, 17, -128, "c71180"},
      {Kind::Ext, 255, 0, "c7ff00"},       {Kind::Ext, 256, 127, "c801007f"},
      {Kind::Ext, 65535, 3, "c8ffff03"},   {Kind::Ext, 65536, 3, "c90001000003"},
  };
  for (const PayloadCase& c : cases) {
    std::string payload(c.size, 'x');
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = char('a' + i % 26);
    const Calls calls = Record([&](TinyMsgPackWriter& w) {
      if (c.kind == Kind::String) w.WriteString(payload.data(), payload.size());
      if (c.kind == Kind::Blob) w.WriteBlob(payload.data(), c.size);
      if (c.kind == Kind::Ext) w.WriteExt(c.extType, payload.data(), c.size);
    });
    ASSERT_EQ(calls.size(), 2u) << c.header;
    EXPECT_EQ(calls[0], c.header);
    EXPECT_EQ(calls[1], msgpacktest::ToHex(payload.data(), payload.size())) << c.header;
  }
}

TEST(Writer, RequestMapIsEightWriteCalls) {
  const Calls calls = Record([](TinyMsgPackWriter& w) {
    w.StartMap(2);
    w.WriteString("act", size_t(-1));
    w.WriteString("exec", 4);
    w.WriteString(std::string("ord"));
    w.WritePosInteger(1);
  });
  EXPECT_EQ(calls, (Calls{"82", "a3", "616374", "a4", "65786563", "a3", "6f7264", "01"}));
}

TEST(Writer, StringLengthRules) {
  const char text[] = "a\0b";  // 3 bytes, a zero inside
  EXPECT_EQ(Record([](TinyMsgPackWriter& w) { w.WriteString("hello", size_t(-1)); }),
            Record([](TinyMsgPackWriter& w) { w.WriteString("hello", std::strlen("hello")); }));
  EXPECT_EQ(Record([&](TinyMsgPackWriter& w) { w.WriteString(std::string(text, 3)); }), (Calls{"a3", "610062"}));
  EXPECT_EQ(Record([&](TinyMsgPackWriter& w) { w.WriteString(text, size_t(-1)); }), (Calls{"a1", "61"}));
  EXPECT_EQ(Record([](TinyMsgPackWriter& w) { w.WriteString(nullptr, size_t(-1)); }), (Calls{"a0", ""}));
}

TEST(Writer, RawBytesAndIgnoredStreamFailure) {
  RecordingStream stream;
  stream.writeResult = 0;  // every write "fails": the writer goes on regardless
  TinyMsgPackWriter writer(&stream);
  const unsigned char raw[] = {0xc1, 0x00, 0xff};
  writer.WriteBytes(raw, sizeof raw);
  writer.WriteString("ab", 2);
  writer.WriteNil();
  EXPECT_EQ(stream.writes, (Calls{"c100ff", "a2", "6162", "c0"}));
}

}  // namespace
