// The file system against a fake drive on /tmp/zebtrksvc: construction and
// its requests on the wire, drive queries, the monitoring thread and its
// events, and destruction when the service answers, refuses or hangs.
// Refreshes amid host threads and bad service answers are the hardening
// tests' (tests/hardening).
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>

#include <zeb/CUriHandler.h>

#include "tests/support/FakeDrive.h"
#include "tests/support/ResourceSnapshot.h"
#include "tests/trk/TrkTestSupport.h"

namespace {

using namespace testsupport;
using Reply = FakeService::Reply;
using Request = FakeService::Request;
using trktest::Names;

// "c:act" or "c:ord" or "c:ord(param)" per request, c the connection.
std::string Trace(const std::vector<Request>& requests) {
  std::string trace;
  for (const Request& r : requests) {
    trace += std::to_string(r.connection) + ":";
    if (r.act() == "verCheck") {
      trace += "ver";
    } else {
      trace += std::to_string(r.ord());
      const char* key = r.ord() == kInfo ? "index" : r.ord() >= kDestroyQueue ? "queueId" : nullptr;
      if (key) trace += "(" + std::to_string(r.param(key)) + ")";
    }
    trace += " ";
  }
  return trace;
}

zeb::delegate<void()> Counting(std::atomic<int>& calls) {
  return zeb::delegate<void()>::FromLamda([&calls] { ++calls; });
}

class MonitoringTest : public ::testing::Test {
 protected:
  MonitoringTest() : m_emulator("ZEBTRK_ENABLE_EMULATOR", std::nullopt) {}
  void SetUp() override { ASSERT_TRUE(m_fake.Start()); }
  // Every test destroys its file system before this: nothing may be left
  // open once the fake has closed its ends.
  void TearDown() override {
    m_drive.Close();
    m_fake.Stop();
    EXPECT_EQ(m_before.Leaks(), "");
  }

  // Waits until the monitoring thread has sent its `n`-th event read; it
  // reads again only once a refresh (handlers included) is over.
  void WaitForReads(long n) { ASSERT_TRUE(m_drive.WaitFor(kReadQueue, n)); }

  ScopedEnv m_emulator;
  ResourceSnapshot m_before;
  FakeService m_fake;
  FakeDrive m_drive{m_fake};
};

TEST(ConstructionTest, WithoutAService) {
  ResourceSnapshot before;
  for (const char* value : {"", static_cast<const char*>(nullptr)}) {
    SCOPED_TRACE(value ? "empty ZEBTRK_ENABLE_EMULATOR" : "no ZEBTRK_ENABLE_EMULATOR");
    ScopedEnv emulator("ZEBTRK_ENABLE_EMULATOR", value ? std::optional<std::string>(value) : std::nullopt);
    zeb::trk::CTrkInterface fs;
    EXPECT_FALSE(fs.data()->emulator);
    EXPECT_FALSE(fs.drivePresent());
    EXPECT_FALSE(fs.data()->thread.joinable());
    EXPECT_EQ(fs.data()->queueId, 0xFFFFFFFFu);
    EXPECT_EQ(fs.GetDirectoryListing("/", "").entries.size(), 0u);
    EXPECT_EQ(zeb::CUriHandler::instance()->FileSystemForPath("trk:///"), &fs);
  }
  EXPECT_EQ(before.Leaks(), "");
}

TEST_F(MonitoringTest, NoDriveThenAChangeEventFillsTheCache) {
  m_drive.SetDrive(false);
  m_drive.SetMovies({{12, "Run A", 4, 2, 5}, {13, "Test", 4, 2, 5}});
  {
    zeb::trk::CTrkInterface fs;
    WaitForReads(1);
    EXPECT_EQ(Trace(m_fake.Requests()), "0:ver 0:0 1:ver 1:10 1:12(7) ");
    EXPECT_EQ(fs.data()->queueId, kQueueId);
    EXPECT_EQ(fs.GetDirectoryListing("/", "").entries.size(), 0u);
    EXPECT_FALSE(fs.drivePresent());
    m_drive.SetDrive(true);
    EXPECT_TRUE(fs.drivePresent());  // asked anew each time
    EXPECT_EQ(m_drive.Count(kDetect), 3);

    std::atomic<int> first(0), second(0);
    fs.AddFilesChangedHandler(Counting(first));
    fs.AddFilesChangedHandler(Counting(second));
    m_drive.Post(1);
    WaitForReads(2);
    EXPECT_EQ(first.load(), 1);
    EXPECT_EQ(second.load(), 1);
    EXPECT_EQ(Names(fs.GetDirectoryListing("/", "")), (std::vector<std::string>{"12-Run A", "13-Test"}));
  }
  // The queue was destroyed over the request connection.
  EXPECT_NE(Trace(m_fake.Requests()).find("0:11(7) "), std::string::npos);
}

// The first refresh at construction; the list claims a third movie that
// cannot be described, whose record stays in the cache all-zero.
TEST_F(MonitoringTest, MoviesAtConstruction) {
  m_drive.SetMovies({{12, "Run A", 640, 480, 100}, {13, "Test", 4, 2, 5}});
  m_drive.FaultOnce(kList, Reply::Result({{"count", 3}}));
  zeb::trk::CTrkInterface fs;
  WaitForReads(1);
  EXPECT_EQ(Trace(m_fake.Requests()), "0:ver 0:0 0:1 0:2(0) 0:2(1) 0:2(2) 1:ver 1:10 1:12(7) ");
  const zeb::IFileSystem::CDirectoryListing listing = fs.GetDirectoryListing("trk:///", "");
  ASSERT_EQ(Names(listing), (std::vector<std::string>{"12-Run A", "13-Test", "0-"}));
  EXPECT_EQ(listing.entries[0].size, 61440000u);
  EXPECT_EQ(listing.entries[2].size, 0u);
  EXPECT_EQ(trktest::Prop(listing.entries[2], "index"), "2");
  EXPECT_EQ(fs.GetInfo("/13-Test").type, 2u);
}

// Types other than 0 and 1 are skipped, 1 refreshes, 0 ends monitoring.
TEST_F(MonitoringTest, EventTypes) {
  m_drive.SetMovies({{1, "a", 4, 2, 5}});
  zeb::trk::CTrkInterface fs;
  std::atomic<int> calls(0);
  fs.AddFilesChangedHandler(Counting(calls));
  WaitForReads(1);
  m_drive.Post(2);
  m_drive.Post(7);
  m_drive.Post(1);
  WaitForReads(4);
  EXPECT_EQ(m_drive.Count(kList), 2);
  EXPECT_EQ(calls.load(), 1);
  m_drive.Post(0);
  ASSERT_TRUE(m_fake.WaitForOpenConnections(1));  // the event connection is closed
  EXPECT_EQ(m_drive.Count(kReadQueue), 4);
  EXPECT_EQ(calls.load(), 1);
}

// A host's handler that throws ends monitoring and nothing else.
TEST_F(MonitoringTest, AThrowingHandlerEndsMonitoringOnly) {
  m_drive.SetMovies({{1, "a", 4, 2, 5}});
  std::atomic<int> calls(0);
  zeb::trk::CTrkInterface fs;
  WaitForReads(1);
  fs.AddFilesChangedHandler(zeb::delegate<void()>::FromLamda([&calls] {
    ++calls;
    throw std::runtime_error("a host's handler failed");
  }));
  m_drive.Post(1);
  ASSERT_TRUE(m_fake.WaitForOpenConnections(1));
  EXPECT_EQ(calls.load(), 1);
  EXPECT_EQ(Names(fs.GetDirectoryListing("/", "")), std::vector<std::string>{"1-a"});
  EXPECT_TRUE(fs.drivePresent());
}

// Destruction returns whatever the service does with the queue's destruction
// (a service that never answers is in the hardening tests).
TEST(DestructionTest, ReturnsWhenTheServiceAnswersRefusesOrIsGone) {
  const struct {
    const char* what;
    std::optional<Reply> destroy;
    bool connectionDown;
  } cases[] = {
      {"service answers", std::nullopt, false},
      {"service refuses", Reply::Error("no such queue"), false},
      {"request connection down", std::nullopt, true},
  };
  ScopedEnv emulator("ZEBTRK_ENABLE_EMULATOR", std::nullopt);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    ResourceSnapshot before;
    {
      FakeService fake;
      ASSERT_TRUE(fake.Start());
      FakeDrive drive(fake);
      drive.FaultAlways(kDestroyQueue, c.destroy);
      {
        zeb::trk::CTrkInterface fs;
        ASSERT_TRUE(drive.WaitFor(kReadQueue, 1));
        if (c.connectionDown) {
          drive.FaultOnce(kDetect, Reply::Close());
          EXPECT_FALSE(fs.drivePresent());
        }
      }  // must return: the test's time limit catches a hang
      EXPECT_EQ(drive.Count(kDestroyQueue), c.connectionDown ? 0 : 1);
    }
    EXPECT_EQ(before.Leaks(), "");
  }
}

}  // namespace
