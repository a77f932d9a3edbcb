// The file system without a service: paths, the cache directory, listing and
// look-up over a cache the test fills, emulator mode over a temporary HOME,
// and the handler list.
#include <gtest/gtest.h>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include <zeb/CUriHandler.h>

#include "tests/trk/TrkTestSupport.h"
#include "trk/CacheDir.h"

namespace {

using trktest::CachedFileSystem;
using trktest::Movie;
using trktest::Names;
using trktest::Prop;
using zeb::IFileSystem;

TEST(PathTest, FullPathsWorkingDirectoryAndNoDirectories) {
  CachedFileSystem fs({});
  EXPECT_STREQ(fs->GetCurrentWorkingDirectory().c_str(), "");
  struct Case {
    const char* cwd;
    const char* path;
    const char* full;
  };
  const Case cases[] = {
      {"", "trk:///", "/"},
      {"", "/", "/"},
      {"", "trk://", "/"},
      {"", "trk:///12-Run.dat", "/12-Run.dat"},
      {"", "12-Run.dat", "/12-Run.dat"},
      {"", "TRK:///x", "/TRK:/x"},  // no case folding: an ordinary relative path
      {"", "trk:/12-Run.dat", "/trk:/12-Run.dat"},
      {"/", "12-Run A", "/12-Run A"},
      {"/sub", "a", "/sub/a"},
      {"/sub", "trk:///a", "/a"},
      {"/sub", "trk://a", "/sub/a"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.cwd) + " | " + c.path);
    EXPECT_TRUE(fs->SetCurrentWorkingDirectory(c.cwd));
    EXPECT_STREQ(fs->GetFullPath(c.path).c_str(), c.full);
    EXPECT_FALSE(fs->MakeDir(c.path, true));  // no directory but the root, ever
    EXPECT_FALSE(fs->RemoveDir(c.path, false));
  }
  EXPECT_TRUE(fs->SetCurrentWorkingDirectory("no/such dir"));
  EXPECT_STREQ(fs->GetCurrentWorkingDirectory().c_str(), "no/such dir");
}

TEST(CacheDirTest, HomeSources) {
  struct Case {
    const char* home;
    const char* passwordHome;
    const char* dir;
  };
  const Case cases[] = {
      {"/home/op", "/ignored", "/home/op/.cache/Ostrel Systems/TRK"},
      {"/home/op/", nullptr, "/home/op/.cache/Ostrel Systems/TRK"},
      {nullptr, "/root", "/root/.cache/Ostrel Systems/TRK"},
      {"", "/ignored", ".cache/Ostrel Systems/TRK"},  // set but empty: relative
      {nullptr, nullptr, ""},                         // no home at all: refused
  };
  for (const Case& c : cases) {
    EXPECT_STREQ(zeb::trk::CacheDirFor(c.home, c.passwordHome).c_str(), c.dir);
  }
}

TEST(CacheDirTest, EnvironmentAndPasswordDatabase) {
  {
    testsupport::ScopedEnv home("HOME", "/home/op");
    EXPECT_STREQ(zeb::trk::GetCacheDir().c_str(), "/home/op/.cache/Ostrel Systems/TRK");
  }
  testsupport::ScopedEnv home("HOME", std::nullopt);
  const passwd* entry = getpwuid(getuid());
  ASSERT_NE(entry, nullptr);
  EXPECT_EQ(std::string(zeb::trk::GetCacheDir().c_str()), std::string(entry->pw_dir) + "/.cache/Ostrel Systems/TRK");
}

// Movies 12 "Run A" (0), 13 "Test" (1), a duplicate of 12 (2), 14 with an
// empty name (3) and 15 "run b" (4).
std::vector<STrkMovieInfo> SampleMovies() {
  return {Movie(12, "Run A", 640, 480, 100), Movie(13, "Test", 320, 240, 7), Movie(12, "Run A", 16, 16, 1),
          Movie(14, ""), Movie(15, "run b")};
}

TEST(ListingTest, RootFiltersAndOtherDirectories) {
  CachedFileSystem fs(SampleMovies());
  struct Case {
    const char* path;
    const char* filter;
    std::vector<std::string> names;
    std::vector<std::string> indexes;
    bool root = true;  // false: the listing's path is GetFullPath(path)
  };
  const std::vector<std::string> all = {"12-Run A", "13-Test", "12-Run A", "14-", "15-run b"};
  const Case cases[] = {
      {"trk:///", "", all, {"0", "1", "2", "3", "4"}},
      {"/", "", all, {"0", "1", "2", "3", "4"}},
      {"trk://", "*", all, {"0", "1", "2", "3", "4"}},
      {"/sub/..", "", all, {"0", "1", "2", "3", "4"}},
      {"/", "Run*", {"12-Run A", "12-Run A"}, {"0", "2"}},  // the movie's own name only
      {"/", "run*", {"15-run b"}, {"4"}},                   // case-sensitive
      {"/", "12*", {}, {}},
      {"/", "*.dat", {}, {}},
      {"/", "T?st", {"13-Test"}, {"1"}},
      // Anything but the root is empty, and keeps its own full path.
      {"/12-Run A", "", {}, {}, false},
      {"/sub", "", {}, {}, false},
      {"trk:///sub/", "", {}, {}, false},
      {"sub", "", {}, {}, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.path) + " | " + c.filter);
    const IFileSystem::CDirectoryListing listing = fs->GetDirectoryListing(c.path, c.filter);
    EXPECT_EQ(listing.fileSystem, &*fs);
    EXPECT_STREQ(listing.path.c_str(), c.root ? "/" : fs->GetFullPath(c.path).c_str());
    EXPECT_EQ(Names(listing), c.names);
    std::vector<std::string> indexes;
    for (const auto& entry : listing.entries) {
      indexes.push_back(Prop(entry, "index"));
      EXPECT_EQ(std::string(entry.path.c_str()), "/" + std::string(entry.name.c_str()));
    }
    EXPECT_EQ(indexes, c.indexes);
  }
  const IFileSystem::CDirectoryListing first = fs->GetDirectoryListing("/", "");
  EXPECT_EQ(first.entries[0].type, 2u);
  EXPECT_EQ(first.entries[0].size, 61440000u);
  EXPECT_EQ(Prop(first.entries[1], "width"), "320");
}

TEST(GetInfoTest, Lookups) {
  CachedFileSystem fs(SampleMovies());
  struct Case {
    const char* path;
    unsigned int type;
    const char* name;
    const char* fullPath;
    const char* index;  // null: no properties
  };
  const Case cases[] = {
      {"/13-Test", 2, "13-Test", "/13-Test", "1"},
      {"trk:///13-Test", 2, "13-Test", "/13-Test", "1"},
      {"/other/13-Test", 2, "13-Test", "/other/13-Test", "1"},
      {"/12-Run A", 2, "12-Run A", "/12-Run A", "0"},  // the first of two duplicates
      {"/14-", 2, "14-", "/14-", "3"},
      {"/13-test", 0x80000000u, "13-test", "/13-test", nullptr},
      {"/13-Test.dat", 0x80000000u, "13-Test.dat", "/13-Test.dat", nullptr},
      {"/13-Test:info", 0x80000000u, "13-Test:info", "/13-Test:info", nullptr},
      {"/", 0x80000000u, "", "/", nullptr},
      {"/13", 0x80000000u, "13", "/13", nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const IFileSystem::CDirectoryEntry entry = fs->GetInfo(c.path);
    EXPECT_EQ(entry.type, c.type);
    EXPECT_STREQ(entry.name.c_str(), c.name);
    EXPECT_STREQ(entry.path.c_str(), c.fullPath);
    if (c.index) {
      EXPECT_EQ(Prop(entry, "index"), c.index);
    } else {
      EXPECT_EQ(entry.properties.size(), 0u);
      EXPECT_EQ(entry.size, 0u);
    }
  }
  EXPECT_EQ(Prop(fs->GetInfo("/12-Run A"), "width"), "640");
}

TEST(EmulatorTest, ListingAndLookup) {
  trktest::EmulatorHome home;
  ASSERT_TRUE(home.WriteRaw("7-Fire", 4, 2, 3));
  ASSERT_TRUE(testsupport::WriteFile(home / "8-Broken.dat", "not raw"));  // left out
  ASSERT_TRUE(testsupport::WriteFile(home / "9-Kept.dat", "not raw either"));
  ASSERT_TRUE(testsupport::WriteFile(home / "9-Kept.meta", "[meta]\nwidth=320\n"));
  ASSERT_TRUE(home.WriteRaw("10-Last", 2, 2, 1));
  ASSERT_TRUE(testsupport::WriteFile(home / "notes.txt", "x"));
  zeb::trk::CTrkInterface fs;
  EXPECT_TRUE(fs.drivePresent());

  for (const char* filter : {"", "nothing matches this"}) {
    const IFileSystem::CDirectoryListing listing = fs.GetDirectoryListing("trk:///", filter);
    EXPECT_EQ(listing.fileSystem, &fs);
    EXPECT_STREQ(listing.path.c_str(), "/");
    // The local file system's order (by name), the broken one left out.
    EXPECT_EQ(Names(listing), (std::vector<std::string>{"10-Last", "7-Fire", "9-Kept"}));
    ASSERT_EQ(listing.entries.size(), 3u);
    EXPECT_STREQ(listing.entries[1].path.c_str(), "/7-Fire");
    EXPECT_EQ(listing.entries[1].type, 2u);
    EXPECT_EQ(listing.entries[1].size, 4u * 2 * 3 * 2);
    EXPECT_EQ(Prop(listing.entries[1], "index"), "7");
    EXPECT_EQ(Prop(listing.entries[2], "width"), "320");
  }
  struct stat st;
  EXPECT_EQ(stat((home / "7-Fire.meta").c_str(), &st), 0);
  EXPECT_NE(stat((home / "8-Broken.meta").c_str(), &st), 0);
  EXPECT_EQ(fs.GetDirectoryListing("/sub", "").entries.size(), 0u);

  const IFileSystem::CDirectoryEntry fire = fs.GetInfo("trk:///7-Fire");
  EXPECT_EQ(fire.type, 2u);
  EXPECT_STREQ(fire.name.c_str(), "7-Fire");
  EXPECT_STREQ(fire.path.c_str(), "/7-Fire");
  EXPECT_EQ(fire.size, 48u);
  EXPECT_EQ(Prop(fire, "numFrames"), "3");
  EXPECT_EQ(fs.GetInfo("/8-Broken").type, 0x80000000u);
  EXPECT_EQ(fs.GetInfo("/missing").type, 0x80000000u);
}

TEST(EmulatorTest, AnyNonEmptyValueSelectsIt) {
  testsupport::ScopedEnv emulator("ZEBTRK_ENABLE_EMULATOR", "0");
  zeb::trk::CTrkInterface fs;
  EXPECT_TRUE(fs.data()->emulator);
  EXPECT_TRUE(fs.drivePresent());
  EXPECT_FALSE(fs.data()->thread.joinable());
  EXPECT_EQ(zeb::CUriHandler::instance()->FileSystemForPath("trk:///"), &fs);
}

// Handler targets that count their calls. The lambda reads its capture
// again after `onCall`, so a handler freed while it runs is caught by the
// address sanitizer.
struct Counter {
  int calls = 0;
  int returns = 0;
  std::function<void()> onCall;
};

zeb::delegate<void()> Handler(Counter& counter) {
  return zeb::delegate<void()>::FromLamda([&counter] {
    ++counter.calls;
    if (counter.onCall) counter.onCall();
    ++counter.returns;
  });
}

// A handler whose copies get targets of their own, as the framework allows a
// delegate's clone to do.
struct SOwnTarget {
  Counter* counter;
};
void InvokeOwn(void* target) { Counter& c = *static_cast<SOwnTarget*>(target)->counter; ++c.calls; c.onCall(); }
void* CloneOwn(void* target) { return new SOwnTarget(*static_cast<SOwnTarget*>(target)); }
void DestroyOwn(void* target) { delete static_cast<SOwnTarget*>(target); }
const zeb::delegate<void()>::STable kOwnTable = {&CloneOwn, &DestroyOwn};

TEST(HandlerTest, AddRemoveAndOrder) {
  CachedFileSystem fs({});
  Counter a, b, c, d;
  zeb::delegate<void()> ha = Handler(a), hb = Handler(b), hc = Handler(c);
  std::vector<char> order;
  a.onCall = [&] { order.push_back('a'); };
  b.onCall = [&] { order.push_back('b'); };
  c.onCall = [&] { order.push_back('c'); };
  d.onCall = [&] { order.push_back('d'); };

  fs->AddFilesChangedHandler(ha);
  fs->AddFilesChangedHandler(ha);  // equal: ignored
  zeb::delegate<void()> copyOfB(hb);
  fs->AddFilesChangedHandler(std::move(copyOfB));
  EXPECT_EQ(copyOfB.invoker(), nullptr);  // moved in: all three words zero
  EXPECT_EQ(copyOfB.target(), nullptr);
  EXPECT_EQ(copyOfB.table(), nullptr);
  zeb::delegate<void()> secondB(hb);
  fs->AddFilesChangedHandler(std::move(secondB));  // equal: ignored, left as it was
  EXPECT_TRUE(secondB == hb);
  fs->AddFilesChangedHandler(hc);
  const zeb::delegate<void()> hd(&InvokeOwn, new SOwnTarget{&d}, &kOwnTable);
  fs->AddFilesChangedHandler(hd);  // registers a copy with a new target
  EXPECT_EQ(fs->data()->handlers.size(), 4u);

  fs->data()->ListMovies();  // no service: empty cache, handlers called all the same
  EXPECT_EQ(order, (std::vector<char>{'a', 'b', 'c', 'd'}));

  fs->RemoveFilesChangedHandler(zeb::delegate<void()>(hb));  // a copy removes it
  fs->RemoveFilesChangedHandler(hb);                         // no longer there: nothing
  order.clear();
  fs->data()->ListMovies();
  EXPECT_EQ(order, (std::vector<char>{'a', 'c', 'd'}));
  EXPECT_EQ(fs->data()->movies.size(), 0u);
}

TEST(HandlerTest, HandlersChangingTheListWhileCalled) {
  CachedFileSystem fs({});
  Counter first, second, third, added;
  zeb::delegate<void()> hAdded = Handler(added);
  // The file system holds the only reference to the first and the third
  // handler. The first removes the third and then itself (through copies
  // that die at once) and adds a new one; the second lists the root from
  // inside the refresh (the lock is recursive).
  first.onCall = [&] {
    auto& handlers = fs->data()->handlers;
    fs->RemoveFilesChangedHandler(zeb::delegate<void()>(handlers[2]));
    fs->RemoveFilesChangedHandler(zeb::delegate<void()>(handlers[0]));
    fs->AddFilesChangedHandler(hAdded);
  };
  second.onCall = [&] { EXPECT_EQ(fs->GetDirectoryListing("/", "").entries.size(), 0u); };
  fs->AddFilesChangedHandler(Handler(first));
  fs->AddFilesChangedHandler(Handler(second));
  fs->AddFilesChangedHandler(Handler(third));

  fs->data()->ListMovies();
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(first.returns, 1);  // its target outlived its own removal
  EXPECT_EQ(second.calls, 1);
  EXPECT_EQ(third.calls, 0);  // removed during the walk, before its turn
  EXPECT_EQ(added.calls, 0);  // added during the walk: from the next walk on
  fs->data()->ListMovies();
  EXPECT_EQ(first.calls, 1);
  EXPECT_EQ(second.calls, 2);
  EXPECT_EQ(added.calls, 1);
  EXPECT_EQ(fs->data()->handlers.size(), 2u);
}

}  // namespace
