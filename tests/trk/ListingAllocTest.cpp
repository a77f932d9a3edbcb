// Exhausted memory in the file system: a listing whose entry array cannot
// grow leaves that entry out and goes on; a first refresh whose cache cannot
// grow leaves the C function that constructs the file system, and the next
// call constructs it afresh. This program replaces the framework's zeb::Alloc
// and zeb::Realloc (the executable's definitions take precedence over libzeb's
// for every caller) so that, when armed, the block for a listing of two
// entries, or for a cache of three movies, is refused once.
#include <gtest/gtest.h>

#include <cstdlib>

#include <zeb/Memory.h>

#include "tests/support/FakeDrive.h"
#include "tests/trk/TrkTestSupport.h"
#include "trk/zebtrk.h"

namespace {
bool g_armed = false;
bool g_cacheArmed = false;
}  // namespace

namespace zeb {

void* Alloc(unsigned long size) {
  if (g_armed && size == 2 * sizeof(IFileSystem::CDirectoryEntry)) {
    g_armed = false;
    return nullptr;
  }
  return std::malloc(size ? size : 1);
}

void* Realloc(void* block, unsigned long size) {
  if (g_cacheArmed && size == 4 * sizeof(STrkMovieInfo)) {  // three records: capacity 4
    g_cacheArmed = false;
    return nullptr;
  }
  return std::realloc(block, size ? size : 1);
}

}  // namespace zeb

namespace {

TEST(ListingAllocTest, AnEntryThatCannotBeAddedIsLeftOut) {
  trktest::CachedFileSystem fs({trktest::Movie(1, "a"), trktest::Movie(2, "b"), trktest::Movie(3, "c")});
  g_armed = true;
  const zeb::IFileSystem::CDirectoryListing listing = fs->GetDirectoryListing("/", "");
  EXPECT_FALSE(g_armed);  // the refusal happened
  EXPECT_EQ(trktest::Names(listing), (std::vector<std::string>{"1-a", "3-c"}));
  ASSERT_EQ(listing.entries.size(), 2u);
  EXPECT_EQ(trktest::Prop(listing.entries[1], "index"), "2");
}

TEST(ConstructionAllocTest, AFirstRefreshThatCannotGrowLeavesTheCFunctionAndTheNextCallTriesAgain) {
  FakeService fake;
  testsupport::FakeDrive drive(fake);
  drive.SetMovies({{1, "a", 4, 2, 3}, {2, "b", 4, 2, 3}, {3, "c", 4, 2, 3}});
  ASSERT_TRUE(fake.Start());
  g_cacheArmed = true;
  EXPECT_THROW(zebtrk_Load(), zeb::CBadAllocException);
  EXPECT_FALSE(g_cacheArmed);  // the refusal happened
  zebtrk_Interface* fs = zebtrk_Load();
  ASSERT_NE(fs, nullptr);
  EXPECT_EQ(trktest::Names(zeb::trk::instance()->GetDirectoryListing("/", "")),
            (std::vector<std::string>{"1-a", "2-b", "3-c"}));
}

}  // namespace
