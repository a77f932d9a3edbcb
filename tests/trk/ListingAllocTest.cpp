// A listing whose entry array cannot grow leaves that entry out and goes on.
// This program replaces the framework's zeb::Alloc (the executable's
// definition takes precedence over libzeb's for every caller) so that, when
// armed, the block for a listing of two entries is refused once.
#include <gtest/gtest.h>

#include <cstdlib>

#include <zeb/Memory.h>

#include "tests/trk/TrkTestSupport.h"

namespace {
bool g_armed = false;
}  // namespace

namespace zeb {

void* Alloc(unsigned long size) {
  if (g_armed && size == 2 * sizeof(IFileSystem::CDirectoryEntry)) {
    g_armed = false;
    return nullptr;
  }
  return std::malloc(size ? size : 1);
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

}  // namespace
