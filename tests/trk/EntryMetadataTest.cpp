// Entry metadata: the numbers and texts of a movie entry in normal mode, and
// the ".meta" stores of emulator mode.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <zeb/CDateTime.h>
#include <zeb/CINIStore.h>

#include "tests/trk/TrkTestSupport.h"
#include "trk/EntryMetadata.h"

namespace {

using trktest::Movie;
using trktest::Prop;
using zeb::IFileSystem;

// A packed time code with day, hour, minute, second and fraction word U
// (the first case below is the recorder's own example, written out).
std::uint64_t Packed(unsigned day, unsigned hour, unsigned minute, unsigned second, std::uint32_t fraction) {
  const std::uint32_t clock = (day << 18) | (hour << 12) | (minute << 6) | second;
  const std::uint64_t w0 = clock >> 16, w1 = clock & 0xFFFF;
  const std::uint64_t w2 = fraction >> 16, w3 = fraction & 0xFFFF;
  return w0 | (w1 << 16) | (w2 << 32) | (w3 << 48);
}

struct FillCase {
  const char* what;
  std::uint16_t width, height;
  std::uint64_t numFrames;
  std::uint32_t rtcTime;
  std::uint64_t start, end;
  std::uint64_t size;
  long ticks;
  const char* startText;
  const char* endText;
  const char* duration;
};

const FillCase kFillCases[] = {
    {"example", 640, 480, 100, 0, 0x0A14000C414601ECULL, 0x418701ECULL, 61440000ULL, 116444736000000000L,
     "123:04:05:06.789012", "123:04:06:07.000000", "60210988"},
    {"equal times", 1, 1, 1, 1, Packed(5, 1, 2, 3, 4), Packed(5, 1, 2, 3, 4), 2ULL, 116444736010000000L,
     "005:01:02:03.000004", "005:01:02:03.000004", "0"},
    {"end before start wraps", 0, 0, 0, 0, Packed(2, 0, 0, 0, 0), Packed(1, 0, 0, 0, 0), 0ULL, 116444736000000000L,
     "002:00:00:00.000000", "001:00:00:00.000000", "18446743987309551616"},
    {"millisecond modulo 65536", 2, 3, 4, 0, Packed(0, 0, 0, 0, 65537234), Packed(0, 0, 0, 0, 2000), 48ULL,
     116444736000000000L, "000:00:00:00.001234", "000:00:00:00.002000", "766"},
    {"out of range fields shown as they are", 7, 7, 7, 0, Packed(511, 63, 63, 63, 999999),
     Packed(511, 63, 63, 63, 999999), 686ULL, 116444736000000000L, "511:63:63:63.999999", "511:63:63:63.999999", "0"},
    {"64-bit size and latest rtcTime", 4096, 4096, 1000000, 0xFFFFFFFFu, 0, 0, 33554432000000ULL, 159394408950000000L,
     "000:00:00:00.000000", "000:00:00:00.000000", "0"},
};

TEST(FillMovieEntryTest, FixedFieldsAndProperties) {
  for (const FillCase& c : kFillCases) {
    SCOPED_TRACE(c.what);
    IFileSystem::CDirectoryEntry entry;
    entry.name = "kept";
    zeb::trk::FillMovieEntry(entry, Movie(9, "x", c.width, c.height, c.numFrames, c.rtcTime, c.start, c.end), 5);
    EXPECT_STREQ(entry.name.c_str(), "kept");
    EXPECT_EQ(entry.type, 2u);
    EXPECT_EQ(entry.size, c.size);
    EXPECT_EQ(entry.time.GetTimestamp(0), c.ticks);
    EXPECT_EQ(Prop(entry, "width"), std::to_string(c.width));
    EXPECT_EQ(Prop(entry, "height"), std::to_string(c.height));
    EXPECT_EQ(Prop(entry, "numFrames"), std::to_string(c.numFrames));
    EXPECT_EQ(Prop(entry, "index"), "5");
    EXPECT_EQ(Prop(entry, "startTime"), c.startText);
    EXPECT_EQ(Prop(entry, "endTime"), c.endText);
    EXPECT_EQ(Prop(entry, "duration"), c.duration);
    std::vector<std::string> names;
    for (const auto& p : entry.properties.entries()) names.push_back(p.name.c_str());
    EXPECT_EQ(names,
              (std::vector<std::string>{"width", "height", "numFrames", "index", "startTime", "endTime", "duration"}));
  }
  IFileSystem::CDirectoryEntry entry;
  zeb::trk::FillMovieEntry(entry, Movie(1, "a"), 0xFFFFFFFFu);
  EXPECT_EQ(Prop(entry, "index"), "4294967295");
}

// 2024-05-02 (day 123) 04:05:06.789012 UTC in ticks.
constexpr long kRunStart = 116444736000000000L + 1714622706L * 10000000L + 7890120L;
constexpr long kPeriod = 400000;  // 40 ms

// The properties of an emulated entry, in the order they are set.
std::vector<std::pair<std::string, std::string>> Properties(const IFileSystem::CDirectoryEntry& entry) {
  std::vector<std::pair<std::string, std::string>> all;
  for (const auto& p : entry.properties.entries()) all.emplace_back(p.name.c_str(), p.value.c_str());
  return all;
}

TEST(GetDirectoryEntryMetaTest, MakesTheStoreFromTheRawFileOnce) {
  trktest::EmulatorHome home;
  ASSERT_TRUE(home.WriteRaw("12-Run A", 4, 3, 5, kRunStart, kPeriod));
  IFileSystem::CDirectoryEntry entry;
  entry.name = "12-Run A";
  ASSERT_TRUE(GetDirectoryEntryMeta(entry));
  const std::vector<std::pair<std::string, std::string>> expected = {{"index", "12"},
                                                                     {"width", "4"},
                                                                     {"height", "3"},
                                                                     {"numFrames", "5"},
                                                                     {"startTime", "123:04:05:06.789.012"},
                                                                     {"endTime", "123:04:05:06.949.012"},
                                                                     {"duration", "160000"}};
  EXPECT_EQ(Properties(entry), expected);
  zeb::CINIStore store;
  ASSERT_TRUE(store.Load((home / "12-Run A.meta").c_str()));
  std::vector<std::pair<std::string, std::string>> saved;
  for (const auto& node : store.nodes()) saved.emplace_back(node.key.c_str(), node.value.c_str());
  EXPECT_EQ(saved, (std::vector<std::pair<std::string, std::string>>{{"meta/width", "4"},
                                                                     {"meta/height", "3"},
                                                                     {"meta/numFrames", "5"},
                                                                     {"meta/startTime", "123:04:05:06.789.012"},
                                                                     {"meta/endTime", "123:04:05:06.949.012"},
                                                                     {"meta/duration", "160000"},
                                                                     {"meta/index", "12"}}));

  // The store is used from now on: the raw file is not read again.
  ASSERT_TRUE(testsupport::WriteFile(home / "12-Run A.dat", "garbage"));
  IFileSystem::CDirectoryEntry again;
  again.name = "12-Run A";
  ASSERT_TRUE(GetDirectoryEntryMeta(again));
  EXPECT_EQ(Properties(again), expected);
}

struct StoreCase {
  const char* what;
  const char* name;
  const char* store;                // null: no store
  bool raw;                         // write a raw file without time stamps
  std::vector<std::string> values;  // index, width, height, numFrames, start, end, duration
};

TEST(GetDirectoryEntryMetaTest, StoresAndDefaults) {
  const std::string zero = "000:00:00:00.000.000";
  const StoreCase cases[] = {
      {"store with only the width", "12-Run A", "[meta]\nwidth=320\n", false, {"0", "320", "0", "0", zero, zero, "0"}},
      {"store with extra keys",
       "3-B",
       "[meta]\nindex=44\nheight=9\n[other]\nx=1\n",
       false,
       {"44", "0", "9", "0", zero, zero, "0"}},
      {"no hyphen gives index 0", "7", nullptr, true, {"0", "2", "2", "1", zero, zero, "0"}},
      {"leading hyphen gives an empty index", "-5", nullptr, true, {"", "2", "2", "1", zero, zero, "0"}},
      {"index is the text before the first hyphen",
       "0012-a-b",
       nullptr,
       true,
       {"0012", "2", "2", "1", zero, zero, "0"}},
  };
  for (const StoreCase& c : cases) {
    SCOPED_TRACE(c.what);
    trktest::EmulatorHome home;
    if (c.store) {
      ASSERT_TRUE(testsupport::WriteFile(home / (std::string(c.name) + ".meta"), c.store));
    }
    if (c.raw) {
      ASSERT_TRUE(home.WriteRaw(c.name, 2, 2, 1));
    }
    IFileSystem::CDirectoryEntry entry;
    entry.name = c.name;
    ASSERT_TRUE(GetDirectoryEntryMeta(entry));
    std::vector<std::string> values;
    for (const auto& p : Properties(entry)) values.push_back(p.second);
    EXPECT_EQ(values, c.values);
  }
}

TEST(GetDirectoryEntryMetaTest, NeitherStoreNorRawFile) {
  trktest::EmulatorHome home;
  ASSERT_TRUE(testsupport::WriteFile(home / "8-Bad.dat", "not a raw imager file"));
  for (const char* name : {"8-Bad", "9-Missing"}) {
    SCOPED_TRACE(name);
    IFileSystem::CDirectoryEntry entry;
    entry.name = name;
    entry.type = 77;
    EXPECT_FALSE(GetDirectoryEntryMeta(entry));
    EXPECT_EQ(entry.type, 77u);
    EXPECT_EQ(entry.properties.size(), 0u);
    struct stat st;
    EXPECT_NE(stat((home / (std::string(name) + ".meta")).c_str(), &st), 0);
  }
}

}  // namespace
