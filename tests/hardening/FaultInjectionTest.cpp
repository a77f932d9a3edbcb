// Fault injection: the service client and the whole file system against a
// service that closes, hangs, dies, restarts or answers with anything at all.
// Every scenario checks the documented failure, that the host can still
// destroy the file system (bounded), and that descriptors, /dev/shm entries
// and threads are given back.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "client/CTrkClient.h"
#include "tests/hardening/HardeningSupport.h"
#include "trk/STrkInterfaceData.h"

namespace hardening {
namespace {

using FS = FakeService;

// `depth` arrays of one element nested around the integer 1.
std::vector<unsigned char> Nested(size_t depth) {
  std::vector<unsigned char> bytes(depth, 0x91);
  bytes.push_back(0x01);
  return bytes;
}

std::vector<unsigned char> operator+(std::vector<unsigned char> a, const std::vector<unsigned char>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Builds that replace the allocator cannot survive an allocation that the
// system refuses: the sanitizers end the process instead of throwing.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kRefusedAllocationsThrow = false;
#else
constexpr bool kRefusedAllocationsThrow = true;
#endif

// True when the kernel refuses a single allocation far beyond its memory
// (heuristic or strict overcommit) instead of granting it and letting the
// pages be found missing later.
bool HugeAllocationsAreRefused() {
  std::ifstream mode("/proc/sys/vm/overcommit_memory");
  int value = -1;
  mode >> value;
  return value == 0 || value == 2;
}

// --- The client on its own -------------------------------------------------

// What the stream is after a failed (or successful) command: in step (the
// answer was read whole), closed (by the service), or still open with the
// rest of an undecodable answer on it, which the next command reads as its
// answer: the well-formed answer behind it, or bytes that fail that command
// too.
enum class EAfter { kInStep, kClosed, kRestIsTheNextAnswer, kRestFailsTheNext };

struct StreamCase {
  const char* name;
  Reply reply;
  bool succeeds;
  EAfter after;
  bool hugeAllocation;  // needs an allocation the system refuses
};

std::vector<StreamCase> StreamCases() {
  const std::vector<unsigned char> answer = FS::Wire("81 A6'result' 81 A5'count' 05");
  return {
      {"closed before the answer", Reply::Close(), false, EAfter::kClosed, false},
      {"closed inside the answer", Reply::Raw(answer).CloseAfter(4), false, EAfter::kClosed, false},
      {"closed after the answer", Reply::Raw(answer).CloseAfter(answer.size()), true, EAfter::kClosed, false},
      {"error", Reply::Error("busy"), false, EAfter::kInStep, false},
      {"error not a string", Reply::Answer(FS::Map({{"error", 5}})), false, EAfter::kInStep, false},
      {"not a map", Reply::Raw(FS::Wire("93 01 02 03")), false, EAfter::kInStep, false},
      {"missing key", Reply::Result({{"cnt", 5}}), false, EAfter::kInStep, false},
      {"wrong type", Reply::Result({{"count", "5"}}), false, EAfter::kInStep, false},
      {"nesting at the bound", Reply::Raw(Nested(64)), false, EAfter::kInStep, false},
      // Undecodable answers with a well-formed answer behind them: the
      // client stays Connected and the next command reads on from there.
      {"garbage byte", Reply::Raw(FS::Wire("C1") + answer), false, EAfter::kRestIsTheNextAnswer, false},
      {"ext value", Reply::Raw(FS::Wire("D4 01 02") + answer), false, EAfter::kRestFailsTheNext, false},
      {"nesting too deep", Reply::Raw(Nested(65) + answer), false, EAfter::kRestFailsTheNext, false},
      {"key not a string", Reply::Raw(FS::Wire("81 01 02") + answer), false, EAfter::kRestFailsTheNext, false},
      // Counts and lengths that announce more than follows.
      {"array32 longer than sent", Reply::Raw(FS::Wire("DD 00 01 00 00 01 02 03")).CloseAfter(8), false,
       EAfter::kClosed, false},
      {"str32 longer than sent", Reply::Raw(FS::Wire("81 A6'result' DB 01 00 00 00 'abc'")).CloseAfter(15),
       false, EAfter::kClosed, false},
      {"bin32 longer than sent", Reply::Raw(FS::Wire("C6 00 10 00 00 01 02")).CloseAfter(7), false,
       EAfter::kClosed, false},
      {"map32 of 2^32-1", Reply::Raw(FS::Wire("DF FF FF FF FF") + answer), false, EAfter::kRestIsTheNextAnswer,
       true},
      {"array32 of 2^32-1", Reply::Raw(FS::Wire("DD FF FF FF FF") + answer), false, EAfter::kRestIsTheNextAnswer,
       true},
  };
}

class ClientFaultTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(m_fake.Start()); }
  void TearDown() override {
    m_fake.Stop();
    EXPECT_EQ(m_scenario.Leaks(), "");
  }

  Scenario m_scenario;
  FakeService m_fake;
};

// A command fails on every kind of bad answer, and only that command: the
// client stays Connected. After an answer read whole the stream is in step;
// after one the service cut short it is closed and later commands fail
// without traffic; after an undecodable one the next command is sent as usual
// and reads what the bad answer left on the stream.
TEST_F(ClientFaultTest, EveryBadAnswerFailsOnlyItsCommand) {
  for (const StreamCase& row : StreamCases()) {
    SCOPED_TRACE(row.name);
    if (row.hugeAllocation && (!kRefusedAllocationsThrow || !HugeAllocationsAreRefused())) continue;
    CTrkClient client;
    ASSERT_TRUE(client.Connect());
    m_fake.Enqueue(row.reply);
    unsigned int count = 99;
    EXPECT_EQ(client.ListMovies(count), row.succeeds);
    EXPECT_EQ(count, row.succeeds ? 5u : 99u);
    const size_t connections = m_fake.ConnectionCount();
    EXPECT_TRUE(client.Connect());  // still Connected: no new connection
    EXPECT_EQ(m_fake.ConnectionCount(), connections);

    count = 99;
    const size_t requests = m_fake.RequestCount();
    switch (row.after) {
      case EAfter::kInStep:
        m_fake.Enqueue(Reply::Result({{"count", 1}}));
        EXPECT_TRUE(client.ListMovies(count));
        EXPECT_EQ(count, 1u);
        break;
      case EAfter::kClosed:
        EXPECT_FALSE(client.ListMovies(count));
        EXPECT_EQ(count, 99u);
        EXPECT_EQ(m_fake.RequestCount(), requests);  // nothing reached the service
        break;
      case EAfter::kRestIsTheNextAnswer:
      case EAfter::kRestFailsTheNext:
        m_fake.Enqueue(Reply::Result({{"count", 1}}));
        EXPECT_EQ(client.ListMovies(count), row.after == EAfter::kRestIsTheNextAnswer);
        EXPECT_EQ(count, row.after == EAfter::kRestIsTheNextAnswer ? 5u : 99u);  // never its own answer
        EXPECT_TRUE(m_fake.WaitForRequests(requests + 1));  // the request was sent
        break;
    }
    client.Disconnect();
    ASSERT_TRUE(m_fake.WaitForOpenConnections(0));
  }
}

// The version check is read the same way: a bad answer leaves the client
// Idle, and the next Connect starts over on a new connection.
TEST_F(ClientFaultTest, BadVersionAnswersLeaveTheClientIdle) {
  const std::vector<Reply> replies = {Reply::Close(), Reply::Raw(Nested(65)), Reply::Raw(FS::Wire("C1 80")),
                                      Reply::Raw(FS::Wire("DB 00 00 10 00 'x'")).CloseAfter(6),
                                      Reply::Result({{"ver", "0"}})};
  for (size_t i = 0; i < replies.size(); ++i) {
    SCOPED_TRACE(i);
    const Reply reply = replies[i];
    m_fake.SetVersionHandler([reply](const Request&) { return reply; });
    CTrkClient client;
    EXPECT_FALSE(client.Connect());
    EXPECT_FALSE(client.DetectDrive());
    m_fake.SetVersionHandler([](const Request&) { return Reply::Result({{"ver", 0}}); });
    EXPECT_TRUE(client.Connect());
    m_fake.Enqueue(Reply::Result({{"detected", true}}));
    EXPECT_TRUE(client.DetectDrive());
  }
}

// A host thread blocked in a command on a service that fell silent in the
// middle of an answer is released by Shutdown from another thread.
TEST_F(ClientFaultTest, AnAnswerThatStopsHalfWayIsEndedByShutdown) {
  CTrkClient client;
  ASSERT_TRUE(client.Connect());
  ASSERT_TRUE(client.PrepareShutdown());
  m_fake.Enqueue(Reply::Result({{"count", 5}}).StallAfter(3));
  bool result = true;
  std::thread host([&] {
    unsigned int count = 0;
    result = client.ListMovies(count);
  });
  ASSERT_TRUE(m_fake.WaitForRequests(2));
  client.Shutdown();
  host.join();
  EXPECT_FALSE(result);
  unsigned int count = 0;
  EXPECT_FALSE(client.ListMovies(count));
}

// --- The file system -------------------------------------------------------

std::vector<FakeDrive::Movie> TwoMovies() { return {{12, "Run A", 8, 4, 6}, {13, "Run B", 8, 4, 6}}; }

constexpr size_t kFrameBytes = 8 * 4 * 2;

// One file system against a fake drive, with the resource accounting around
// it: Finish destroys the file system (bounded), then the drive and the fake,
// and returns what was not given back.
class Rig {
 public:
  explicit Rig(std::vector<FakeDrive::Movie> movies = TwoMovies()) : m_drive(new FakeDrive(m_fake)) {
    m_drive->SetMovies(std::move(movies));
    EXPECT_TRUE(m_fake.Start());
  }
  ~Rig() { Finish(); }

  // Builds the file system and waits until the monitoring thread reads
  // events (unless the scenario keeps it from doing so).
  void Build(bool waitForMonitoring = true) {
    m_fs = MakeFileSystem();
    if (waitForMonitoring) {
      EXPECT_TRUE(m_drive->WaitFor(kReadQueue, 1));
    }
  }
  std::string Finish() {
    if (m_fs) DestroyWithin(m_fs);
    m_drive.reset();
    m_fake.Stop();
    return m_scenario.Leaks();
  }
  // Waits until the monitoring thread has ended and closed its connection.
  bool MonitoringEnded() { return hardening::MonitoringEnded(*m_fs) && m_fake.WaitForOpenConnections(1); }

  zeb::trk::CTrkInterface& fs() { return *m_fs; }
  FakeDrive& drive() { return *m_drive; }
  FakeService& fake() { return m_fake; }
  // Service-side death: every connection closes, the segments go.
  void KillService() {
    m_drive.reset();
    m_fake.Stop();
  }
  // A new service on the same socket, with the same movies; returns the
  // connections the fake has seen so far.
  size_t RestartService() {
    m_drive.reset(new FakeDrive(m_fake));
    m_drive->SetMovies(TwoMovies());
    EXPECT_TRUE(m_fake.Start());
    return m_fake.ConnectionCount();
  }

 private:
  Scenario m_scenario;
  FakeService m_fake;
  std::unique_ptr<FakeDrive> m_drive;
  std::unique_ptr<zeb::trk::CTrkInterface> m_fs;
};

// Reads a whole movie file of six frames; the bytes must be the drive's.
void ExpectMovieReads(zeb::trk::CTrkInterface& fs, const std::string& path, unsigned int fileId) {
  EXPECT_EQ(WrongBytes(fs, path, fileId, kFrameBytes, 6 * kFrameBytes), 0) << path;
}

// The service closes the request connection before, inside or after its
// answer to the first movie list: the file system is built all the same, the
// closed connection fails every later request, and monitoring goes on.
TEST(FileSystemFaultTest, TheRequestConnectionClosesAroundTheFirstListing) {
  const std::vector<unsigned char> count = FS::Wire("81 A6'result' 81 A5'count' 02");
  struct Case {
    const char* name;
    Reply reply;
    std::vector<std::string> names;
  } cases[] = {
      {"before", Reply::Close(), {}},
      {"inside", Reply::Raw(count).CloseAfter(5), {}},
      // The count arrived; both descriptions fail and stay as all-zero records.
      {"after", Reply::Raw(count).CloseAfter(count.size()), {"0-", "0-"}},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.name);
    Rig rig;
    rig.drive().FaultOnce(kList, c.reply);
    rig.Build();
    EXPECT_EQ(Names(rig.fs().GetDirectoryListing("/", "")), c.names);
    EXPECT_FALSE(rig.fs().drivePresent());
    EXPECT_FALSE(rig.fs().OpenFile("/12-Run A", 0));  // not in the cache
    // A change event refreshes over the dead connection: empty cache,
    // handlers called.
    std::atomic<int> calls(0);
    rig.fs().AddFilesChangedHandler(zeb::delegate<void()>::FromLamda([&calls] { ++calls; }));
    rig.drive().Post(1);
    ASSERT_TRUE(rig.drive().WaitFor(kReadQueue, 2));
    EXPECT_EQ(calls.load(), 1);
    EXPECT_TRUE(rig.fs().GetDirectoryListing("/", "").entries.size() == 0);
    EXPECT_EQ(rig.Finish(), "");
  }
}

// The service dies after OpenMovie: reads fail with 0 bytes, the file and
// the file system still close, and the mapping is released. Then a new
// service starts: the plug-in does not reconnect. The cache keeps the last
// listing, every request fails, and the new service never hears from it.
TEST(FileSystemFaultTest, TheServiceDiesMidReadAndANewOneStarts) {
  Rig rig;
  rig.Build();
  {
    zeb::TSharedPtr<zeb::IFile> file = rig.fs().OpenFile("/12-Run A", 0);
    ASSERT_TRUE(file);
    ASSERT_EQ(file->GetSize(), static_cast<long>(6 * kFrameBytes));
    rig.KillService();
    std::vector<unsigned char> bytes(100, 0xEE);
    EXPECT_EQ(file->Read(bytes.data(), 100), 0u);
    EXPECT_EQ(file->GetPosition(), 0);
    EXPECT_EQ(bytes[0], 0xEE);
    EXPECT_FALSE(file->Close());
    EXPECT_TRUE(MonitoringEnded(rig.fs()));
  }
  const size_t connections = rig.RestartService();
  EXPECT_FALSE(rig.fs().drivePresent());
  EXPECT_EQ(Names(rig.fs().GetDirectoryListing("/", "")), (std::vector<std::string>{"12-Run A", "13-Run B"}));
  EXPECT_EQ(rig.fs().GetInfo("/12-Run A").type, 2u);
  {
    zeb::TSharedPtr<zeb::IFile> file = rig.fs().OpenFile("/12-Run A", 0);
    ASSERT_TRUE(file);
    EXPECT_EQ(file->GetSize(), 0);
  }
  EXPECT_FALSE(rig.fs().OpenFile("/12-Run A:info", 0));
  EXPECT_FALSE(rig.fs().RemoveFile("/12-Run A"));
  EXPECT_EQ(rig.Finish(), "");
  EXPECT_EQ(rig.fake().ConnectionCount(), connections);  // not even to destroy the queue
}

// A frame answered without the frame in the segment: the plug-in cannot
// tell, and hands out what the segment holds (zeros of a fresh segment).
TEST(FileSystemFaultTest, AFrameAnsweredWithoutWritingTheSegment) {
  Rig rig;
  rig.Build();
  rig.drive().SetWriteFrames(false);
  {
    zeb::TSharedPtr<zeb::IFile> file = rig.fs().OpenFile("/13-Run B", 0);
    ASSERT_TRUE(file);
    std::vector<unsigned char> bytes(kFrameBytes + 10, 0xEE);
    EXPECT_EQ(file->Read(bytes.data(), static_cast<unsigned int>(bytes.size())), bytes.size());
    EXPECT_EQ(bytes, std::vector<unsigned char>(bytes.size(), 0));
  }
  rig.drive().SetWriteFrames(true);
  ExpectMovieReads(rig.fs(), "/13-Run B", 1);
  EXPECT_EQ(rig.Finish(), "");
}

// OpenMovie answers that cannot give a readable file: a file of size 0 that
// reads nothing and asks for no frame; the next opening works.
TEST(FileSystemFaultTest, SegmentsThatCannotHoldAFrame) {
  struct Case {
    const char* name;
    size_t segmentBytes;        // 0: the drive's own answer
    std::optional<Reply> open;  // replaces the drive's answer
  };
  const Case cases[] = {
      {"one byte short", kFrameBytes - 1, std::nullopt},
      {"one byte", 1, std::nullopt},
      {"no such segment", 0, Reply::Result({{"mapping", "zebtrk-hard-no-such-segment"}})},
      {"empty name", 0, Reply::Result({{"mapping", ""}})},
      {"path outside /dev/shm", 0, Reply::Result({{"mapping", "../../etc/passwd"}})},
      {"mapping not a string", 0, Reply::Result({{"mapping", 3}})},
      {"no mapping", 0, Reply::Result()},
      {"error", 0, Reply::Error("cannot open")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<FakeDrive::Movie> movies = TwoMovies();
    movies[0].segmentBytes = c.segmentBytes;
    Rig rig(movies);
    rig.Build();
    if (c.open) rig.drive().FaultOnce(kOpen, *c.open);
    {
      zeb::TSharedPtr<zeb::IFile> file = rig.fs().OpenFile("/12-Run A", 0);
      ASSERT_TRUE(file);
      EXPECT_EQ(file->GetSize(), 0);
      unsigned char byte = 0xEE;
      EXPECT_EQ(file->Read(&byte, 1), 0u);
      EXPECT_EQ(byte, 0xEE);
    }
    EXPECT_EQ(rig.drive().Count(kFrame), 0);
    ExpectMovieReads(rig.fs(), "/13-Run B", 1);
    EXPECT_EQ(rig.Finish(), "");
  }
}

// Whatever answers the event read, monitoring ends (the event connection is
// closed) and nothing else is touched: the request connection, the cache and
// movie reads go on working.
TEST(FileSystemFaultTest, BadEventAnswersEndMonitoringOnly) {
  const std::vector<unsigned char> event = FS::Wire("81 A6'result' 81 A5'event' 82 A4'type' 01 A5'drive' 00");
  struct Case {
    const char* name;
    Reply reply;
  } cases[] = {
      {"closed", Reply::Close()},
      {"closed inside", Reply::Raw(event).CloseAfter(9)},
      {"error", Reply::Error("queue broken")},
      {"not a map", Reply::Raw(FS::Wire("C0"))},
      {"no event", Reply::Result()},
      {"no drive", Reply::Result({{"event", FS::Map({{"type", 1}})}})},
      {"type not a number", Reply::Result({{"event", FS::Map({{"type", "1"}, {"drive", 0}})}})},
      {"garbage", Reply::Raw(FS::Wire("C1") + event)},
      {"nesting too deep", Reply::Raw(Nested(65) + event)},
      {"map32 longer than sent", Reply::Raw(FS::Wire("DF 00 10 00 00 A1'a' 01")).CloseAfter(8)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Rig rig;
    rig.drive().FaultOnce(kReadQueue, c.reply);
    rig.Build(false);
    ASSERT_TRUE(rig.MonitoringEnded());
    EXPECT_EQ(rig.drive().Count(kList), 1);  // no refresh
    EXPECT_TRUE(rig.fs().drivePresent());
    EXPECT_EQ(Names(rig.fs().GetDirectoryListing("/", "")), (std::vector<std::string>{"12-Run A", "13-Run B"}));
    ExpectMovieReads(rig.fs(), "/12-Run A", 0);
    EXPECT_EQ(rig.Finish(), "");
  }
}

// Bad answers inside a refresh: the refresh ends with what it could read,
// the handlers are called once, and the request connection is closed only
// when the answer could not be read whole.
TEST(FileSystemFaultTest, BadAnswersInsideARefresh) {
  struct Case {
    const char* name;
    Reply reply;  // to the first description of the refresh
    bool requestsGoOn;
    std::vector<std::string> names;
  } cases[] = {
      {"wrong type", Reply::Result({{"info", 3}}), true, {"0-", "13-Run B"}},
      {"error", Reply::Error("gone"), true, {"0-", "13-Run B"}},
      {"garbage", Reply::Raw(FS::Wire("C1 80")), false, {"0-", "0-"}},
      {"nesting too deep", Reply::Raw(Nested(200)), false, {"0-", "0-"}},
      {"closed", Reply::Close(), false, {"0-", "0-"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Rig rig;
    rig.Build();
    std::atomic<int> calls(0);
    rig.fs().AddFilesChangedHandler(zeb::delegate<void()>::FromLamda([&calls] { ++calls; }));
    rig.drive().FaultOnce(kInfo, c.reply);
    rig.drive().Post(1);
    ASSERT_TRUE(rig.drive().WaitFor(kReadQueue, 2));  // the refresh is over
    EXPECT_EQ(calls.load(), 1);
    EXPECT_EQ(Names(rig.fs().GetDirectoryListing("/", "")), c.names);
    EXPECT_EQ(rig.fs().drivePresent(), c.requestsGoOn);
    EXPECT_EQ(rig.Finish(), "");
  }
}

// A service that falls silent never holds the host's exit: destruction
// returns within the limit however the silence falls.
TEST(FileSystemFaultTest, ASilentServiceDoesNotHoldTheHostsExit) {
  struct Case {
    const char* name;
    long long ord;
    Reply reply;
    bool always;
    bool refresh;  // post a change event after construction
  } cases[] = {
      {"event read never answered", kReadQueue, Reply::Never(), true, false},
      {"event answer stops half-way", kReadQueue, Reply::Result({{"event", FS::Map({{"type", 1}})}}).StallAfter(4),
       false, false},
      {"queue destruction never answered", kDestroyQueue, Reply::Never(), true, false},
      // The monitoring thread then holds the cache lock while it waits.
      {"refresh stops half-way", kInfo, Reply::Result({{"info", 1}}).StallAfter(3), false, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Rig rig;
    if (c.always) {
      rig.drive().FaultAlways(c.ord, c.reply);
    } else if (!c.refresh) {
      rig.drive().FaultOnce(c.ord, c.reply);
    }
    rig.Build();
    if (c.refresh) {
      rig.drive().FaultOnce(c.ord, c.reply);
      rig.drive().Post(1);
      ASSERT_TRUE(rig.drive().WaitFor(kInfo, 3));
    }
    EXPECT_EQ(rig.Finish(), "");
  }
}

}  // namespace
}  // namespace hardening
