// The local file system: open modes, listings, entry types, large files,
// removal, copies and the URI handler; nothing left open.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zeb/CLocalFileSystem.h>
#include <zeb/CUriHandler.h>

#include "tests/support/ResourceSnapshot.h"
#include "tests/support/TempDir.h"

namespace {

using zeb::CString;
using zeb::IFile;
using zeb::IFileSystem;
using zeb::TSharedPtr;

class LocalFileSystemTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(testsupport::WriteFile(dir / "12-Run.dat", "0123456789"));
    ASSERT_TRUE(testsupport::WriteFile(dir / "12-Run.info", "[raw]\n"));
    ASSERT_TRUE(testsupport::WriteFile(dir / "7.dat", ""));
    ASSERT_EQ(::mkdir((dir / "sub.dat").c_str(), 0700), 0);
    ASSERT_EQ(::mkfifo((dir / "pipe.dat").c_str(), 0600), 0);
  }

  testsupport::ResourceSnapshot before;
  testsupport::TempDir dir;
  IFileSystem* fs = zeb::fileSystem();
};

TEST_F(LocalFileSystemTest, OpenModes) {
  const CString data = (dir / "12-Run.dat").c_str();
  for (unsigned int mode : {0u, 0x12u, unsigned(IFile::kModeRead)}) {
    TSharedPtr<IFile> file = fs->OpenFile(data, mode);
    ASSERT_TRUE(file) << mode;
    EXPECT_TRUE(file->canRead());
    EXPECT_FALSE(file->canWrite());
    EXPECT_EQ(file->Write("x", 1), 0u);
    EXPECT_EQ(file->GetSize(), 10);
    EXPECT_STREQ(file->filename().c_str(), data.c_str());
    EXPECT_EQ(file->fileSystem(), fs);
  }
  EXPECT_FALSE(fs->OpenFile((dir / "absent").c_str(), 0));
  EXPECT_FALSE(fs->OpenFile((dir / "absent").c_str(), IFile::kModeWrite));
  EXPECT_FALSE(fs->OpenFile((dir / "sub.dat").c_str(), 0));    // a directory
  EXPECT_FALSE(fs->OpenFile((dir / "pipe.dat").c_str(), 0));   // not a regular file, no hang
  EXPECT_FALSE(fs->OpenFile((dir / "sub.dat").c_str(), IFile::kModeCreateWrite));

  TSharedPtr<IFile> made = fs->OpenFile((dir / "new.bin").c_str(), IFile::kModeCreateWrite);
  ASSERT_TRUE(made);
  EXPECT_TRUE(made->WriteBytes("hello", 5));
  EXPECT_EQ(made->Seek(-2, IFile::kSeekEnd), 3);
  char buffer[8] = {};
  EXPECT_EQ(made->Read(buffer, sizeof buffer), 2u);
  EXPECT_STREQ(buffer, "lo");
  EXPECT_TRUE(made->Close());
  EXPECT_EQ(made->Read(buffer, 1), 0u);
  TSharedPtr<IFile> again = fs->OpenFile((dir / "new.bin").c_str(), IFile::kModeCreateWrite);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->GetSize(), 0);  // truncated
  again.reset();
  made.reset();
  EXPECT_EQ(before.Leaks(), "");
}

TEST_F(LocalFileSystemTest, ListingFiltersNamesAndKeepsFilesAndDirectories) {
  IFileSystem::CDirectoryListing listing = fs->GetDirectoryListing(dir.path().c_str(), "*.dat");
  EXPECT_EQ(listing.fileSystem, fs);
  EXPECT_STREQ(listing.path.c_str(), dir.path().c_str());
  std::vector<std::string> names;
  for (const IFileSystem::CDirectoryEntry& entry : listing.entries) {
    names.push_back(std::string(entry.name.c_str()) + ":" + std::to_string(entry.type) + ":" +
                    std::to_string(entry.size));
    EXPECT_STREQ(entry.path.c_str(), (dir / entry.name.c_str()).c_str());
    EXPECT_FALSE(entry.time.IsEmpty());
  }
  EXPECT_EQ(names, (std::vector<std::string>{"12-Run.dat:2:10", "7.dat:2:0", "sub.dat:1:0"}));
  EXPECT_EQ(fs->GetDirectoryListing(dir.path().c_str(), "").entries.size(), 4u);  // no pipe
  EXPECT_EQ(fs->GetDirectoryListing((dir / "absent").c_str(), "*").entries.size(), 0u);
  EXPECT_EQ(before.Leaks(), "");
}

TEST_F(LocalFileSystemTest, InfoTypesAndRemoval) {
  struct SCase {
    const char* name;
    unsigned int type;
  };
  const SCase cases[] = {{"12-Run.dat", IFileSystem::kTypeFile},
                         {"sub.dat", IFileSystem::kTypeDirectory},
                         {"pipe.dat", IFileSystem::kTypeOther},
                         {"absent", IFileSystem::kTypeNone}};
  for (const SCase& c : cases) {
    const IFileSystem::CDirectoryEntry entry = fs->GetInfo((dir / c.name).c_str());
    EXPECT_EQ(entry.type, c.type) << c.name;
    EXPECT_STREQ(entry.name.c_str(), c.name);
  }
  EXPECT_TRUE(fs->IsFile((dir / "12-Run.dat").c_str()));
  EXPECT_TRUE(fs->IsDirectory((dir / "sub.dat").c_str()));
  EXPECT_FALSE(fs->FileExists((dir / "absent").c_str()));

  EXPECT_FALSE(fs->RemoveFile((dir / "sub.dat").c_str()));
  EXPECT_TRUE(fs->RemoveFile((dir / "7.dat").c_str()));
  EXPECT_FALSE(fs->RemoveFile((dir / "7.dat").c_str()));
  EXPECT_TRUE(fs->MakeDir((dir / "a/b/c").c_str(), true));
  EXPECT_TRUE(testsupport::WriteFile(dir / "a/b/c/f", "x"));
  EXPECT_FALSE(fs->RemoveDir((dir / "a").c_str(), false));  // not empty
  EXPECT_TRUE(fs->RemoveDir((dir / "a").c_str(), true));
  EXPECT_FALSE(fs->FileExists((dir / "a").c_str()));
}

TEST_F(LocalFileSystemTest, WorkingDirectoryAndCopies) {
  zeb::CLocalFileSystem local;
  EXPECT_FALSE(local.SetCurrentWorkingDirectory((dir / "12-Run.dat").c_str()));
  ASSERT_TRUE(local.SetCurrentWorkingDirectory(dir.path().c_str()));
  EXPECT_STREQ(local.GetFullPath("x/../12-Run.dat").c_str(), (dir / "12-Run.dat").c_str());
  EXPECT_STREQ(local.GetFullPath("file:///etc").c_str(), "/etc");
  EXPECT_TRUE(local.IsFile("12-Run.dat"));

  long lastDone = -1;
  auto progress = [](long done, long, void* context) { *static_cast<long*>(context) = done; };
  EXPECT_TRUE(local.Copy("12-Run.dat", "copy.dat", false, progress, &lastDone));
  EXPECT_EQ(lastDone, 10);
  EXPECT_EQ(testsupport::ReadFile(dir / "copy.dat"), "0123456789");
  EXPECT_FALSE(local.Copy("12-Run.dat", "copy.dat", false, nullptr, nullptr));  // exists
  EXPECT_FALSE(local.Copy("12-Run.dat", "12-Run.dat", true, nullptr, nullptr));  // itself
  TSharedPtr<IFile> source = local.OpenFile("12-Run.dat", 0);
  ASSERT_TRUE(source);
  source->Seek(4, IFile::kSeekBegin);
  EXPECT_TRUE(local.Copy(source, "part.dat", 3L, true, nullptr, nullptr));
  EXPECT_EQ(testsupport::ReadFile(dir / "part.dat"), "456");
  EXPECT_FALSE(local.Copy(source, "part.dat", 100L, true, nullptr, nullptr));  // too short
}

TEST(LargeFileTest, SizeAndReadBeyondFourGiB) {
  testsupport::TempDir dir;
  const std::string path = dir / "big.dat";
  const long size = 5L << 30;
  {
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::ftruncate(fd, size), 0);  // sparse
    ASSERT_EQ(::pwrite(fd, "TAIL", 4, size - 4), 4);
    ::close(fd);
  }
  TSharedPtr<IFile> file = zeb::fileSystem()->OpenFile(path.c_str(), 0x12);
  ASSERT_TRUE(file);
  EXPECT_EQ(file->GetSize(), size);
  EXPECT_EQ(zeb::fileSystem()->GetInfo(path.c_str()).size, static_cast<unsigned long>(size));
  EXPECT_EQ(file->Seek(-6, IFile::kSeekEnd), size - 6);
  char buffer[16] = {};
  EXPECT_EQ(file->Read(buffer, sizeof buffer), 6u);
  EXPECT_EQ(std::string(buffer, 6), std::string("\0\0TAIL", 6));
  EXPECT_EQ(file->GetPosition(), size);
}

TEST(CUriHandlerTest, RoutesByLongestRegisteredScheme) {
  zeb::CUriHandler handler;
  zeb::CLocalFileSystem a;
  zeb::CLocalFileSystem b;
  EXPECT_FALSE(handler.RegisterHandler("", &a));
  EXPECT_FALSE(handler.RegisterHandler("trk:", nullptr));
  EXPECT_TRUE(handler.RegisterHandler("trk:", &a));
  EXPECT_TRUE(handler.RegisterHandler("trk:x:", &b));
  EXPECT_EQ(handler.FileSystemForPath("trk:///12-Run A"), &a);
  EXPECT_EQ(handler.FileSystemForPath("trk:x:/y"), &b);
  EXPECT_EQ(handler.FileSystemForPath("TRK:///12-Run A"), nullptr);
  EXPECT_EQ(handler.FileSystemForPath("/local/path"), nullptr);
  EXPECT_TRUE(handler.RegisterHandler("trk:", &b));  // replaces
  EXPECT_EQ(handler.FileSystemForPath("trk://"), &b);
  EXPECT_TRUE(handler.UnregisterHandler("trk:"));
  EXPECT_EQ(handler.FileSystemForPath("trk://"), nullptr);
}

}  // namespace
