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

template <class T, class Write>
void ExpectForms(std::initializer_list<std::pair<T, const char*>> cases, Write write) {
  for (const auto& c : cases)
    EXPECT_EQ(Record([&](TinyMsgPackWriter& w) { write(w, c.first); }), Calls{c.second}) << c.second;
}

// Each value is one Write call of the smallest form.
TEST(Writer, ScalarFormsAtEveryBoundary) {
  using W = TinyMsgPackWriter&;
  ExpectForms<uint64_t>({{0, "00"},
                         {127, "7f"},
                         {128, "cc80"},
                         {255, "ccff"},
                         {256, "cd0100"},
                         {65535, "cdffff"},
                         {65536, "ce00010000"},
                         {4294967295u, "ceffffffff"},
                         {4294967296u, "cf0000000100000000"},
                         {UINT64_MAX, "cfffffffffffffffff"}},
                        [](W w, uint64_t v) { w.WritePosInteger(v); });
  ExpectForms<int64_t>({{0, "00"},
                        {127, "7f"},
                        {200, "ccc8"},
                        {65536, "ce00010000"},
                        {INT64_MAX, "cf7fffffffffffffff"},
                        {-1, "ff"},
                        {-32, "e0"},
                        {-33, "d0df"},
                        {-128, "d080"},
                        {-129, "d1ff7f"},
                        {-32768, "d18000"},
                        {-32769, "d2ffff7fff"},
                        {INT32_MIN, "d280000000"},
                        {int64_t(INT32_MIN) - 1, "d3ffffffff7fffffff"},
                        {INT64_MIN, "d38000000000000000"}},
                       [](W w, int64_t v) { w.WriteNegInteger(v); });
  ExpectForms<uint32_t>(
      {{0, "90"}, {15, "9f"}, {16, "dc0010"}, {65535, "dcffff"}, {65536, "dd00010000"}, {UINT32_MAX, "ddffffffff"}},
      [](W w, uint32_t v) { w.StartArray(v); });
  ExpectForms<uint32_t>(
      {{0, "80"}, {15, "8f"}, {16, "de0010"}, {65535, "deffff"}, {65536, "df00010000"}, {UINT32_MAX, "dfffffffff"}},
      [](W w, uint32_t v) { w.StartMap(v); });
  ExpectForms<int>({{0, "c0"}, {1, "c2"}, {2, "c3"}}, [](W w, int v) { v ? w.WriteBool(v == 2) : w.WriteNil(); });
  ExpectForms<float>({{1.0f, "ca3f800000"}, {-2.5f, "cac0200000"}}, [](W w, float v) { w.WriteFloat(v); });
  ExpectForms<double>({{1.0, "cb3ff0000000000000"}, {-2.5, "cbc004000000000000"}},
                      [](W w, double v) { w.WriteDouble(v); });
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
      {Kind::String, 0, 0, "a0"},         {Kind::String, 1, 0, "a1"},
      {Kind::String, 31, 0, "bf"},        {Kind::String, 32, 0, "d920"},
      {Kind::String, 255, 0, "d9ff"},     {Kind::String, 256, 0, "da0100"},
      {Kind::String, 65535, 0, "daffff"}, {Kind::String, 65536, 0, "db00010000"},
      {Kind::Blob, 0, 0, "c400"},         {Kind::Blob, 1, 0, "c401"},
      {Kind::Blob, 255, 0, "c4ff"},       {Kind::Blob, 256, 0, "c50100"},
      {Kind::Blob, 65535, 0, "c5ffff"},   {Kind::Blob, 65536, 0, "c600010000"},
      {Kind::Ext, 0, 1, "c70001"},        {Kind::Ext, 1, 1, "d401"},
      {Kind::Ext, 2, 2, "d502"},          {Kind::Ext, 3, -1, "c703ff"},
      {Kind::Ext, 4, 4, "d604"},          {Kind::Ext, 8, 8, "d708"},
      {Kind::Ext, 16, 5, "d805"},         {Kind::Ext, 17, -128, "c71180"},
      {Kind::Ext, 255, 0, "c7ff00"},      {Kind::Ext, 256, 127, "c801007f"},
      {Kind::Ext, 65535, 3, "c8ffff03"},  {Kind::Ext, 65536, 3, "c90001000003"},
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

// Written item by item and as a tree through WriteObject, one request is the
// same eight calls.
TEST(Writer, RequestMapIsEightWriteCalls) {
  const Calls expected = {"82", "a3", "616374", "a4", "65786563", "a3", "6f7264", "01"};
  EXPECT_EQ(Record([](TinyMsgPackWriter& w) {
              w.StartMap(2);
              w.WriteString("act", size_t(-1));
              w.WriteString("exec", 4);
              w.WriteString(std::string("ord"));
              w.WritePosInteger(1);
            }),
            expected);
  TinyMsgPackObject request = TinyMsgPackObject::CreateMap(2);
  request.insert("act", TinyMsgPackObject::CreateString("exec", UINT32_MAX))
      .insert("ord", TinyMsgPackObject::CreatePosInteger(1));
  EXPECT_EQ(Record([&](TinyMsgPackWriter& w) { w.WriteObject(request); }), expected);
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
