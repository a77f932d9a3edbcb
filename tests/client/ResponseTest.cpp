// How commands judge their answers: the "error" rule, missing keys and wrong
// types, low-bit truncation, GetMovieInfo's field-by-field filling, blobs and
// WriteBytes failures. Out-parameters start from marker values, so a check
// sees exactly what a failed command wrote. Every case runs on a fresh
// client, which must still be Connected and in step afterwards.
#include <cstring>
#include <functional>
#include <string>

#include <zeb/CMemFile.h>

#include "client/CTrkClient.h"
#include "tests/client/ClientTestSupport.h"

namespace clienttest {
namespace {

using FS = FakeService;
using Object = TinyMsgPackObject;

// A memory file that refuses every write of 1 byte or more.
class RefusingFile : public zeb::CMemFile {
 public:
  unsigned int Write(const void*, unsigned int) override { return ++writes, 0; }
  int writes = 0;
};

struct Case {
  const char* name;
  Reply reply;
  bool expected;
  std::function<bool(CTrkClient&)> call;  // runs the command, checks its out-parameters
};

Reply With(std::initializer_list<FS::Field> fields) { return Reply::Answer(FS::Map(fields)); }

bool Count(CTrkClient& c, unsigned int expected) {
  unsigned int count = 99;
  bool result = c.ListMovies(count);
  EXPECT_EQ(count, expected);
  return result;
}

// "info" with every field valid, except that `field` holds `*value`, or is
// left out when `value` is null.
Object Info(const char* field, const FS::Value* value) {
  FS::Field all[] = {{"size", 1},   {"name", "m"},   {"width", 2},     {"height", 3},  {"numFrames", 4},
                     {"number", 5}, {"rtcTime", 6}, {"startTime", 7}, {"endTime", 8}, {"status", 9}};
  Object info = Object::CreateMap(0);
  for (const FS::Field& entry : all) {
    bool replaced = std::strcmp(entry.first, field) == 0;
    if (replaced && value == nullptr) continue;
    info.insert(entry.first, Object(replaced ? value->object() : entry.second.object()));
  }
  return info;
}

Reply InfoReply(const char* field, FS::Value value) { return Reply::Result({{"info", Info(field, &value)}}); }
Reply InfoWithout(const char* field) { return Reply::Result({{"info", Info(field, nullptr)}}); }

std::vector<Case> Cases() {
  auto movieInfo = [](std::function<void(const STrkMovieInfo&)> check) {
    return [check](CTrkClient& c) {
      STrkMovieInfo info;  // 0xEE bytes: every field not written keeps them
      std::memset(&info, 0xEE, sizeof(info));
      bool result = c.GetMovieInfo(0, &info);
      check(info);
      return result;
    };
  };
  auto mapping = [](CTrkClient& c) {
    zeb::CString name("before");
    bool result = c.OpenMovie(0, name);
    EXPECT_STREQ(name.c_str(), "before");
    return result;
  };
  auto event = [](uint32_t type, uint32_t drive) {
    return [type, drive](CTrkClient& c) {
      STrkEvent e = {77, 77};
      bool result = c.ReadEventQueue(0, e);
      EXPECT_EQ(e.type, type);
      EXPECT_EQ(e.drive, drive);
      return result;
    };
  };
  auto close = [](CTrkClient& c) { return c.CloseMovie(1); };
  return {
      // The "error" rule, on commands with and without results. (A plain
      // error, an error that is not a string, an answer that is not a map, a
      // missing key and answers that do not decode are in
      // tests/hardening/FaultInjectionTest.cpp.)
      {"empty error string", With({{"error", ""}, {"result", FS::Map({{"count", 1}})}}), false,
       [](CTrkClient& c) { return Count(c, 99); }},
      {"nil error", With({{"error", nullptr}, {"result", FS::Map({{"count", 4}})}}), true,
       [](CTrkClient& c) { return Count(c, 4); }},
      {"error, no results read", Reply::Error("busy"), false, close},
      {"nil error, no results read", With({{"error", nullptr}}), true, close},
      {"result not looked at", With({{"result", 5}}), true, close},
      {"empty map: ReadFrame", With({}), true, [](CTrkClient& c) { return c.ReadFrame(1, 2); }},
      {"empty map: DeleteMovie", With({}), true, [](CTrkClient& c) { return c.DeleteMovie(1); }},
      {"empty map: DeleteAllMovies", With({}), true, [](CTrkClient& c) { return c.DeleteAllMovies(); }},

      // Results: presence, type and width.
      {"count 0", Reply::Result({{"count", 0}}), true, [](CTrkClient& c) { return Count(c, 0); }},
      {"no result", With({}), false, [](CTrkClient& c) { return Count(c, 99); }},
      {"result not a map", With({{"result", 3}}), false, [](CTrkClient& c) { return Count(c, 99); }},
      {"count negative", Reply::Result({{"count", -1}}), false, [](CTrkClient& c) { return Count(c, 99); }},
      {"count float", Reply::Result({{"count", 1.5}}), false, [](CTrkClient& c) { return Count(c, 99); }},
      {"count low 32 bits", Reply::Result({{"count", (1ull << 32) + 5}}), true,
       [](CTrkClient& c) { return Count(c, 5); }},
      {"count in a signed form", Reply::Raw(FS::Wire("81 A6'result' 81 A5'count' D0 05")), true,
       [](CTrkClient& c) { return Count(c, 5); }},
      {"detected false", Reply::Result({{"detected", false}}), false, [](CTrkClient& c) { return c.DetectDrive(); }},
      {"detected 1", Reply::Result({{"detected", 1}}), false, [](CTrkClient& c) { return c.DetectDrive(); }},
      {"no index", Reply::Result(), false,
       [](CTrkClient& c) {
         unsigned int index = 99;
         bool result = c.GetMovieIndex("x", index);
         EXPECT_EQ(index, 99u);
         return result;
       }},

      // GetMovieInfo fills field by field.
      {"width 70000", InfoReply("width", 70000), true,
       movieInfo([](const STrkMovieInfo& i) { EXPECT_EQ(Val(i.width), 4464); })},
      {"size low 32 bits", InfoReply("size", (1ull << 32) + 7), true,
       movieInfo([](const STrkMovieInfo& i) { EXPECT_EQ(Val(i.size), 7u); })},
      {"63-character name", InfoReply("name", std::string(63, 'n')), true,
       movieInfo([](const STrkMovieInfo& i) { EXPECT_EQ(std::string(i.name), std::string(63, 'n')); })},
      {"64-character name", InfoReply("name", std::string(64, 'n')), true,
       movieInfo([](const STrkMovieInfo& i) {
         EXPECT_STREQ(i.name, "");
         EXPECT_EQ(Val(i.width), 2);  // the fields after it are still read
       })},
      {"name not a string", InfoReply("name", 12), false, movieInfo([](const STrkMovieInfo& i) {
         EXPECT_EQ(Val(i.size), 1u);
         EXPECT_EQ(static_cast<unsigned char>(i.name[0]), 0xEE);
         EXPECT_EQ(Val(i.width), 0xEEEE);
       })},
      {"no status", InfoWithout("status"), false, movieInfo([](const STrkMovieInfo& i) {
         EXPECT_STREQ(i.name, "m");
         EXPECT_EQ(Val(i.numFrames), 4u);
         EXPECT_EQ(Val(i.endTime), 8u);
         EXPECT_EQ(Val(i.status), 0xEEEEEEEEu);
       })},
      {"info not a map", Reply::Result({{"info", 1}}), false,
       movieInfo([](const STrkMovieInfo& i) { EXPECT_EQ(Val(i.size), 0xEEEEEEEEu); })},

      // OpenMovie, ReadInfoFile, ReadEventQueue.
      {"mapping absent", Reply::Result(), false, mapping},
      {"mapping not a string", Reply::Result({{"mapping", 4}}), false, mapping},
      {"empty data blob", Reply::Result({{"data", FS::Blob({})}}), true,
       [](CTrkClient& c) {
         zeb::TSharedPtr<zeb::CMemFile> file = zeb::CMemFile::Create();
         bool result = c.ReadInfoFile(0, file);
         EXPECT_EQ(file->GetSize(), 0);
         return result;
       }},
      {"data not a blob", Reply::Result({{"data", "text"}}), false,
       [](CTrkClient& c) { return c.ReadInfoFile(0, zeb::CMemFile::Create()); }},
      {"WriteBytes fails", Reply::Result({{"data", FS::Blob({1, 2})}}), false,
       [](CTrkClient& c) {
         auto* file = new RefusingFile;
         zeb::TSharedPtr<zeb::IFile> held(file);
         bool result = c.ReadInfoFile(0, held);
         EXPECT_GE(file->writes, 1);
         return result;
       }},
      {"event without drive", Reply::Result({{"event", FS::Map({{"type", 1}})}}), false, event(1, 77)},
      {"no event", Reply::Result(), false, event(77, 77)},
  };
}

TEST_F(ClientTest, CommandsJudgeTheirAnswers) {
  for (const Case& row : Cases()) {
    SCOPED_TRACE(row.name);
    CTrkClient client;
    ASSERT_TRUE(client.Connect());
    m_fake.Enqueue(row.reply);
    EXPECT_EQ(row.call(client), row.expected);
    // Still Connected and in step: the next command goes out and succeeds.
    m_fake.Enqueue(Reply::Result({{"count", 1}}));
    unsigned int count = 0;
    EXPECT_TRUE(client.ListMovies(count));
    EXPECT_EQ(count, 1u);
  }
}

}  // namespace
}  // namespace clienttest
