// The simulator's pieces on their own: the packed time code, movie file
// names and list order, the event queues' waiting rules, and copying frames
// out of a mapped data file.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <zeb/CDateTime.h>

#include "tests/support/TempDir.h"
#include "tools/zebtrksvc/EventHub.h"
#include "tools/zebtrksvc/FileMapping.h"
#include "tools/zebtrksvc/MovieCatalog.h"
#include "tools/zebtrksvc/PackedTime.h"

namespace zebtrksvc {
namespace {

long Ticks(long unixSeconds, long microseconds) {
  return zeb::CDateTime::kUnixEpochTicks + unixSeconds * zeb::CDateTime::kTicksPerSecond + microseconds * 10;
}

TEST(PackedTimeTest, PacksClockAndFractionWordsUpperHalfFirst) {
  EXPECT_EQ(PackTimeCode(123, 4, 5, 6, 789012), 0x0A14000C414601ECull);
  // 2024-05-02 is day 123 of its year: the same code from a point in time.
  const long may2 = 1714608000;  // 2024-05-02 00:00:00 UTC
  EXPECT_EQ(PackTime(Ticks(may2 + 4 * 3600 + 5 * 60 + 6, 789012)), 0x0A14000C414601ECull);
  EXPECT_EQ(PackTime(Ticks(may2 + 4 * 3600 + 6 * 60 + 7, 0)), 0x418701ECull);
  // 1 January is day 1; 31 December of a leap year day 366; sub-microsecond
  // ticks are dropped.
  EXPECT_EQ(PackTime(Ticks(0, 0)), PackTimeCode(1, 0, 0, 0, 0));
  EXPECT_EQ(PackTime(Ticks(1735689599, 999999) + 9), PackTimeCode(366, 23, 59, 59, 999999));
  // Fields are masked to their width.
  EXPECT_EQ(PackTimeCode(512 + 3, 64 + 1, 64 + 2, 64 + 3, 0), PackTimeCode(3, 1, 2, 3, 0));
}

TEST(PackedTimeTest, RecordingTimeInSecondsSince1970) {
  EXPECT_EQ(UnixSeconds(Ticks(1714636800, 999999)), 1714636800u);
  EXPECT_EQ(UnixSeconds(Ticks(0, 0)), 0u);
  EXPECT_EQ(UnixSeconds(Ticks(-5, 0)), 0u);  // before 1970
}

TEST(MovieCatalogTest, DataFileNames) {
  struct Case {
    const char* file;
    bool movie;
    uint64_t number;
    const char* name;
  };
  const Case cases[] = {
      {"1-Harbour Pass.dat", true, 1, "Harbour Pass"},
      {"12-Bridge Deck - North.dat", true, 12, "Bridge Deck - North"},
      {"007-x.dat", true, 7, "x"},
      {"18446744073709551615-Max.dat", true, 18446744073709551615ull, "Max"},
      {"18446744073709551616-Over.dat", false, 0, ""},
      {"1-Harbour Pass.info", false, 0, ""},
      {"1-.dat", false, 0, ""},
      {"-1-x.dat", false, 0, ""},
      {"x1-y.dat", false, 0, ""},
      {"12.dat", false, 0, ""},
      {"1-Run.DAT", false, 0, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    uint64_t number = 0;
    std::string name;
    ASSERT_EQ(MovieCatalog::ParseDataFileName(c.file, number, name), c.movie);
    if (!c.movie) continue;
    EXPECT_EQ(number, c.number);
    EXPECT_EQ(name, c.name);
  }
}

TEST(MovieCatalogTest, ListedByNumberThenName) {
  auto movie = [](uint64_t number, const char* name) {
    Movie m;
    m.number = number;
    m.name = name;
    m.stem = std::to_string(number) + "-" + name;
    return m;
  };
  EXPECT_TRUE(MovieCatalog::ListsBefore(movie(2, "Zulu"), movie(10, "Alpha")));  // numerically
  EXPECT_TRUE(MovieCatalog::ListsBefore(movie(3, "Alpha"), movie(3, "Beta")));
  EXPECT_FALSE(MovieCatalog::ListsBefore(movie(3, "Beta"), movie(3, "Alpha")));
}

TEST(EventHubTest, EventsComeInOrderAndNoneIsLost) {
  EventHub hub;
  int owner = 0;
  const uint32_t a = hub.Create(&owner);
  const uint32_t b = hub.Create(&owner);
  EXPECT_NE(a, b);
  hub.PostAll(1);
  hub.PostAll(5);
  for (uint32_t queue : {a, b}) {
    uint32_t type = 0;
    ASSERT_EQ(hub.Wait(queue, type, nullptr), EventHub::WaitResult::Event);
    EXPECT_EQ(type, 1u);
    ASSERT_EQ(hub.Wait(queue, type, nullptr), EventHub::WaitResult::Event);
    EXPECT_EQ(type, 5u);
  }
  uint32_t type = 0;
  EXPECT_EQ(hub.Wait(999, type, nullptr), EventHub::WaitResult::NoQueue);
}

TEST(EventHubTest, DestroyOwnerAndShutdownEndWaits) {
  EventHub hub;
  int mine = 0, theirs = 0;
  const uint32_t waitedOn = hub.Create(&mine);
  const uint32_t kept = hub.Create(&theirs);
  hub.PostAll(1);  // left unread: closing wins over waiting events
  std::atomic<int> result{-1};
  std::thread reader([&] {
    uint32_t type = 0;
    if (hub.Wait(waitedOn, type, nullptr) != EventHub::WaitResult::Event) return;
    result = static_cast<int>(hub.Wait(waitedOn, type, nullptr));
  });
  while (hub.waiting() == 0 && result == -1) std::this_thread::yield();
  hub.DestroyOwnedBy(&mine);
  reader.join();
  EXPECT_EQ(result, static_cast<int>(EventHub::WaitResult::Closed));
  EXPECT_EQ(hub.queueCount(), 1u);
  EXPECT_EQ(hub.waiting(), 0u);
  uint32_t type = 0;
  // A read arriving after the destruction is answered "closed" as well, while
  // the id is remembered.
  EXPECT_EQ(hub.Wait(waitedOn, type, nullptr), EventHub::WaitResult::Closed);
  for (size_t i = 0; i < EventHub::kRememberedClosed; ++i) hub.Destroy(hub.Create(&mine));
  EXPECT_EQ(hub.Wait(waitedOn, type, nullptr), EventHub::WaitResult::NoQueue);

  std::atomic<int> abandoned{-1};
  std::thread leaver([&] {
    uint32_t type = 0;
    if (hub.Wait(kept, type, nullptr) != EventHub::WaitResult::Event) return;  // the 1 posted above
    abandoned = static_cast<int>(hub.Wait(kept, type, [] { return true; }));
  });
  leaver.join();
  EXPECT_EQ(abandoned, static_cast<int>(EventHub::WaitResult::Abandoned));

  hub.Shutdown();
  EXPECT_EQ(hub.Wait(kept, type, nullptr), EventHub::WaitResult::Closed);
}

// Frames come out of a mapping of the data file. A file cut short after it
// was mapped (rewritten in place) must give the same error as a short pread,
// not a SIGBUS that ends the service.
TEST(FileMappingTest, CopiesInsideTheFileAndReportsAShortFile) {
  testsupport::TempDir dir;
  const std::string path = dir / "1-a.dat";
  std::vector<unsigned char> bytes(3 * 4096);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(i * 7);
  ASSERT_TRUE(testsupport::WriteFile(path, bytes.data(), bytes.size()));
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_NE(fd, -1);
  FileMapping mapping;
  EXPECT_FALSE(mapping.Map(fd, 0));
  ASSERT_TRUE(mapping.Map(fd, bytes.size()));

  const std::string shorter = "the data file is shorter than the movie";
  std::vector<unsigned char> out(4096);
  struct Case {
    uint64_t offset, size;
    std::string error;
  } cases[] = {
      {0, 4096, ""}, {8192, 4096, ""}, {5000, 100, ""}, {8193, 4096, shorter}, {12288, 1, shorter}, {~0ull, 2, shorter},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.offset);
    EXPECT_EQ(mapping.CopyOut(out.data(), c.size, c.offset), c.error);
    if (c.error.empty()) {
      EXPECT_EQ(0, memcmp(out.data(), bytes.data() + c.offset, c.size));
    }
  }

  // Cut to one page: the pages behind it fault; the copy reports it, and the
  // first page still copies, in this thread and in another.
  ASSERT_EQ(ftruncate(fd, 4096), 0);
  EXPECT_EQ(mapping.CopyOut(out.data(), 4096, 8192), shorter);
  EXPECT_EQ(mapping.CopyOut(out.data(), 4096, 0), "");
  std::string fromThread = "not run";
  std::thread([&] { fromThread = mapping.CopyOut(out.data(), 100, 4096); }).join();
  EXPECT_EQ(fromThread, shorter);
  EXPECT_EQ(mapping.CopyOut(out.data(), 4096, 0), "");
  close(fd);
}

}  // namespace
}  // namespace zebtrksvc
