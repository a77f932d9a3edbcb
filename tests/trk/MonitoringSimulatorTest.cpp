// The file system against the zebtrksvc simulator serving a temporary drive
// folder: the listing shows the drive's movies with their decoded times, a
// movie written to the drive reaches the files-changed handlers and the
// listing through a real change event, and destruction ends monitoring
// through the service and leaves nothing open.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "tests/support/ResourceSnapshot.h"
#include "tests/trk/TrkTestSupport.h"

namespace {

using trktest::Names;
using trktest::Prop;

// 2024-05-02 (day 123) 04:05:06.789012 UTC in ticks; frames 40 ms apart.
constexpr long kRunStart = 116444736000000000L + 1714622706L * 10000000L + 7890120L;
constexpr long kPeriod = 400000;

bool WriteMovie(const std::string& drive, const char* stem, unsigned int frames) {
  return trktest::WriteRaw(drive + "/" + stem + ".dat", 4, 3, frames, kRunStart, kPeriod);
}

TEST(SimulatorMonitoringTest, DriveChangesReachTheHandlersAndTheListing) {
  testsupport::ScopedEnv emulator("ZEBTRK_ENABLE_EMULATOR", std::nullopt);
  testsupport::TempDir dir;
  const std::string drive = dir / "drive";
  ASSERT_TRUE(zeb::fileSystem()->MakeDir(drive.c_str(), true));
  ASSERT_TRUE(WriteMovie(drive, "13-Test", 2));
  ASSERT_TRUE(WriteMovie(drive, "12-Run A", 5));
  testsupport::ResourceSnapshot before;
  {
    trktest::ServiceProcess simulator(ZEBTRKSVC_BINARY, drive);
    ASSERT_TRUE(simulator.WaitUntilServing(2));
    zeb::trk::CTrkInterface fs;
    EXPECT_TRUE(fs.drivePresent());
    const zeb::IFileSystem::CDirectoryListing listing = fs.GetDirectoryListing("trk:///", "");
    ASSERT_EQ(Names(listing), (std::vector<std::string>{"12-Run A", "13-Test"}));
    const zeb::IFileSystem::CDirectoryEntry& run = listing.entries[0];
    EXPECT_EQ(run.size, 4u * 3 * 5 * 2);
    EXPECT_EQ(Prop(run, "index"), "0");
    EXPECT_EQ(Prop(run, "startTime"), "123:04:05:06.789012");
    EXPECT_EQ(Prop(run, "endTime"), "123:04:05:06.949012");
    EXPECT_EQ(Prop(run, "duration"), "160000");

    std::mutex mutex;
    std::condition_variable changed;
    int calls = 0;
    fs.AddFilesChangedHandler(zeb::delegate<void()>::FromLamda([&] {
      std::lock_guard<std::mutex> guard(mutex);
      ++calls;
      changed.notify_all();
    }));
    ASSERT_TRUE(WriteMovie(drive, "14-New", 1));
    // Writing a pair may announce more than one change; wait for the one
    // after which the new movie is listed. (Never list with `mutex` held: the
    // handler takes it while the refresh holds the cache lock.)
    bool listed = false;
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int seen = 0; !listed && std::chrono::steady_clock::now() < limit;) {
      {
        std::unique_lock<std::mutex> guard(mutex);
        changed.wait_until(guard, limit, [&] { return calls > seen; });
        seen = calls;
      }
      listed = Names(fs.GetDirectoryListing("/", "")).size() == 3;
    }
    EXPECT_TRUE(listed);
    EXPECT_EQ(Names(fs.GetDirectoryListing("/", "")), (std::vector<std::string>{"12-Run A", "13-Test", "14-New"}));
    EXPECT_EQ(fs.GetInfo("/14-New").type, 2u);
  }
  EXPECT_EQ(before.Leaks(), "");
}

}  // namespace
