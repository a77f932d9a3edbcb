// The single file system and the C interface, in a process of their own (the
// singleton is process-wide). Emulator mode throughout, so no service is
// involved; the tests run in the order written, the first one before anything
// has constructed the file system.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>

#include <zeb/CUriHandler.h>

#include "tests/support/ResourceSnapshot.h"
#include "tests/support/ScopedEnv.h"
#include "trk/CTrkInterface.h"
#include "trk/STrkInterfaceData.h"
#include "trk/zebtrk.h"

namespace {

// The handler target that zebtrk_AddFilesChangedHandler makes, as C hosts and
// the framework see it: callback, user data, clone, destroy, 32-bit count.
struct SExpectedTarget {
  void (*callback)(void*);
  void* userData;
  void* (*clone)(void*);
  void (*destroy)(void*);
  std::atomic<std::uint32_t> count;
};

void CountCall(void* userData) { ++*static_cast<int*>(userData); }

TEST(EntryPointsTest, LoadingConstructsNothingAndTheFirstCallDoes) {
  static testsupport::ScopedEnv emulator("ZEBTRK_ENABLE_EMULATOR", "1");
  EXPECT_EQ(zeb::CUriHandler::instance()->FileSystemForPath("trk:///"), nullptr);
  EXPECT_EQ(testsupport::ThreadCount(), 1u);
  EXPECT_TRUE(zebtrk_drivePresent());  // the first call constructs
  zeb::trk::CTrkInterface* fs = zeb::trk::instance();
  EXPECT_EQ(zeb::CUriHandler::instance()->FileSystemForPath("trk:///"), fs);
  EXPECT_EQ(zebtrk_Load(), fs);
  EXPECT_EQ(zebtrk_Load(), fs);
}

TEST(EntryPointsTest, HandlerTargetsAndTheirReferenceCounts) {
  int calls = 0;
  zebDelegate handle = zebtrk_AddFilesChangedHandler(&CountCall, &calls);
  SExpectedTarget* target = static_cast<SExpectedTarget*>(handle.target);
  ASSERT_NE(target, nullptr);
  EXPECT_EQ(target->callback, &CountCall);
  EXPECT_EQ(target->userData, &calls);
  EXPECT_EQ(handle.table, &target->clone);  // the table is the pair inside the target
  EXPECT_EQ(target->count.load(), 2u);      // the handle and the registered copy

  handle.invoker(handle.target);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(target->clone(target), target);
  EXPECT_EQ(target->count.load(), 3u);
  target->destroy(target);
  EXPECT_EQ(target->count.load(), 2u);

  zeb::trk::instance()->data()->ListMovies();  // every refresh calls the handlers
  EXPECT_EQ(calls, 2);

  // An extra reference keeps the target readable through the removal, which
  // releases the registered copy and the handle.
  target->clone(target);
  zebtrk_RemoveFilesChangedHandler(handle);
  EXPECT_EQ(target->count.load(), 1u);
  zeb::trk::instance()->data()->ListMovies();
  EXPECT_EQ(calls, 2);
  target->destroy(target);  // 0: freed (the leak checker would see otherwise)
  EXPECT_EQ(zeb::trk::instance()->data()->handlers.size(), 0u);
}

TEST(EntryPointsTest, EachAddRegistersItsOwnHandler) {
  int calls = 0;
  zebDelegate first = zebtrk_AddFilesChangedHandler(&CountCall, &calls);
  zebDelegate second = zebtrk_AddFilesChangedHandler(&CountCall, &calls);
  EXPECT_NE(first.target, second.target);
  zeb::trk::instance()->data()->ListMovies();
  EXPECT_EQ(calls, 2);
  zebtrk_RemoveFilesChangedHandler(first);
  zeb::trk::instance()->data()->ListMovies();
  EXPECT_EQ(calls, 3);
  zebtrk_RemoveFilesChangedHandler(second);
  zebtrk_RemoveFilesChangedHandler(zebDelegate{nullptr, nullptr, nullptr});  // harmless
  zeb::trk::instance()->data()->ListMovies();
  EXPECT_EQ(calls, 3);
}

// Output of a command.
std::string RunCommand(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return output;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  pclose(pipe);
  return output;
}

TEST(LibraryTest, CFunctionsAreExportedUnmangled) {
  const std::string symbols = RunCommand(std::string("nm -D --defined-only '") + ZEBTRK_LIBRARY_FILE + "'");
  ASSERT_FALSE(symbols.empty());
  for (const char* name :
       {"zebtrk_Load", "zebtrk_drivePresent", "zebtrk_AddFilesChangedHandler", "zebtrk_RemoveFilesChangedHandler",
        "zebtrk_GetDirectoryListing", "zebtrk_GetInfo", "zebtrk_RemoveFile"}) {
    EXPECT_NE(symbols.find(std::string(" T ") + name + "\n"), std::string::npos) << name;
  }
  EXPECT_NE(symbols.find("_ZN3zeb3trk8instanceEv"), std::string::npos);
  // Internal helpers stay inside.
  EXPECT_EQ(symbols.find("GetCacheDir"), std::string::npos);
}

TEST(LibraryTest, RunTimeSearchPath) {
  const std::string dynamic = RunCommand(std::string("readelf -d '") + ZEBTRK_LIBRARY_FILE + "'");
  ASSERT_FALSE(dynamic.empty());
  size_t found = 0;
  for (const char* tag : {"(RUNPATH)", "(RPATH)"}) {
    for (size_t at = dynamic.find(tag); at != std::string::npos; at = dynamic.find(tag, at + 1)) {
      ++found;
      const size_t end = dynamic.find('\n', at);
      EXPECT_NE(dynamic.substr(at, end - at).find("[$ORIGIN/.:$ORIGIN/../lib]"), std::string::npos)
          << dynamic.substr(at, end - at);
    }
  }
  EXPECT_EQ(found, 1u);
}

}  // namespace
