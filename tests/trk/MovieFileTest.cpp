// Movie files against the scriptable fake service: which frames a read asks
// for, what it copies, seeking, the openings that give an empty file, and
// opening and removing through the file system in normal mode.
#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <string>
#include <vector>

#include "client/CTrkClient.h"
#include "tests/support/FakeDrive.h"
#include "tests/support/ResourceSnapshot.h"
#include "tests/trk/TrkTestSupport.h"
#include "trk/CTrkFile.h"
#include "trk/CTrkImagerFile.h"

namespace {

using namespace testsupport;
using trktest::Names;
using zeb::trk::CTrkFile;

// The bytes at `position` of movie `fileId` of frames of `frameBytes`.
std::vector<unsigned char> Expected(unsigned int fileId, size_t frameBytes, unsigned long position, size_t count) {
  std::vector<unsigned char> bytes(count);
  for (size_t i = 0; i < count; ++i) {
    bytes[i] = PatternByte(fileId, (position + i) / frameBytes, (position + i) % frameBytes);
  }
  return bytes;
}
std::vector<unsigned char> Expected(unsigned int fileId, unsigned long position, size_t count) {
  return Expected(fileId, 16, position, count);  // the 4 x 2 movies
}

// Movies 10 "Run" and 11 "Run" of 4 x 2 pixels (16-byte frames) and five
// frames, a 320 x 240 movie of ten frames, a 4 x 2 movie whose segment is one
// byte short of a frame and a 4 x 2 movie of two frames, on a fake drive;
// files of them over a client of the test's own.
class FakeMovies {
 public:
  enum : unsigned int { kSmall = 0, kSmall2 = 1, kQvga = 2, kShortSegment = 3, kTwoFrames = 4 };

  FakeMovies() {
    m_drive.SetMovies({{10, "Run", 4, 2, 5}, {11, "Run", 4, 2, 5}, {12, "Q", 320, 240, 10},
                       {13, "S", 4, 2, 5, 15}, {14, "T", 4, 2, 2}});
    EXPECT_TRUE(m_fake.Start());
    EXPECT_TRUE(m_client.Connect());
  }

  std::unique_ptr<CTrkFile> Open(unsigned int fileId, unsigned short width = 4, unsigned short height = 2,
                                 unsigned long frames = 5) {
    return std::unique_ptr<CTrkFile>(new CTrkFile(nullptr, &m_client, fileId, "movie", width, height, frames));
  }
  std::vector<long long> Frames() const { return m_drive.Sent(kFrame, "frameNumber"); }
  FakeDrive& drive() { return m_drive; }

 private:
  FakeService m_fake;
  FakeDrive m_drive{m_fake};
  CTrkClient m_client;
};

struct Step {
  long seek;                      // absolute position before the read
  unsigned int count;             // bytes asked for
  unsigned int got;               // bytes expected
  std::vector<long long> frames;  // frame requests this read adds
};

void RunSteps(FakeMovies& service, unsigned int fileId, unsigned short width, unsigned short height,
              unsigned long frames, const std::vector<Step>& steps) {
  const size_t frameBytes = size_t{width} * height * 2;
  std::unique_ptr<CTrkFile> file = service.Open(fileId, width, height, frames);
  EXPECT_EQ(file->GetSize(), static_cast<long>(frameBytes * frames));
  size_t sent = service.Frames().size();
  for (const Step& step : steps) {
    SCOPED_TRACE("read " + std::to_string(step.count) + " at " + std::to_string(step.seek));
    ASSERT_EQ(file->Seek(step.seek, 1), step.seek);
    std::vector<unsigned char> bytes(step.count + 1, 0xEE);
    ASSERT_EQ(file->Read(bytes.data(), step.count), step.got);
    EXPECT_EQ(file->GetPosition(), step.seek + static_cast<long>(step.got));
    EXPECT_EQ(bytes[step.got], 0xEE);  // nothing written past what was read
    bytes.resize(step.got);
    EXPECT_EQ(bytes, Expected(fileId, frameBytes, static_cast<unsigned long>(step.seek), step.got));
    const std::vector<long long> frames = service.Frames();
    EXPECT_EQ(std::vector<long long>(frames.begin() + static_cast<long>(sent), frames.end()), step.frames);
    sent = frames.size();
  }
}

TEST(MovieFileTest, ReadsAskForEachTouchedFrameOnce) {
  FakeMovies service;
  RunSteps(service, FakeMovies::kQvga, 320, 240, 10, {
      {153550, 100, 100, {0, 1}},  // 50 bytes of frame 0, 50 of frame 1
      {153650, 10, 10, {}},        // frame 1 is held
      {0, 1, 1, {0}},
      {1536000 - 4, 100, 4, {9}},  // cut at the end: frame 10 is never asked for
      {1536000, 100, 0, {}},
  });
  RunSteps(service, FakeMovies::kSmall, 4, 2, 5, {
      {0, 4, 4, {0}},
      {4, 4, 4, {}},
      {10, 20, 20, {1}},  // frame 0 held, frame 1 fetched
      {0, 80, 80, {0, 1, 2, 3, 4}},
      {70, 0, 0, {}},
      {79, 1, 1, {}},
      {48, 32, 32, {3, 4}},
  });
}

TEST(MovieFileTest, SeeksClampAndLeaveTheHeldFrame) {
  FakeMovies service;
  std::unique_ptr<CTrkFile> file = service.Open(FakeMovies::kSmall);
  struct Case {
    long offset;
    unsigned int origin;
    long position;
  };
  const Case cases[] = {
      {-10, 1, 0}, {10, 3, 80}, {-4, 3, 76}, {5, 7, 76}, {-6, 2, 70}, {20, 2, 80},
      {LONG_MAX, 2, 80}, {LONG_MIN, 3, 0}, {LONG_MIN, 2, 0}, {LONG_MAX, 1, 80}, {3, 1, 3},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(file->Seek(c.offset, c.origin), c.position) << c.offset << " from " << c.origin;
    EXPECT_EQ(file->GetPosition(), c.position);
  }
  EXPECT_TRUE(service.Frames().empty());  // seeking never talks to the service
}

TEST(MovieFileTest, OpeningsThatGiveAnEmptyFile) {
  FakeMovies service;
  struct Case {
    const char* what;
    unsigned int fileId;
    unsigned short width, height;
    unsigned long frames;
    bool refuse;    // the service refuses OpenMovie (no segments of gigabytes here)
    bool openSent;  // OpenMovie sent, and so CloseMovie on destruction
    long size;
  };
  const Case cases[] = {
      {"refused by the service", 0, 4, 2, 5, true, true, 0},
      {"segment shorter than a frame", FakeMovies::kShortSegment, 4, 2, 5, false, true, 0},
      {"largest frame that fits 32 bits", 0, 65535, 32768, 1, true, true, 0},
      {"frame of 2^31 pixels and more", 0, 65535, 32769, 1, true, false, 0},
      {"largest dimensions", 0, 65535, 65535, 3, true, false, 0},
      {"no width", 0, 0, 2, 5, false, true, 0},
      {"no height", 0, 4, 0, 5, false, true, 0},
      {"movie beyond 2^63 bytes", 0, 65535, 32768, 1UL << 33, true, false, 0},
      {"no frames", 0, 4, 2, 0, false, true, 0},
      {"the control: a good movie", 0, 4, 2, 5, false, true, 80},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const long opens = service.drive().Count(kOpen);
    const long closes = service.drive().Count(kClose);
    if (c.refuse) service.drive().FaultAlways(kOpen, FakeDrive::Reply::Error("cannot open"));
    ResourceSnapshot before;
    {
      std::unique_ptr<CTrkFile> file = service.Open(c.fileId, c.width, c.height, c.frames);
      EXPECT_EQ(file->GetSize(), c.size);
      unsigned char byte = 0;
      EXPECT_EQ(file->Read(&byte, 1), c.size ? 1u : 0u);
      EXPECT_EQ(service.drive().Count(kOpen) - opens, c.openSent ? 1 : 0);
    }
    service.drive().FaultAlways(kOpen, std::nullopt);
    EXPECT_EQ(service.drive().Count(kClose) - closes, c.openSent ? 1 : 0);
    EXPECT_EQ(before.Leaks(), "");  // the short segment's mapping is gone too
  }
  EXPECT_EQ(service.Frames(), std::vector<long long>({0}));  // the control's read alone
}

// The file claims five frames, the service has two. A failed frame is asked
// for again; the last frame fetched is still held and read without a request.
TEST(MovieFileTest, AFailedFrameEndsTheReadAndTheHeldFrameStays) {
  FakeMovies service;
  std::unique_ptr<CTrkFile> file = service.Open(FakeMovies::kTwoFrames);
  std::vector<unsigned char> bytes(80);
  EXPECT_EQ(file->Read(bytes.data(), 80), 32u);
  EXPECT_EQ(file->GetPosition(), 32);
  EXPECT_EQ(file->Read(bytes.data(), 80), 0u);
  ASSERT_EQ(file->Seek(20, 1), 20);
  ASSERT_EQ(file->Read(bytes.data(), 4), 4u);
  bytes.resize(4);
  EXPECT_EQ(bytes, Expected(FakeMovies::kTwoFrames, 16, 20, 4));
  EXPECT_EQ(service.Frames(), std::vector<long long>({0, 1, 2, 2}));
}

TEST(MovieFileTest, ReadOnlyAndClosing) {
  FakeMovies service;
  const unsigned int id = FakeMovies::kSmall2;
  {
    std::unique_ptr<CTrkFile> file = service.Open(id);
    EXPECT_STREQ(file->filename().c_str(), "movie");
    EXPECT_EQ(file->fileSystem(), nullptr);
    EXPECT_TRUE(file->canRead());
    EXPECT_FALSE(file->canWrite());
    EXPECT_EQ(file->Write("abcd", 4), 0u);
    EXPECT_FALSE(file->SetSize(10));
    EXPECT_EQ(file->GetSize(), 80);
    unsigned char bytes[8];
    EXPECT_EQ(file->Read(bytes, 4), 4u);
    EXPECT_TRUE(file->Close());
    // The mapping stays: the held frame still reads without a request.
    EXPECT_EQ(file->Read(bytes, 4), 4u);
    EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + 4), Expected(id, 4, 4));
    EXPECT_FALSE(file->Close());  // the service no longer has it open
  }
  EXPECT_EQ(service.drive().Sent(kClose), std::vector<long long>({id, id, id}));  // and once more on destruction
  EXPECT_EQ(service.Frames(), std::vector<long long>({0}));
}

// The fake fills every opening of a movie on a frame request, so a file
// must not trust its held frame after another file of the movie asked.
TEST(MovieFileTest, FilesOfOneMovieDoNotTrustEachOthersFrames) {
  FakeMovies service;
  std::unique_ptr<CTrkFile> a = service.Open(FakeMovies::kSmall);
  std::unique_ptr<CTrkFile> b = service.Open(FakeMovies::kSmall);
  unsigned char bytes[4];
  ASSERT_EQ(a->Read(bytes, 4), 4u);
  ASSERT_EQ(b->Seek(48, 1), 48);
  ASSERT_EQ(b->Read(bytes, 4), 4u);
  ASSERT_EQ(a->Read(bytes, 4), 4u);
  EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + 4), Expected(0, 4, 4));
  ASSERT_EQ(a->Read(bytes, 4), 4u);  // held again
  EXPECT_EQ(service.Frames(), std::vector<long long>({0, 3, 0}));
}

// Opening and removing through the file system, its request client connected
// to the fake and its cache set by the test to the drive's first two movies.
class FileSystemFilesTest : public ::testing::Test {
 protected:
  FileSystemFilesTest() : m_fs({trktest::Movie(10, "Run", 4, 2, 5), trktest::Movie(11, "Run", 4, 2, 5)}) {
    EXPECT_TRUE(m_fs->data()->client.Connect());
  }
  FakeDrive& drive() { return m_service.drive(); }
  // Every ReadInfoFile answers `bytes`, or is refused.
  void SetInfo(const std::vector<unsigned char>& bytes, bool refuse) {
    drive().FaultAlways(kReadInfo, refuse ? FakeDrive::Reply::Error("no information file")
                                          : FakeDrive::Reply::Result({{"data", FakeService::Blob(bytes)}}));
  }
  FakeMovies m_service;
  trktest::CachedFileSystem m_fs;
};

TEST_F(FileSystemFilesTest, InformationFiles) {
  const std::vector<unsigned char> info = {'[', 'r', 'a', 'w', ']', '\n', 0, 0xFF};
  struct Case {
    const char* path;
    bool refuse;
    std::vector<unsigned char> sent;
    bool opened;
  };
  const Case cases[] = {
      {"trk://11-Run:info", false, info, true},
      {"trk://11-Run:INFO", false, info, true},
      {"/11-Run:Info", false, {}, true},  // an empty information file is still a file
      {"trk://11-Run:info", true, info, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    SetInfo(c.sent, c.refuse);
    zeb::TSharedPtr<zeb::IFile> file = m_fs->OpenFile(c.path, 0);
    ASSERT_EQ(static_cast<bool>(file), c.opened);
    EXPECT_EQ(drive().Sent(kReadInfo).back(), 1);  // position of 11-Run in the cache
    if (!file) continue;
    EXPECT_EQ(file->GetPosition(), 0);
    ASSERT_EQ(file->GetSize(), static_cast<long>(c.sent.size()));
    std::vector<unsigned char> bytes(c.sent.size());
    EXPECT_TRUE(file->ReadBytes(bytes.data(), static_cast<unsigned int>(bytes.size())));
    EXPECT_EQ(bytes, c.sent);
  }
}

TEST_F(FileSystemFilesTest, MovieFilesAndNamesThatMatchNothing) {
  zeb::TSharedPtr<zeb::IFile> file = m_fs->OpenFile("trk://11-Run", zeb::IFile::kModeCreateWrite);
  ASSERT_TRUE(file);
  EXPECT_FALSE(file->canWrite());
  EXPECT_EQ(file->GetSize(), 80);
  EXPECT_STREQ(file->filename().c_str(), "11-Run");
  EXPECT_EQ(file->fileSystem(), &*m_fs);
  EXPECT_EQ(drive().Sent(kOpen), std::vector<long long>({1}));

  const size_t sent = drive().Ords().size();
  for (const char* path : {"trk://12-Run", "trk://12-Run:info", "trk://11-run", "trk:///"}) {
    EXPECT_FALSE(m_fs->OpenFile(path, 0)) << path;
    EXPECT_FALSE(m_fs->RemoveFile(path)) << path;
  }
  EXPECT_FALSE(m_fs->RemoveFile("trk://11-Run:info"));  // only the movie file name removes
  EXPECT_EQ(drive().Ords().size(), sent);
}

TEST_F(FileSystemFilesTest, RemovalRefreshesOnceAndCallsEachHandlerOnce) {
  int first = 0, second = 0;
  m_fs->AddFilesChangedHandler(zeb::delegate<void()>::FromLamda([&first] { ++first; }));
  m_fs->AddFilesChangedHandler(zeb::delegate<void()>::FromLamda([&second] { ++second; }));

  drive().FaultOnce(kDelete, FakeDrive::Reply::Error("refused"));
  EXPECT_FALSE(m_fs->RemoveFile("trk://11-Run"));
  EXPECT_EQ(drive().Sent(kDelete), std::vector<long long>({1}));
  EXPECT_EQ(drive().Count(kList), 0);  // no refresh
  EXPECT_EQ(m_fs->data()->movies.size(), 2u);
  EXPECT_EQ(first + second, 0);

  EXPECT_TRUE(m_fs->RemoveFile("/10-Run"));
  EXPECT_EQ(drive().Sent(kDelete), std::vector<long long>({1, 0}));
  EXPECT_EQ(drive().Count(kList), 1);
  // The drive lists the four movies left.
  EXPECT_EQ(drive().Sent(kInfo, "index"), std::vector<long long>({0, 1, 2, 3}));
  EXPECT_EQ(Names(m_fs->GetDirectoryListing("/", "")), (std::vector<std::string>{"11-Run", "12-Q", "13-S", "14-T"}));
  EXPECT_EQ(first, 1);
  EXPECT_EQ(second, 1);
}

TEST_F(FileSystemFilesTest, ImagerFileOpensBothFilesBeforeCheckingEither) {
  zeb::file::SRawImagerInfo layout;
  layout.width = 4;
  layout.height = 2;
  layout.frames = 5;
  const std::string text = layout.ToText().c_str();
  zeb::trk::CTrkImagerFile file;

  SetInfo({}, true);
  EXPECT_FALSE(file.Open(&*m_fs, "trk://10-Run", 0));
  // Information file refused, frame data asked for all the same, then let go.
  EXPECT_EQ(drive().Ords(), std::vector<long long>({9, 4, 5}));

  SetInfo(std::vector<unsigned char>(text.begin(), text.end()), false);
  ASSERT_TRUE(file.Open(&*m_fs, "trk://10-Run", 0));
  ASSERT_TRUE(file.Open(&*m_fs, "trk://11-Run", 0));  // closes 10-Run first
  EXPECT_EQ(drive().Ords(), std::vector<long long>({9, 4, 5, 9, 4, 5, 9, 4}));
  EXPECT_EQ(drive().Sent(kClose), std::vector<long long>({0, 0}));
  EXPECT_EQ(drive().Sent(kOpen), std::vector<long long>({0, 0, 1}));

  std::vector<unsigned char> pixels(16);
  unsigned char preset = 9;
  zeb::reduce::CReduceObjectArray objects;
  ASSERT_TRUE(file.GetFrame(pixels.data(), 3, preset, objects));
  EXPECT_EQ(pixels, Expected(1, 3 * 16, 16));
  file.Close();
  EXPECT_EQ(drive().Sent(kClose), std::vector<long long>({0, 0, 1}));
}

}  // namespace
