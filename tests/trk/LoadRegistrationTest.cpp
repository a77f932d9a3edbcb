// Loading libzebtrk registers "TRK Imager File" with the factory and does
// nothing else: no connection to the service, no thread. A program of its
// own that is not linked with the library and loads it with dlopen, while a
// fake service listens on the service socket and counts connections.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <zeb/file/CImagerFileFactory.h>

#include "tests/support/FakeService.h"
#include "tests/support/ResourceSnapshot.h"

namespace {

using testsupport::ThreadCount;

TEST(LoadRegistrationTest, LoadingOnlyRegistersTheImagerFileType) {
  FakeService fake;
  ASSERT_TRUE(fake.Start());
  zeb::file::CImagerFileFactory::CType type;
  ASSERT_FALSE(zeb::file::imagerFileFactory()->FindType("TRK Imager File", type));
  const size_t threads = ThreadCount();

  void* library = dlopen(ZEBTRK_LIBRARY_FILE, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();
  ASSERT_TRUE(zeb::file::imagerFileFactory()->FindType("TRK Imager File", type));
  EXPECT_TRUE(type.create != nullptr && type.canOpen != nullptr && type.canOpenFile != nullptr);
  EXPECT_EQ(ThreadCount(), threads);
  EXPECT_EQ(fake.ConnectionCount(), 0u);

  // The control: the first C call builds the file system, which does connect.
  typedef void* (*LoadFunction)();
  LoadFunction load = reinterpret_cast<LoadFunction>(dlsym(library, "zebtrk_Load"));
  ASSERT_NE(load, nullptr);
  EXPECT_NE(load(), nullptr);
  EXPECT_GT(fake.ConnectionCount(), 0u);
  fake.Stop();
}

}  // namespace
