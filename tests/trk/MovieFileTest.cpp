// Movie files against the scriptable fake service: which frames a read asks
// for, what it copies, seeking, the openings that give an empty file, and
// opening and removing through the file system in normal mode.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "client/CTrkClient.h"
#include "ipc/CSharedMemory.h"
#include "tests/support/FakeService.h"
#include "tests/support/ResourceSnapshot.h"
#include "tests/trk/TrkTestSupport.h"
#include "trk/CTrkFile.h"
#include "trk/CTrkImagerFile.h"

namespace {

using zeb::trk::CTrkFile;

// The byte at `position` of movie `fileId` as the fake serves it.
unsigned char Byte(unsigned int fileId, unsigned long position) {
  return static_cast<unsigned char>((position * 2654435761UL >> 11) + fileId * 17);
}

std::vector<unsigned char> Expected(unsigned int fileId, unsigned long position, size_t count) {
  std::vector<unsigned char> bytes(count);
  for (size_t i = 0; i < count; ++i) bytes[i] = Byte(fileId, position + i);
  return bytes;
}

// A movie service on the fake: segments made on OpenMovie (and released on
// CloseMovie), frames written into every opening of the movie on ReadFrame as
// the simulator does, and the movie list for a refresh.
class FakeMovies {
 public:
  struct Movie {
    unsigned short width = 4;
    unsigned short height = 2;
    unsigned long frames = 5;
    size_t segmentBytes = 0;  // 0: one frame
    bool refuseOpen = false;
    long long refuseFrame = -1;
  };

  FakeMovies() {
    m_fake.SetHandler([this](const FakeService::Request& request) { return Answer(request); });
    EXPECT_TRUE(m_fake.Start());
    EXPECT_TRUE(m_client.Connect());
  }
  ~FakeMovies() { m_fake.Stop(); }

  unsigned int Add(const Movie& movie) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_movies.push_back(movie);
    return static_cast<unsigned int>(m_movies.size() - 1);
  }
  void RefuseDelete(bool refuse) { m_refuseDelete = refuse; }
  void SetInfo(std::vector<unsigned char> bytes, bool refuse) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_info = std::move(bytes);
    m_refuseInfo = refuse;
  }
  std::unique_ptr<CTrkFile> Open(unsigned int fileId, unsigned short width, unsigned short height,
                                 unsigned long frames) {
    return std::unique_ptr<CTrkFile>(
        new CTrkFile(nullptr, &m_client, fileId, "movie", width, height, frames));
  }
  std::unique_ptr<CTrkFile> Open(unsigned int fileId) {
    const Movie movie = m_movies[fileId];
    return Open(fileId, movie.width, movie.height, movie.frames);
  }

  // The "exec" requests of ordinal `ord` so far, as their `key` parameter.
  std::vector<long long> Sent(long long ord, const char* key = "fileId") const {
    std::vector<long long> values;
    for (const FakeService::Request& request : m_fake.Requests()) {
      if (request.act() == "exec" && request.ord() == ord) values.push_back(request.param(key));
    }
    return values;
  }
  std::vector<long long> Frames() const { return Sent(6, "frameNumber"); }
  // The ordinals of every "exec" request so far, in order.
  std::vector<long long> Ords() const {
    std::vector<long long> ords;
    for (const FakeService::Request& request : m_fake.Requests()) {
      if (request.act() == "exec") ords.push_back(request.ord());
    }
    return ords;
  }
  size_t Count() const {
    size_t n = 0;
    for (const FakeService::Request& request : m_fake.Requests()) n += request.act() == "exec";
    return n;
  }
  CTrkClient& client() { return m_client; }

 private:
  struct Opening {
    unsigned int fileId;
    CSharedMemory segment;
  };

  FakeService::Reply Answer(const FakeService::Request& request) {
    std::lock_guard<std::mutex> guard(m_lock);
    const long long fileId = request.param("fileId");
    const bool known = fileId >= 0 && static_cast<size_t>(fileId) < m_movies.size();
    switch (request.ord()) {
      case 1:
        return FakeService::Reply::Result({{"count", static_cast<unsigned long>(m_movies.size())}});
      case 2: {
        const Movie& movie = m_movies.at(static_cast<size_t>(request.param("index")));
        return FakeService::Reply::Result({{"info", FakeService::Map({
            {"size", 0}, {"name", "Run"}, {"width", movie.width}, {"height", movie.height},
            {"numFrames", movie.frames}, {"number", request.param("index") + 10},
            {"rtcTime", 0}, {"startTime", 0}, {"endTime", 0}, {"status", 0}})}});
      }
      case 4:
        return OpenMovie(known ? &m_movies[fileId] : nullptr, static_cast<unsigned int>(fileId));
      case 5:
        for (size_t i = 0; i < m_openings.size(); ++i) {
          if (m_openings[i]->fileId != fileId) continue;
          m_openings.erase(m_openings.begin() + static_cast<long>(i));
          return FakeService::Reply::Result();
        }
        return FakeService::Reply::Error("not open");
      case 6:
        return ReadFrame(known ? &m_movies[fileId] : nullptr, static_cast<unsigned int>(fileId),
                         static_cast<unsigned long>(request.param("frameNumber")));
      case 7:
        return m_refuseDelete ? FakeService::Reply::Error("refused") : FakeService::Reply::Result();
      case 9:
        if (m_refuseInfo) return FakeService::Reply::Error("no information file");
        return FakeService::Reply::Result({{"data", FakeService::Blob(m_info)}});
      default:
        return FakeService::Reply::Error("unexpected request");
    }
  }

  FakeService::Reply OpenMovie(const Movie* movie, unsigned int fileId) {
    if (!movie || movie->refuseOpen) return FakeService::Reply::Error("cannot open");
    const size_t frameBytes = size_t{movie->width} * movie->height * 2;
    std::unique_ptr<Opening> opening(new Opening{fileId, CSharedMemory()});
    if (!opening->segment.CreateRandom("zebtrk-filetest-",
                                       movie->segmentBytes ? movie->segmentBytes : frameBytes)) {
      return FakeService::Reply::Error("no segment");
    }
    const std::string name = opening->segment.name();
    m_openings.push_back(std::move(opening));
    return FakeService::Reply::Result({{"mapping", name}});
  }

  FakeService::Reply ReadFrame(const Movie* movie, unsigned int fileId, unsigned long frame) {
    if (!movie || frame >= movie->frames || static_cast<long long>(frame) == movie->refuseFrame) {
      return FakeService::Reply::Error("no such frame");
    }
    const unsigned long frameBytes = static_cast<unsigned long>(movie->width) * movie->height * 2;
    for (const std::unique_ptr<Opening>& opening : m_openings) {
      if (opening->fileId != fileId) continue;
      unsigned char* data = static_cast<unsigned char*>(opening->segment.data());
      for (unsigned long i = 0; i < frameBytes && i < opening->segment.size(); ++i) {
        data[i] = Byte(fileId, frame * frameBytes + i);
      }
    }
    return FakeService::Reply::Result();
  }

  FakeService m_fake;
  CTrkClient m_client;
  std::mutex m_lock;
  std::vector<Movie> m_movies;
  std::vector<std::unique_ptr<Opening>> m_openings;
  std::vector<unsigned char> m_info;
  bool m_refuseInfo = false;
  bool m_refuseDelete = false;
};

struct Step {
  long seek;                      // absolute position before the read
  unsigned int count;             // bytes asked for
  unsigned int got;               // bytes expected
  std::vector<long long> frames;  // frame requests this read adds
};

void RunSteps(FakeMovies& service, unsigned int fileId, const std::vector<Step>& steps) {
  std::unique_ptr<CTrkFile> file = service.Open(fileId);
  size_t sent = service.Frames().size();
  for (const Step& step : steps) {
    SCOPED_TRACE("read " + std::to_string(step.count) + " at " + std::to_string(step.seek));
    ASSERT_EQ(file->Seek(step.seek, 1), step.seek);
    std::vector<unsigned char> bytes(step.count + 1, 0xEE);
    ASSERT_EQ(file->Read(bytes.data(), step.count), step.got);
    EXPECT_EQ(file->GetPosition(), step.seek + static_cast<long>(step.got));
    EXPECT_EQ(bytes[step.got], 0xEE);  // nothing written past what was read
    bytes.resize(step.got);
    EXPECT_EQ(bytes, Expected(fileId, static_cast<unsigned long>(step.seek), step.got));
    const std::vector<long long> frames = service.Frames();
    EXPECT_EQ(std::vector<long long>(frames.begin() + static_cast<long>(sent), frames.end()),
              step.frames);
    sent = frames.size();
  }
}

TEST(MovieFileTest, ReadsAskForEachTouchedFrameOnce) {
  FakeMovies service;
  const unsigned int small = service.Add({});  // 4 x 2: 16-byte frames, 80 bytes
  FakeMovies::Movie qvga;
  qvga.width = 320;
  qvga.height = 240;
  qvga.frames = 10;
  const unsigned int large = service.Add(qvga);

  RunSteps(service, large, {
      {153550, 100, 100, {0, 1}},  // 50 bytes of frame 0, 50 of frame 1
      {153650, 10, 10, {}},        // frame 1 is held
      {0, 1, 1, {0}},
      {1536000 - 4, 100, 4, {9}},  // cut at the end: frame 10 is never asked for
      {1536000, 100, 0, {}},
  });
  EXPECT_EQ(service.Open(large)->GetSize(), 1536000);
  RunSteps(service, small, {
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
  std::unique_ptr<CTrkFile> file = service.Open(service.Add({}));
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
  FakeMovies::Movie refused;
  refused.refuseOpen = true;
  FakeMovies::Movie shortSegment;
  shortSegment.segmentBytes = 15;  // one byte short of a 4 x 2 frame
  FakeMovies::Movie huge;          // OpenMovie is refused: no 4 GiB segment here
  huge.refuseOpen = true;
  struct Case {
    const char* what;
    unsigned int fileId;
    unsigned short width, height;
    unsigned long frames;
    long size;
    bool openSent;  // OpenMovie sent, and so CloseMovie on destruction
  };
  const Case cases[] = {
      {"refused by the service", service.Add(refused), 4, 2, 5, 0, true},
      {"segment shorter than a frame", service.Add(shortSegment), 4, 2, 5, 0, true},
      {"largest frame that fits 32 bits", service.Add(huge), 65535, 32768, 1, 0, true},
      {"frame of 2^31 pixels and more", service.Add(huge), 65535, 32769, 1, 0, false},
      {"largest dimensions", service.Add(huge), 65535, 65535, 3, 0, false},
      {"no width", service.Add({}), 0, 2, 5, 0, false},
      {"no height", service.Add({}), 4, 0, 5, 0, false},
      {"movie beyond 2^63 bytes", service.Add(huge), 65535, 32768, 1UL << 33, 0, false},
      {"no frames", service.Add({}), 4, 2, 0, 0, true},
      {"the control: a good movie", service.Add({}), 4, 2, 5, 80, true},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    const size_t opens = service.Sent(4).size();
    const size_t closes = service.Sent(5).size();
    testsupport::ResourceSnapshot before;
    {
      std::unique_ptr<CTrkFile> file = service.Open(c.fileId, c.width, c.height, c.frames);
      EXPECT_EQ(file->GetSize(), c.size);
      unsigned char byte = 0;
      EXPECT_EQ(file->Read(&byte, 1), c.size ? 1u : 0u);
      EXPECT_EQ(service.Sent(4).size() - opens, c.openSent ? 1u : 0u);
    }
    EXPECT_EQ(service.Sent(5).size() - closes, c.openSent ? 1u : 0u);
    EXPECT_EQ(before.Leaks(), "");  // the short segment's mapping is gone too
  }
  EXPECT_EQ(service.Frames(), std::vector<long long>({0}));  // the control's read alone
}

TEST(MovieFileTest, AFailedFrameEndsTheReadAndIsAskedForAgain) {
  FakeMovies service;
  FakeMovies::Movie movie;
  movie.refuseFrame = 2;
  std::unique_ptr<CTrkFile> file = service.Open(service.Add(movie));
  std::vector<unsigned char> bytes(80);
  EXPECT_EQ(file->Read(bytes.data(), 80), 32u);
  EXPECT_EQ(file->GetPosition(), 32);
  EXPECT_EQ(file->Read(bytes.data(), 80), 0u);
  EXPECT_EQ(service.Frames(), std::vector<long long>({0, 1, 2, 2}));
}

TEST(MovieFileTest, ReadOnlyAndClosing) {
  FakeMovies service;
  const unsigned int id = service.Add({});
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
  EXPECT_EQ(service.Sent(5), std::vector<long long>({id, id, id}));  // and once more on destruction
  EXPECT_EQ(service.Frames(), std::vector<long long>({0}));
}

// The service fills every opening of a movie on a frame request, so a file
// does not trust its held frame after another file of the movie asked.
TEST(MovieFileTest, FilesOfOneMovieDoNotTrustEachOthersFrames) {
  FakeMovies service;
  const unsigned int id = service.Add({});
  std::unique_ptr<CTrkFile> a = service.Open(id);
  std::unique_ptr<CTrkFile> b = service.Open(id);
  unsigned char bytes[4];
  ASSERT_EQ(a->Read(bytes, 4), 4u);
  ASSERT_EQ(b->Seek(48, 1), 48);
  ASSERT_EQ(b->Read(bytes, 4), 4u);
  ASSERT_EQ(a->Read(bytes, 4), 4u);
  EXPECT_EQ(std::vector<unsigned char>(bytes, bytes + 4), Expected(id, 4, 4));
  ASSERT_EQ(a->Read(bytes, 4), 4u);  // held again
  EXPECT_EQ(service.Frames(), std::vector<long long>({0, 3, 0}));
}

// Opening and removing through the file system, its request client connected
// to the fake and its cache set by the test.
class FileSystemFilesTest : public ::testing::Test {
 protected:
  FileSystemFilesTest()
      : m_fs({trktest::Movie(10, "Run", 4, 2, 5), trktest::Movie(11, "Run", 4, 2, 5)}) {
    m_service.Add({});
    m_service.Add({});
    EXPECT_TRUE(m_fs->data()->client.Connect());
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
    m_service.SetInfo(c.sent, c.refuse);
    zeb::TSharedPtr<zeb::IFile> file = m_fs->OpenFile(c.path, 0);
    ASSERT_EQ(static_cast<bool>(file), c.opened);
    EXPECT_EQ(m_service.Sent(9).back(), 1);  // position of 11-Run in the cache
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
  EXPECT_EQ(m_service.Sent(4), std::vector<long long>({1}));

  const size_t sent = m_service.Count();
  for (const char* path : {"trk://12-Run", "trk://12-Run:info", "trk://11-run", "trk:///"}) {
    EXPECT_FALSE(m_fs->OpenFile(path, 0)) << path;
    EXPECT_FALSE(m_fs->RemoveFile(path)) << path;
  }
  EXPECT_FALSE(m_fs->RemoveFile("trk://11-Run:info"));  // only the movie file name removes
  EXPECT_EQ(m_service.Count(), sent);
}

TEST_F(FileSystemFilesTest, RemovalRefreshesOnceAndCallsEachHandlerOnce) {
  int first = 0, second = 0;
  m_fs->AddFilesChangedHandler(zeb::delegate<void()>::FromLamda([&first] { ++first; }));
  m_fs->AddFilesChangedHandler(zeb::delegate<void()>::FromLamda([&second] { ++second; }));

  m_service.RefuseDelete(true);
  EXPECT_FALSE(m_fs->RemoveFile("trk://11-Run"));
  EXPECT_EQ(m_service.Sent(7), std::vector<long long>({1}));
  EXPECT_TRUE(m_service.Sent(1).empty());  // no refresh
  EXPECT_EQ(m_fs->data()->movies.size(), 2u);
  EXPECT_EQ(first + second, 0);

  m_service.RefuseDelete(false);
  EXPECT_TRUE(m_fs->RemoveFile("/10-Run"));
  EXPECT_EQ(m_service.Sent(7), std::vector<long long>({1, 0}));
  EXPECT_EQ(m_service.Sent(1).size(), 1u);
  EXPECT_EQ(m_service.Sent(2, "index"), std::vector<long long>({0, 1}));
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

  m_service.SetInfo({}, true);
  EXPECT_FALSE(file.Open(&*m_fs, "trk://10-Run", 0));
  // Information file refused, frame data asked for all the same, then let go.
  EXPECT_EQ(m_service.Ords(), std::vector<long long>({9, 4, 5}));

  m_service.SetInfo(std::vector<unsigned char>(text.begin(), text.end()), false);
  ASSERT_TRUE(file.Open(&*m_fs, "trk://10-Run", 0));
  ASSERT_TRUE(file.Open(&*m_fs, "trk://11-Run", 0));  // closes 10-Run first
  EXPECT_EQ(m_service.Ords(), std::vector<long long>({9, 4, 5, 9, 4, 5, 9, 4}));
  EXPECT_EQ(m_service.Sent(5), std::vector<long long>({0, 0}));
  EXPECT_EQ(m_service.Sent(4), std::vector<long long>({0, 0, 1}));

  std::vector<unsigned char> pixels(16);
  unsigned char preset = 9;
  zeb::reduce::CReduceObjectArray objects;
  ASSERT_TRUE(file.GetFrame(pixels.data(), 3, preset, objects));
  EXPECT_EQ(pixels, Expected(1, 3 * 16, 16));
  file.Close();
  EXPECT_EQ(m_service.Sent(5), std::vector<long long>({0, 0, 1}));
}

}  // namespace
