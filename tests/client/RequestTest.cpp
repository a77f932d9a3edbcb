// Every command's request, byte for byte (the version check included), and
// the results it reads from a good answer. Integers go out in their smallest
// unsigned form. Arguments that cannot be used fail before anything is sent.
#include <functional>
#include <string>

#include <zeb/CMemFile.h>

#include "client/CTrkClient.h"
#include "tests/client/ClientTestSupport.h"

namespace clienttest {
namespace {

using FS = FakeService;

struct Exchange {
  const char* name;
  Reply reply;
  std::string wire;                        // the request, in FakeService::Wire notation
  std::function<void(CTrkClient&)> check;  // runs the command and checks its results
};

std::string Cmd(const char* head, const char* rest) { return std::string(head) + rest; }

TinyMsgPackObject FullInfo() {
  return FS::Map({{"size", 4000000000u},
                  {"name", "Run A"},
                  {"width", 640},
                  {"height", 512},
                  {"numFrames", 5000000000ull},
                  {"number", 12},
                  {"rtcTime", 1700000000},
                  {"startTime", 0x0123456789ABCDEFull},
                  {"endTime", 0xFEDCBA9876543210ull},
                  {"status", 3}});
}

std::vector<Exchange> Exchanges() {
  return {
      {"DetectDrive", Reply::Result({{"detected", true}}), Cmd(kCommand2, "00"),
       [](CTrkClient& c) { EXPECT_TRUE(c.DetectDrive()); }},
      {"ListMovies", Reply::Result({{"count", 3}}), Cmd(kCommand2, "01"),
       [](CTrkClient& c) {
         unsigned int count = 0;
         EXPECT_TRUE(c.ListMovies(count));
         EXPECT_EQ(count, 3u);
       }},
      {"GetMovieInfo", Reply::Result({{"info", FullInfo()}}), Cmd(kCommand3, "02 A6'params' 81 A5'index' 05"),
       [](CTrkClient& c) {
         STrkMovieInfo info = {};
         EXPECT_TRUE(c.GetMovieInfo(5, &info));
         EXPECT_EQ(Val(info.size), 4000000000u);
         EXPECT_STREQ(info.name, "Run A");
         EXPECT_EQ(Val(info.width), 640);
         EXPECT_EQ(Val(info.height), 512);
         EXPECT_EQ(Val(info.numFrames), 5000000000ull);
         EXPECT_EQ(Val(info.number), 12u);
         EXPECT_EQ(Val(info.rtcTime), 1700000000u);
         EXPECT_EQ(Val(info.startTime), 0x0123456789ABCDEFull);
         EXPECT_EQ(Val(info.endTime), 0xFEDCBA9876543210ull);
         EXPECT_EQ(Val(info.status), 3u);
       }},
      {"GetMovieIndex", Reply::Result({{"index", 7}}), Cmd(kCommand3, "03 A6'params' 81 A4'name' A5'Run A'"),
       [](CTrkClient& c) {
         unsigned int index = 0;
         EXPECT_TRUE(c.GetMovieIndex("Run A", index));
         EXPECT_EQ(index, 7u);
       }},
      {"OpenMovie", Reply::Result({{"mapping", "/zebtrk-frames-1"}}),
       Cmd(kCommand3, "04 A6'params' 81 A6'fileId' CC C8"),
       [](CTrkClient& c) {
         zeb::CString mapping;
         EXPECT_TRUE(c.OpenMovie(200, mapping));
         EXPECT_STREQ(mapping.c_str(), "/zebtrk-frames-1");
       }},
      {"CloseMovie", Reply::Result(), Cmd(kCommand3, "05 A6'params' 81 A6'fileId' CD 01 2C"),
       [](CTrkClient& c) { EXPECT_TRUE(c.CloseMovie(300)); }},
      {"ReadFrame", Reply::Result(), "83 A3'act' A4'exec' A3'ord' 06 A6'params' 82 A6'fileId' 02 AB'frameNumber' 11",
       [](CTrkClient& c) { EXPECT_TRUE(c.ReadFrame(2, 17)); }},
      {"ReadFrame, wide numbers", Reply::Result(),
       Cmd(kCommand3, "06 A6'params' 82 A6'fileId' CE 00 01 11 70 AB'frameNumber' CF 00 00 00 01 00 00 00 00"),
       [](CTrkClient& c) { EXPECT_TRUE(c.ReadFrame(70000, 1ul << 32)); }},
      {"DeleteMovie", Reply::Result(), Cmd(kCommand3, "07 A6'params' 81 A6'fileId' CE FF FF FF FF"),
       [](CTrkClient& c) { EXPECT_TRUE(c.DeleteMovie(0xFFFFFFFFu)); }},
      {"DeleteAllMovies", Reply::Result(), Cmd(kCommand2, "08"),
       [](CTrkClient& c) { EXPECT_TRUE(c.DeleteAllMovies()); }},
      {"ReadInfoFile", Reply::Result({{"data", FS::Blob({'X', 'Y'})}}),
       Cmd(kCommand3, "09 A6'params' 81 A6'fileId' 01"),
       [](CTrkClient& c) {
         // Written at the file's position; the client neither seeks nor closes.
         zeb::TSharedPtr<zeb::CMemFile> file = zeb::CMemFile::Create("abcd", 4);
         file->Seek(1, zeb::IFile::kSeekBegin);
         EXPECT_TRUE(c.ReadInfoFile(1, file));
         EXPECT_EQ(std::string(reinterpret_cast<const char*>(file->data()), file->GetSize()), "aXYd");
         EXPECT_EQ(file->GetPosition(), 3);
       }},
      {"CreateEventQueue", Reply::Result({{"queueId", 4294967295u}}), Cmd(kCommand2, "0A"),
       [](CTrkClient& c) {
         unsigned int queueId = 0;
         EXPECT_TRUE(c.CreateEventQueue(queueId));
         EXPECT_EQ(queueId, 0xFFFFFFFFu);
       }},
      {"DestroyEventQueue", Reply::Result(), Cmd(kCommand3, "0B A6'params' 81 A7'queueId' 7F"),
       [](CTrkClient& c) { EXPECT_TRUE(c.DestroyEventQueue(127)); }},
      {"ReadEventQueue, queue 128", Reply::Result({{"event", FS::Map({{"drive", 2}, {"type", 5}})}}),
       Cmd(kCommand3, "0C A6'params' 81 A7'queueId' CC 80"),
       [](CTrkClient& c) {
         STrkEvent event = {};
         EXPECT_TRUE(c.ReadEventQueue(128, event));
         EXPECT_EQ(event.type, 5u);
         EXPECT_EQ(event.drive, 2u);
       }},
  };
}

TEST_F(ClientTest, EveryCommandSendsItsExactRequestAndReadsItsResults) {
  CTrkClient client;
  ASSERT_TRUE(client.Connect());
  ASSERT_EQ(m_fake.RequestCount(), 1u);
  EXPECT_EQ(Hex(m_fake.Requests()[0].bytes), Hex(FS::Wire("82 A3'act' A8'verCheck' A3'ver' 00")));
  for (const Exchange& row : Exchanges()) {
    SCOPED_TRACE(row.name);
    size_t before = m_fake.RequestCount();
    m_fake.Enqueue(row.reply);
    row.check(client);
    std::vector<Request> requests = m_fake.Requests();
    ASSERT_EQ(requests.size(), before + 1);
    EXPECT_TRUE(requests.back().complete);
    EXPECT_EQ(Hex(requests.back().bytes), Hex(FS::Wire(row.wire)));
  }
}

TEST_F(ClientTest, ArgumentsThatCannotBeUsedFailWithoutTraffic) {
  CTrkClient client;
  ASSERT_TRUE(client.Connect());
  unsigned int index = 0;
  EXPECT_FALSE(client.GetMovieInfo(0, nullptr));
  EXPECT_FALSE(client.GetMovieIndex(nullptr, index));
  EXPECT_FALSE(client.ReadInfoFile(0, zeb::TSharedPtr<zeb::IFile>()));
  m_fake.Enqueue(Reply::Result({{"count", 1}}));
  EXPECT_TRUE(client.ListMovies(index));
  EXPECT_EQ(m_fake.RequestCount(), 2u);  // the version check and ListMovies
}

}  // namespace
}  // namespace clienttest
