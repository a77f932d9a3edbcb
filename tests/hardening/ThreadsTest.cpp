// The file system's threads for real: the monitoring thread refreshing the
// cache on a stream of change events while host threads list, look up and
// read movies; handlers that change the handler list from inside their
// calls while host threads change it too; destruction amid refreshes. Run
// under ThreadSanitizer by scripts/test (label "threads"); every scenario
// also checks what it gave back.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/hardening/HardeningSupport.h"
#include "trk/STrkInterfaceData.h"

namespace hardening {
namespace {

// Change events per scenario: enough for refreshes to overlap every host
// operation many times over, few enough for a ThreadSanitizer build.
constexpr unsigned int kEvents = 60;

std::vector<FakeDrive::Movie> Movies() {
  // Frames of different sizes, so that reads of 1000 bytes cross frame
  // boundaries at different places.
  return {{1, "a", 24, 10, 9}, {2, "b", 16, 7, 13}, {3, "c", 4, 4, 1}};
}

const std::vector<std::string> kNames = {"1-a", "2-b", "3-c"};

class ThreadsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_drive.reset(new FakeDrive(m_fake));
    m_drive->SetMovies(Movies());
    ASSERT_TRUE(m_fake.Start());
    m_fs = MakeFileSystem();
    ASSERT_TRUE(m_drive->WaitFor(kReadQueue, 1));
  }
  void TearDown() override {
    if (m_fs) DestroyWithin(m_fs);
    m_drive.reset();
    m_fake.Stop();
    EXPECT_EQ(m_scenario.Leaks(), "");
  }

  // Posts `events` change events and waits until the monitoring thread has
  // refreshed for each and is waiting again.
  void RefreshAndWait(unsigned int events) {
    const long reads = m_drive->Count(kReadQueue);
    m_drive->Post(1, events);
    ASSERT_TRUE(m_drive->WaitFor(kReadQueue, reads + events));
  }

  Scenario m_scenario;
  FakeService m_fake;
  std::unique_ptr<FakeDrive> m_drive;
  std::unique_ptr<zeb::trk::CTrkInterface> m_fs;
};

TEST_F(ThreadsTest, RefreshesWhileHostThreadsListLookUpAndReadTwoMovies) {
  std::atomic<int> calls(0);
  m_fs->AddFilesChangedHandler(zeb::delegate<void()>::FromLamda([&calls] { ++calls; }));

  std::atomic<bool> stop(false);
  std::atomic<long> wrongBytes(0), badListings(0), badLookups(0), rounds(0);
  std::vector<std::thread> host;
  for (unsigned int fileId : {0u, 1u}) {
    const FakeDrive::Movie movie = Movies()[fileId];
    const std::string path = m_drive->Path(fileId);
    host.emplace_back([&, fileId, movie, path] {
      // At least two whole reads, however quickly the refreshes go by.
      for (int round = 0; round < 2 || !stop; ++round) {
        wrongBytes += WrongBytes(*m_fs, path, fileId, size_t{movie.width} * movie.height * 2);
        ++rounds;
      }
    });
  }
  host.emplace_back([&] {
    while (!stop) {
      // A refresh holds the cache lock from emptying the cache to its last
      // description, so a listing sees the whole list or waits.
      if (Names(m_fs->GetDirectoryListing("trk:///", "")) != kNames) ++badListings;
      for (const std::string& name : kNames) {
        const zeb::IFileSystem::CDirectoryEntry entry = m_fs->GetInfo(("/" + name).c_str());
        if (entry.type != 2 || entry.name != name.c_str()) ++badLookups;
      }
    }
  });

  RefreshAndWait(kEvents);
  stop = true;
  for (std::thread& thread : host) thread.join();
  EXPECT_EQ(calls.load(), static_cast<int>(kEvents));
  EXPECT_EQ(wrongBytes.load(), 0);
  EXPECT_EQ(badListings.load(), 0);
  EXPECT_EQ(badLookups.load(), 0);
  EXPECT_GE(rounds.load(), 4);
  EXPECT_EQ(m_drive->OpenSegments(), 0u);  // every file closed its movie
}

// Handlers registered by the test, whose calls change the handler list: `a`
// replaces itself by `b` and `b` by `a`, so each refresh calls exactly one of
// them; `c` lists the file system from inside its call.
struct Swapping {
  zeb::trk::CTrkInterface* fs = nullptr;
  zeb::delegate<void()> a, b, c;
  std::atomic<int> aCalls{0}, bCalls{0}, cCalls{0}, badListings{0};
};

TEST_F(ThreadsTest, HandlersChangeTheListFromInsideTheirCalls) {
  Swapping s;
  s.fs = m_fs.get();
  Swapping* h = &s;
  s.a = zeb::delegate<void()>::FromLamda([h] {
    ++h->aCalls;
    h->fs->RemoveFilesChangedHandler(h->a);
    h->fs->AddFilesChangedHandler(h->b);
  });
  s.b = zeb::delegate<void()>::FromLamda([h] {
    ++h->bCalls;
    h->fs->RemoveFilesChangedHandler(h->b);
    h->fs->AddFilesChangedHandler(h->a);
  });
  s.c = zeb::delegate<void()>::FromLamda([h] {
    ++h->cCalls;
    if (Names(h->fs->GetDirectoryListing("/", "")) != kNames) ++h->badListings;
  });
  m_fs->AddFilesChangedHandler(s.a);
  m_fs->AddFilesChangedHandler(s.c);

  // Host threads add and remove handlers of their own all the while: one
  // the same handler over and over, one a new handler each time.
  std::atomic<bool> stop(false);
  std::atomic<int> churnCalls(0);
  std::vector<std::thread> host;
  host.emplace_back([&] {
    const zeb::delegate<void()> d = zeb::delegate<void()>::FromLamda([&churnCalls] { ++churnCalls; });
    while (!stop) {
      m_fs->AddFilesChangedHandler(d);
      m_fs->RemoveFilesChangedHandler(d);
    }
  });
  host.emplace_back([&] {
    while (!stop) {
      zeb::delegate<void()> e = zeb::delegate<void()>::FromLamda([&churnCalls] { ++churnCalls; });
      const zeb::delegate<void()> copy(e);
      m_fs->AddFilesChangedHandler(std::move(e));
      m_fs->RemoveFilesChangedHandler(copy);
    }
  });

  RefreshAndWait(kEvents);
  stop = true;
  for (std::thread& thread : host) thread.join();
  EXPECT_EQ(s.aCalls + s.bCalls, static_cast<int>(kEvents));
  EXPECT_EQ(s.aCalls.load(), static_cast<int>(kEvents + 1) / 2);  // a, b, a, ...
  EXPECT_EQ(s.cCalls.load(), static_cast<int>(kEvents));
  EXPECT_EQ(s.badListings.load(), 0);
  {
    std::lock_guard<std::recursive_mutex> guard(m_fs->data()->lock);
    const auto& handlers = m_fs->data()->handlers;
    const auto npos = zeb::TArray<zeb::delegate<void()>>::npos;
    EXPECT_EQ(handlers.size(), 2u);  // c and one of a, b
    EXPECT_NE(handlers.IndexOf(s.c), npos);
    EXPECT_NE(handlers.IndexOf(s.a) == npos, handlers.IndexOf(s.b) == npos);
  }
  // The registered copies go with the file system, before `s`.
  DestroyWithin(m_fs);
}

// Destruction in a burst of refreshes returns, and the thread is gone (the
// fixture counts threads). Destruction while the thread waits is every fault
// scenario's end.
TEST_F(ThreadsTest, DestroyedAmidRefreshes) {
  const long lists = m_drive->Count(kList);
  m_drive->Post(1, 1000);
  ASSERT_TRUE(m_drive->WaitFor(kList, lists + 1));  // a refresh runs
  ASSERT_TRUE(m_fs->data()->thread.joinable());
  DestroyWithin(m_fs);
  // It ended through the queue's destruction: the destroy went out over the
  // request connection and the read was answered.
  EXPECT_EQ(m_drive->Count(kDestroyQueue), 1);
  EXPECT_LT(m_drive->Count(kList), lists + 1000);
}

}  // namespace
}  // namespace hardening
