// Movie files without a service: opening and removing in emulator mode over a
// temporary HOME, the imager file type's answers that need no movie, and the
// C file functions (whose single file system this program builds in emulator
// mode, so no test here may call them without an EmulatorHome).
#include <gtest/gtest.h>

#include <zeb/CLocalFileSystem.h>
#include <zeb/file/CImagerFileFactory.h>

#include "tests/support/ResourceSnapshot.h"
#include "tests/support/TempDir.h"
#include "tests/trk/TrkTestSupport.h"
#include "trk/CTrkImagerFile.h"
#include "trk/zebtrk.h"

namespace {

using testsupport::ReadFile;
using testsupport::WriteFile;
using trktest::EmulatorHome;
using zeb::trk::CTrkImagerFile;

bool Exists(const std::string& path) { return zeb::fileSystem()->FileExists(path.c_str()); }

std::string ReadAll(zeb::IFile& file) {
  std::string bytes(static_cast<size_t>(file.GetSize()), '\0');
  if (!file.ReadBytes(&bytes[0], static_cast<unsigned int>(bytes.size()))) return "<short>";
  return bytes;
}

TEST(EmulatedOpenTest, PathsMapToCacheFiles) {
  EmulatorHome home;
  ASSERT_TRUE(home.WriteRaw("7-Fire", 4, 2, 3));
  ASSERT_TRUE(WriteFile(home / ".dat", "not a movie"));
  zeb::trk::CTrkInterface fs;
  struct Case {
    const char* path;
    const char* file;  // expected cache file, or null for an empty pointer
  };
  const Case cases[] = {
      {"trk://7-Fire", "7-Fire.dat"},
      {"/7-Fire", "7-Fire.dat"},
      {"trk://7-Fire:info", "7-Fire.info"},
      {"trk://7-Fire:INFO", "7-Fire.info"},
      {"trk://sub/7-Fire:Info", "7-Fire.info"},  // only the file name part counts
      {"trk://7-Fire.dat", nullptr},             // "7-Fire.dat.dat"
      {"trk://8-Gone", nullptr},
      {"trk:///", ".dat"},  // no file name part: the extension alone
      {":info", nullptr},   // ".info", which is not there
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    zeb::TSharedPtr<zeb::IFile> file = fs.OpenFile(c.path, 0);
    if (!c.file) {
      EXPECT_FALSE(file);
      continue;
    }
    ASSERT_TRUE(file);
    EXPECT_EQ(ReadAll(*file), ReadFile(home / c.file));
    EXPECT_FALSE(file->canWrite());  // mode 0 passed through: read-only
  }
  // The mode is passed through: a movie file can even be made.
  zeb::TSharedPtr<zeb::IFile> file = fs.OpenFile("trk://9-New", zeb::IFile::kModeCreateWrite);
  ASSERT_TRUE(file);
  EXPECT_TRUE(file->canWrite());
  EXPECT_EQ(file->Write("abc", 3), 3u);
  file.reset();
  EXPECT_EQ(ReadFile(home / "9-New.dat"), "abc");
}

TEST(EmulatedRemoveTest, RemovesTheMovieAndItsCompanionsWhenItsDataFileIsThere) {
  EmulatorHome home;
  ASSERT_TRUE(home.WriteRaw("7-Fire", 4, 2, 3));
  ASSERT_TRUE(home.WriteRaw("8-Ice", 4, 2, 3));
  ASSERT_TRUE(WriteFile(home / "7-Fire.meta", "[meta]\nwidth=4\n"));
  ASSERT_TRUE(WriteFile(home / "8-Ice.meta", "[meta]\nwidth=4\n"));
  zeb::trk::CTrkInterface fs;
  int calls = 0;
  fs.AddFilesChangedHandler(zeb::delegate<void()>::FromLamda([&calls] { ++calls; }));

  EXPECT_TRUE(fs.RemoveFile("trk://7-Fire"));
  EXPECT_EQ(calls, 1);
  for (const char* name : {"7-Fire.dat", "7-Fire.info", "7-Fire.meta"}) {
    EXPECT_FALSE(Exists(home / name)) << name;
  }
  for (const char* name : {"8-Ice.dat", "8-Ice.info", "8-Ice.meta"}) {
    EXPECT_TRUE(Exists(home / name)) << name;
  }

  // Companions may be missing: the ".dat" alone decides.
  ASSERT_TRUE(zeb::fileSystem()->RemoveFile((home / "8-Ice.meta").c_str()));
  ASSERT_TRUE(zeb::fileSystem()->RemoveFile((home / "8-Ice.info").c_str()));
  EXPECT_TRUE(fs.RemoveFile("/8-Ice"));
  EXPECT_EQ(calls, 2);
  EXPECT_FALSE(Exists(home / "8-Ice.dat"));

  // Without a ".dat" nothing is removed and no handler is called.
  ASSERT_TRUE(WriteFile(home / "9-Ash.info", "info"));
  ASSERT_TRUE(WriteFile(home / "9-Ash.meta", "[meta]\n"));
  for (const char* path : {"trk://9-Ash", "trk://9-Ash:info"}) {
    EXPECT_FALSE(fs.RemoveFile(path)) << path;
  }
  EXPECT_EQ(calls, 2);
  for (const char* name : {"9-Ash.info", "9-Ash.meta"}) {
    EXPECT_TRUE(Exists(home / name)) << name;
  }

  // A path without a file name part names the file ".dat", like any other.
  ASSERT_TRUE(WriteFile(home / ".dat", "stray"));
  EXPECT_TRUE(fs.RemoveFile("trk:///"));
  EXPECT_EQ(calls, 3);
  EXPECT_FALSE(Exists(home / ".dat"));
  EXPECT_FALSE(fs.RemoveFile(""));
}

TEST(ImagerTypeTest, AnswersWithoutAMovie) {
  EmulatorHome home;
  ASSERT_TRUE(home.WriteRaw("7-Fire", 4, 2, 3));
  CTrkImagerFile file;
  EXPECT_STREQ(file.GetName(), "TRK Imager File");
  // A local raw pair that the framework's own type opens is not ours.
  const std::string local = home / "7-Fire.dat";
  EXPECT_FALSE(CTrkImagerFile::CanOpen(zeb::fileSystem(), local.c_str(), 0));
  EXPECT_FALSE(CTrkImagerFile::CanOpen(nullptr, "trk://7-Fire", 0));
  EXPECT_FALSE(file.Open(zeb::fileSystem(), local.c_str(), 0));
  EXPECT_FALSE(file.Open(nullptr, "trk://7-Fire", 0));
  EXPECT_FALSE(CTrkImagerFile::CanOpenFile(zeb::fileSystem()->OpenFile(local.c_str(), 0), 0));
  EXPECT_FALSE(CTrkImagerFile::CanOpenFile(zeb::TSharedPtr<zeb::IFile>(), 0));
}

TEST(ImagerTypeTest, FactoryDestroysOnlyItsOwnType) {
  zeb::file::CImagerFileFactory::CType type;
  ASSERT_TRUE(zeb::file::imagerFileFactory()->FindType("TRK Imager File", type));
  EXPECT_TRUE(type.canOpen == &CTrkImagerFile::CanOpen);
  EXPECT_TRUE(type.canOpenFile == &CTrkImagerFile::CanOpenFile);
  EXPECT_TRUE(type.canCreate == nullptr && type.createName == nullptr &&
              type.createList == nullptr);

  zeb::file::IImagerFile* made = type.create();
  ASSERT_NE(dynamic_cast<CTrkImagerFile*>(made), nullptr);
  type.destroy(nullptr);
  // Another type's object is left alone (ASan would report a double delete
  // below, or a leak, if it were not).
  zeb::file::CRawImagerFile* other = new zeb::file::CRawImagerFile;
  type.destroy(other);
  delete other;
  type.destroy(made);
}

// The C functions: each result is a new object that the caller deletes.
TEST(CFilesTest, ListDescribeRemove) {
  EmulatorHome home;
  ASSERT_TRUE(home.WriteRaw("7-Fire", 4, 2, 3));
  ASSERT_TRUE(home.WriteRaw("8-Ice", 4, 2, 3));

  struct ListCase {
    const char* path;
    const char* filter;
    size_t entries;
    const char* listed;  // the listing's path
  };
  const ListCase lists[] = {
      {"trk:///", nullptr, 2, "/"},
      {"trk:///", "", 2, "/"},
      {nullptr, nullptr, 2, "/"},  // null path: the empty path, the root here
      {"/sub", nullptr, 0, "/sub"},
  };
  for (const ListCase& c : lists) {
    SCOPED_TRACE(c.path ? c.path : "(null)");
    zebtrk_DirectoryListing* listing = zebtrk_GetDirectoryListing(c.path, c.filter);
    ASSERT_NE(listing, nullptr);
    EXPECT_EQ(listing->entries.size(), c.entries);
    EXPECT_STREQ(listing->path.c_str(), c.listed);
    delete listing;
  }

  struct InfoCase {
    const char* path;
    unsigned int type;
  };
  const InfoCase infos[] = {
      {"trk://7-Fire", zeb::IFileSystem::kTypeFile},
      {"trk://9-None", zeb::IFileSystem::kTypeNone},
      {nullptr, zeb::IFileSystem::kTypeNone},
  };
  for (const InfoCase& c : infos) {
    zebtrk_DirectoryEntry* entry = zebtrk_GetInfo(c.path);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->type, c.type) << (c.path ? c.path : "(null)");
    delete entry;
  }

  // A result outlives its input, and nothing is left open.
  testsupport::ResourceSnapshot before;
  {
    std::string path = "trk://7-Fire";
    zebtrk_DirectoryEntry* entry = zebtrk_GetInfo(path.c_str());
    path.assign(path.size(), 'x');
    EXPECT_STREQ(entry->name.c_str(), "7-Fire");
    EXPECT_STREQ(entry->properties.GetValue("width").c_str(), "4");
    delete entry;
  }
  EXPECT_EQ(before.Leaks(), "");

  EXPECT_FALSE(zebtrk_RemoveFile(nullptr));
  EXPECT_FALSE(zebtrk_RemoveFile("trk://9-None"));
  EXPECT_TRUE(zebtrk_RemoveFile("trk://8-Ice"));
  zebtrk_DirectoryListing* listing = zebtrk_GetDirectoryListing("trk:///", nullptr);
  ASSERT_EQ(listing->entries.size(), 1u);
  EXPECT_STREQ(listing->entries[0].name.c_str(), "7-Fire");
  delete listing;
}

}  // namespace
