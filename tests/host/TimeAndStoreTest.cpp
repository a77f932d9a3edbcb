// CDateTime, the INI store, CEvent and the critical section.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include <zeb/CAutoLock.h>
#include <zeb/CDateTime.h>
#include <zeb/CEvent.h>
#include <zeb/CINIStore.h>

#include "tests/support/TempDir.h"

namespace {

using zeb::CDateTime;
using zeb::CString;

CDateTime FromUnix(long seconds) {
  return CDateTime::NewTimestamp(seconds * 10000000L + 116444736000000000L, 0);
}

TEST(CDateTimeTest, FormatsDayOfYearAndIrigTime) {
  struct SCase {
    CDateTime time;
    const char* format;
    const char* text;
  };
  const SCase cases[] = {
      {FromUnix(0), "%j:%(irig)", "001:00:00:00.000.000"},
      {FromUnix(0), "%Y-%m-%d %H:%M:%S", "1970-01-01 00:00:00"},
      {CDateTime(), "%j:%(irig)", "000:00:00:00.000.000"},
      // 2024-12-31 (leap year: day 366) 23:59:58 plus 1.234567 s
      {CDateTime::NewTimestamp((1735689598L * 10000000L) + 116444736000000000L + 12345670, 0),
       "%j:%(irig)", "366:23:59:59.234.567"},
      {FromUnix(951782400), "%Y-%m-%d %j", "2000-02-29 060"},
      {FromUnix(0), "100%% %q %(x)", "100% %q %(x)"},
      {CDateTime::NewTimestamp(1, 3), "%Y-%m-%d %H:%M:%S", "1601-01-01 00:00:01"},
  };
  for (const SCase& c : cases) {
    EXPECT_STREQ(c.time.Format(c.format).c_str(), c.text) << c.format;
  }
  EXPECT_EQ(FromUnix(0).GetTimestamp(0), 116444736000000000L);
  EXPECT_EQ(FromUnix(0).ticks(), 0x19DB1DED53E8000L);
}

TEST(CDateTimeTest, DifferencesInMicroseconds) {
  const CDateTime start = FromUnix(1000);
  const CDateTime end = CDateTime::NewTimestamp(start.ticks() + 602109880, 0);
  EXPECT_EQ((end - start).GetTimestamp(1), 60210988);
  EXPECT_EQ((start - end).GetTimestamp(1), -60210988);
  EXPECT_EQ((start - start).GetTimestamp(1), 0);
  EXPECT_EQ((end - start).GetTimestamp(2), 60210);
  EXPECT_EQ(CDateTime::NewTimestamp(5, 1).GetTimestamp(0), 50);
  EXPECT_EQ(CDateTime::NewTimestamp(5, 9).GetTimestamp(0), 0);  // unknown kind: empty
}

TEST(CINIStoreTest, SaveThenLoadGivesBackEveryPair) {
  const std::pair<const char*, std::string> pairs[] = {
      {"meta/width", "640"},
      {"meta/startTime", "000:00:00:00.000.000"},
      {"meta/empty", ""},
      {"meta/spaced", "  both ends  "},
      {"meta/equals", "a=b=c"},
      {"meta/odd=name", "x"},
      {"meta/;comment", "y"},
      {"meta/[bracket", "z"},
      {"meta/lines", std::string("one\ntwo\r\n\tthree\\n")},
      {"meta/nul", std::string("a\0b", 3)},
      {"noSection", "top"},
      {"a/b/c", "deep"},
      {"/emptySection", "e"},
      {"sec ]/ name ", " v"},
  };
  zeb::CINIStore store;
  for (const auto& pair : pairs) {
    store.SetString(pair.first, CString(pair.second.data(), static_cast<int>(pair.second.size())));
  }
  store.SetString("meta/width", "320");  // replaces

  testsupport::TempDir dir;
  const std::string path = dir / "12-Run A.meta";
  ASSERT_TRUE(store.Save(path.c_str()));
  zeb::CINIStore loaded;
  loaded.SetString("stale", "gone after load");
  ASSERT_TRUE(loaded.Load(path.c_str()));
  EXPECT_EQ(loaded.nodes().size(), store.nodes().size());
  for (const auto& pair : pairs) {
    const CString value = loaded.GetString(pair.first, "(missing)");
    const std::string expected = std::string(pair.first) == "meta/width" ? "320" : pair.second;
    EXPECT_EQ(std::string(value.c_str(), value.length()), expected) << pair.first;
  }
  EXPECT_STREQ(loaded.GetString("stale", "default").c_str(), "default");
}

TEST(CINIStoreTest, ReadsHandWrittenTextAndRejectsMissingFiles) {
  const char text[] = "; comment\n# another\ntop = 1\n\n[meta]\r\n width = 640 \r\nnoequals\n"
                      "path=C:\\dir\n[ other ]\nk=v\nk=w\n";
  zeb::CINIStore store;
  store.Parse(text, sizeof text - 1);
  EXPECT_STREQ(store.GetString("top", "").c_str(), "1");
  EXPECT_STREQ(store.GetString("meta/width", "").c_str(), "640");
  EXPECT_STREQ(store.GetString("meta/path", "").c_str(), "C:\\dir");
  EXPECT_STREQ(store.GetString("other/k", "").c_str(), "w");
  EXPECT_EQ(store.nodes().size(), 4u);

  testsupport::TempDir dir;
  zeb::CINIStore missing;
  missing.SetString("kept", "1");
  EXPECT_FALSE(missing.Load((dir / "absent.meta").c_str()));
  EXPECT_FALSE(missing.Load(dir.path().c_str()));  // a directory
  EXPECT_STREQ(missing.GetString("kept", "").c_str(), "1");
  EXPECT_FALSE(missing.Save((dir / "no/such/dir.meta").c_str()));
}

TEST(CEventTest, AutoResetReleasesOneWaitAndManualStaysSet) {
  zeb::CEvent automatic(false, false);
  EXPECT_FALSE(automatic.Wait(0));
  std::thread signaller([&] { automatic.Signal(); });
  EXPECT_TRUE(automatic.Wait(zeb::CEvent::kInfinite));
  signaller.join();
  EXPECT_FALSE(automatic.Wait(0));  // consumed

  zeb::CEvent manual(true, true);
  EXPECT_TRUE(manual.Wait(0));
  EXPECT_TRUE(manual.Wait(0));
  manual.Reset();
  EXPECT_FALSE(manual.Wait(1));
}

TEST(CCriticalSectionTest, IsRecursiveAndExcludesOtherThreads) {
  zeb::CCriticalSection section;
  zeb::CAutoLock outer(&section);
  zeb::CAutoLock inner(section);  // the same thread again
  bool taken = true;
  std::thread other([&] { taken = section.TryLock(); });
  other.join();
  EXPECT_FALSE(taken);
  zeb::CAutoLock none(nullptr);  // locks nothing
}

}  // namespace
