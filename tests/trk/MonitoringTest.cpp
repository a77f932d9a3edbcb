// The file system against the fake service on /tmp/zebtrksvc: construction,
// drive queries, the monitoring thread and its events, refreshes, and
// destruction when the service answers, fails or hangs.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>

#include <zeb/CUriHandler.h>

#include "tests/support/FakeService.h"
#include "tests/support/ResourceSnapshot.h"
#include "tests/trk/TrkTestSupport.h"

namespace {

using Reply = FakeService::Reply;
using Request = FakeService::Request;
using trktest::Movie;
using trktest::Names;

constexpr unsigned int kQueueId = 5;
// Limit of every wait for something the test expects to happen; reaching it
// fails the test instead of hanging it. Never an assertion about speed.
constexpr std::chrono::seconds kPatience(20);

// A drive behind the fake service: answers the drive query, the movie list
// and the event-queue commands from its state. A pending event read waits
// until the test posts an event, the queue is destroyed (answered with type
// 0, as the service does) or the drive is closed.
class FakeDrive {
 public:
  enum class EDestroy { kAnswer, kError, kNever };

  explicit FakeDrive(FakeService& fake) : m_fake(fake) {
    m_fake.SetHandler([this](const Request& request) { return Answer(request); });
  }
  // Releases every pending read and stops the fake, whose threads run this
  // object's handler.
  ~FakeDrive() {
    Close();
    m_fake.Stop();
  }

  void SetDrive(bool present) {
    Locked([&] { m_drive = present; });
  }
  void SetMovies(std::vector<STrkMovieInfo> movies) {
    Locked([&] { m_movies = std::move(movies); });
  }
  // Makes the movie list claim `count` movies, whatever SetMovies holds.
  void SetCount(long count) {
    Locked([&] { m_count = count; });
  }
  void SetDestroy(EDestroy mode) {
    Locked([&] { m_destroy = mode; });
  }
  void SetInfoDelay(std::chrono::milliseconds delay) {
    Locked([&] { m_infoDelay = delay; });
  }
  // The next drive query closes its connection instead of answering.
  void CloseOnNextDriveQuery() {
    Locked([&] { m_closeOnDriveQuery = true; });
  }
  // Delivers an event to the pending (or next) read; type ~0u answers the
  // read with an error instead.
  void Post(unsigned int type) {
    Locked([&] { m_events.push_back(type); });
    m_changed.notify_all();
  }
  void Close() {
    Locked([&] { m_closed = true; });
    m_changed.notify_all();
  }

 private:
  template <class F>
  void Locked(F f) {
    std::lock_guard<std::mutex> guard(m_mutex);
    f();
  }

  static TinyMsgPackObject Info(const STrkMovieInfo& m) {
    return FakeService::Map({{"size", 0u},
                             {"name", std::string(m.name)},
                             {"width", static_cast<unsigned int>(m.width)},
                             {"height", static_cast<unsigned int>(m.height)},
                             {"numFrames", static_cast<unsigned long>(m.numFrames)},
                             {"number", static_cast<unsigned long>(m.number)},
                             {"rtcTime", static_cast<unsigned int>(m.rtcTime)},
                             {"startTime", static_cast<unsigned long>(m.startTime)},
                             {"endTime", static_cast<unsigned long>(m.endTime)},
                             {"status", 0u}});
  }

  Reply Answer(const Request& request) {
    std::unique_lock<std::mutex> guard(m_mutex);
    switch (request.ord()) {
      case 0:
        if (m_closeOnDriveQuery) {
          m_closeOnDriveQuery = false;
          return Reply::Close();
        }
        return Reply::Result({{"detected", m_drive}});
      case 1:
        return Reply::Result({{"count", static_cast<unsigned long>(m_count >= 0 ? m_count : m_movies.size())}});
      case 2: {
        const long long index = request.param("index");
        if (index < 0 || static_cast<size_t>(index) >= m_movies.size()) {
          return Reply::Error("no such movie");
        }
        return Reply::Result({{"info", Info(m_movies[index])}}).Delay(m_infoDelay);
      }
      case 10:
        return Reply::Result({{"queueId", kQueueId}});
      case 11:
        if (m_destroy == EDestroy::kError) return Reply::Error("no such queue");
        if (m_destroy == EDestroy::kNever) return Reply::Never();
        m_destroyed = true;
        m_changed.notify_all();
        return Reply::Result();
      case 12:
        m_changed.wait(guard, [&] { return !m_events.empty() || m_destroyed || m_closed; });
        if (!m_events.empty()) {
          const unsigned int type = m_events.front();
          m_events.pop_front();
          if (type == ~0u) return Reply::Error("queue failed");
          return Reply::Result({{"event", FakeService::Map({{"type", type}, {"drive", 0u}})}});
        }
        if (m_destroyed) {
          return Reply::Result({{"event", FakeService::Map({{"type", 0u}, {"drive", 0u}})}});
        }
        return Reply::Error("drive closed");
      default:
        return Reply::Error("unexpected command");
    }
  }

  FakeService& m_fake;
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_drive = true;
  std::vector<STrkMovieInfo> m_movies;
  long m_count = -1;
  EDestroy m_destroy = EDestroy::kAnswer;
  std::chrono::milliseconds m_infoDelay{0};
  bool m_closeOnDriveQuery = false;
  std::deque<unsigned int> m_events;
  bool m_destroyed = false;
  bool m_closed = false;
};

// "c:act" or "c:ord" or "c:ord(param)" per request, c the connection.
std::string Trace(const std::vector<Request>& requests) {
  std::string trace;
  for (const Request& r : requests) {
    trace += std::to_string(r.connection) + ":";
    if (r.act() == "verCheck") {
      trace += "ver";
    } else {
      trace += std::to_string(r.ord());
      const char* key = r.ord() == 2 ? "index" : r.ord() >= 11 ? "queueId" : nullptr;
      if (key) trace += "(" + std::to_string(r.param(key)) + ")";
    }
    trace += " ";
  }
  return trace;
}

long CountOrd(const std::vector<Request>& requests, long long ord) {
  long count = 0;
  for (const Request& r : requests) count += r.ord() == ord;
  return count;
}

long CountOrd(const FakeService& fake, long long ord) { return CountOrd(fake.Requests(), ord); }

// Waits until the fake has received `n` requests with ordinal `ord`.
bool WaitForOrd(const FakeService& fake, long long ord, long n) {
  for (;;) {
    const std::vector<Request> requests = fake.Requests();
    if (CountOrd(requests, ord) >= n) return true;
    if (!fake.WaitForRequests(requests.size() + 1)) return CountOrd(fake, ord) >= n;
  }
}

// Counts calls of a files-changed handler and lets the test wait for them.
class CallCounter {
 public:
  zeb::delegate<void()> Handler() {
    return zeb::delegate<void()>::FromLamda([this] {
      std::lock_guard<std::mutex> guard(m_mutex);
      ++m_calls;
      m_changed.notify_all();
    });
  }
  bool WaitFor(int calls) {
    std::unique_lock<std::mutex> guard(m_mutex);
    return m_changed.wait_for(guard, kPatience, [&] { return m_calls >= calls; });
  }
  int calls() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_calls;
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  int m_calls = 0;
};

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

  // Waits until the monitoring thread has sent an event read (the `n`-th).
  void WaitForReads(long n) { ASSERT_TRUE(WaitForOrd(m_fake, 12, n)); }
  // Waits until the monitoring thread has disconnected (only the request
  // connection is left open on the fake's side).
  void WaitForMonitoringEnd() { ASSERT_TRUE(m_fake.WaitForOpenConnections(1)); }

  testsupport::ScopedEnv m_emulator;
  testsupport::ResourceSnapshot m_before;
  FakeService m_fake;
  FakeDrive m_drive{m_fake};
};

TEST(ConstructionTest, WithoutAService) {
  testsupport::ResourceSnapshot before;
  for (const char* value : {"", static_cast<const char*>(nullptr)}) {
    SCOPED_TRACE(value ? "empty ZEBTRK_ENABLE_EMULATOR" : "no ZEBTRK_ENABLE_EMULATOR");
    testsupport::ScopedEnv emulator("ZEBTRK_ENABLE_EMULATOR", value ? std::optional<std::string>(value) : std::nullopt);
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
  m_drive.SetMovies({Movie(12, "Run A"), Movie(13, "Test")});
  {
    zeb::trk::CTrkInterface fs;
    WaitForReads(1);
    EXPECT_EQ(Trace(m_fake.Requests()), "0:ver 0:0 1:ver 1:10 1:12(5) ");
    EXPECT_EQ(fs.data()->queueId, kQueueId);
    EXPECT_EQ(fs.GetDirectoryListing("/", "").entries.size(), 0u);
    EXPECT_FALSE(fs.drivePresent());
    m_drive.SetDrive(true);
    EXPECT_TRUE(fs.drivePresent());  // asked anew each time
    EXPECT_EQ(CountOrd(m_fake, 0), 3);

    CallCounter first, second;
    fs.AddFilesChangedHandler(first.Handler());
    fs.AddFilesChangedHandler(second.Handler());
    m_drive.Post(1);
    ASSERT_TRUE(first.WaitFor(1));
    ASSERT_TRUE(second.WaitFor(1));
    EXPECT_EQ(Names(fs.GetDirectoryListing("/", "")), (std::vector<std::string>{"12-Run A", "13-Test"}));
    WaitForReads(2);  // reading again after the refresh
    EXPECT_EQ(first.calls(), 1);
    EXPECT_EQ(second.calls(), 1);
  }
  // The queue was destroyed over the request connection.
  EXPECT_NE(Trace(m_fake.Requests()).find("0:11(5) "), std::string::npos);
}

// The first refresh at construction; the list claims a third movie that
// cannot be described, whose record stays in the cache all-zero.
TEST_F(MonitoringTest, MoviesAtConstruction) {
  m_drive.SetMovies({Movie(12, "Run A", 640, 480, 100), Movie(13, "Test")});
  m_drive.SetCount(3);
  zeb::trk::CTrkInterface fs;
  WaitForReads(1);
  EXPECT_EQ(Trace(m_fake.Requests()), "0:ver 0:0 0:1 0:2(0) 0:2(1) 0:2(2) 1:ver 1:10 1:12(5) ");
  const zeb::IFileSystem::CDirectoryListing listing = fs.GetDirectoryListing("trk:///", "");
  ASSERT_EQ(Names(listing), (std::vector<std::string>{"12-Run A", "13-Test", "0-"}));
  EXPECT_EQ(listing.entries[0].size, 61440000u);
  EXPECT_EQ(listing.entries[2].size, 0u);
  EXPECT_EQ(trktest::Prop(listing.entries[2], "index"), "2");
  EXPECT_EQ(fs.GetInfo("/13-Test").type, 2u);
}

TEST_F(MonitoringTest, EventTypes) {
  m_drive.SetMovies({Movie(1, "a")});
  zeb::trk::CTrkInterface fs;
  CallCounter counter;
  fs.AddFilesChangedHandler(counter.Handler());
  WaitForReads(1);
  m_drive.Post(2);  // skipped: read again, no refresh
  WaitForReads(2);
  m_drive.Post(7);
  WaitForReads(3);
  EXPECT_EQ(CountOrd(m_fake, 1), 1);
  m_drive.Post(1);
  ASSERT_TRUE(counter.WaitFor(1));
  WaitForReads(4);
  EXPECT_EQ(CountOrd(m_fake, 1), 2);
  m_drive.Post(0);  // the queue is closed: monitoring ends
  WaitForMonitoringEnd();
  EXPECT_EQ(CountOrd(m_fake, 12), 4);
  EXPECT_EQ(counter.calls(), 1);
}

TEST(MonitoringEndTest, AFailedReadOrAThrowingHandlerEndsMonitoringOnly) {
  testsupport::ScopedEnv emulator("ZEBTRK_ENABLE_EMULATOR", std::nullopt);
  for (bool throwing : {false, true}) {
    SCOPED_TRACE(throwing ? "handler throws" : "read fails");
    FakeService fake;
    ASSERT_TRUE(fake.Start());
    FakeDrive drive(fake);
    drive.SetMovies({Movie(1, "a")});
    std::atomic<int> calls(0);
    zeb::trk::CTrkInterface fs;
    ASSERT_TRUE(fake.WaitForRequest([](const Request& r) { return r.ord() == 12; }));
    fs.AddFilesChangedHandler(zeb::delegate<void()>::FromLamda([&calls] {
      ++calls;
      throw std::runtime_error("a host's handler failed");
    }));
    drive.Post(throwing ? 1u : ~0u);
    ASSERT_TRUE(fake.WaitForOpenConnections(1));  // the event connection is closed
    EXPECT_EQ(calls.load(), throwing ? 1 : 0);
    // The rest of the file system goes on working.
    EXPECT_EQ(Names(fs.GetDirectoryListing("/", "")), std::vector<std::string>{"1-a"});
    EXPECT_TRUE(fs.drivePresent());
  }
}

TEST_F(MonitoringTest, AListingDuringARefreshSeesTheWholeOldOrNewList) {
  const std::vector<std::string> oldNames = {"1-a", "2-b", "3-c"};
  const std::vector<std::string> newNames = {"4-d", "5-e", "6-f"};
  m_drive.SetMovies({Movie(1, "a"), Movie(2, "b"), Movie(3, "c")});
  zeb::trk::CTrkInterface fs;
  WaitForReads(1);
  m_drive.SetInfoDelay(std::chrono::milliseconds(30));
  m_drive.SetMovies({Movie(4, "d"), Movie(5, "e"), Movie(6, "f")});

  // A second host thread lists all the time.
  std::atomic<bool> stop(false);
  std::atomic<int> mixed(0);
  std::thread lister([&] {
    while (!stop) {
      const std::vector<std::string> names = Names(fs.GetDirectoryListing("/", ""));
      if (names != oldNames && names != newNames) ++mixed;
    }
  });
  m_drive.Post(1);
  // Once the refresh has asked for the count it holds the cache lock: a
  // listing now waits for it and sees the new list whole.
  const bool refreshing = WaitForOrd(m_fake, 1, 2);
  EXPECT_TRUE(refreshing);
  if (refreshing) {
    EXPECT_EQ(Names(fs.GetDirectoryListing("/", "")), newNames);
  }
  stop = true;
  lister.join();
  EXPECT_EQ(mixed.load(), 0);
}

// Destruction returns whatever the service does with the queue's destruction.
TEST(DestructionTest, ReturnsWhenTheServiceAnswersFailsOrHangs) {
  enum class ECase { kAnswer, kError, kNever, kConnectionDown };
  struct Case {
    const char* what;
    ECase kind;
  };
  const Case cases[] = {
      {"service answers", ECase::kAnswer},
      {"service refuses", ECase::kError},
      {"service never answers", ECase::kNever},
      {"request connection down", ECase::kConnectionDown},
  };
  testsupport::ScopedEnv emulator("ZEBTRK_ENABLE_EMULATOR", std::nullopt);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    testsupport::ResourceSnapshot before;
    {
      FakeService fake;
      ASSERT_TRUE(fake.Start());
      FakeDrive drive(fake);
      drive.SetDestroy(c.kind == ECase::kError   ? FakeDrive::EDestroy::kError
                       : c.kind == ECase::kNever ? FakeDrive::EDestroy::kNever
                                                 : FakeDrive::EDestroy::kAnswer);
      {
        zeb::trk::CTrkInterface fs;
        ASSERT_TRUE(fake.WaitForRequest([](const Request& r) { return r.ord() == 12; }));
        if (c.kind == ECase::kConnectionDown) {
          drive.CloseOnNextDriveQuery();
          EXPECT_FALSE(fs.drivePresent());
        }
      }  // must return: the test's time limit catches a hang
      const long destroys = CountOrd(fake, 11);
      EXPECT_EQ(destroys, c.kind == ECase::kConnectionDown ? 0 : 1);
    }
    EXPECT_EQ(before.Leaks(), "");
  }
}

}  // namespace
