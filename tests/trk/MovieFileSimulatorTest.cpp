// The file system and its movie files against the zebtrksvc simulator serving
// a temporary drive: the bytes read equal the drive's data files, information
// files equal the drive's, a movie beyond 4 GiB reads right at its end, the
// imager file factory opens movies and reads every frame with its time stamp,
// files of one movie read side by side, from two threads and after one of
// them is gone, removal, decoded times, and a movie written to the drive
// reaching the handlers; nothing is left open at the end. A simulator killed
// with SIGKILL leaves its segments, which the next one removes.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <zeb/file/CImagerFileFactory.h>

#include "ipc/CSharedMemory.h"
#include "tests/support/ResourceSnapshot.h"
#include "tests/trk/TrkTestSupport.h"
#include "trk/CTrkImagerFile.h"

namespace {

using testsupport::ReadFile;
using testsupport::WriteFile;

const unsigned int kBigWidth = 1280, kBigHeight = 1024, kBigFrames = 1700;
const long kBigFrameBytes = long{kBigWidth} * kBigHeight * 2;
const long kBigSize = kBigFrameBytes * kBigFrames;  // 4,456,448,000 bytes
const long kOtherFrameBytes = 32 * 16 * 2;
// 2024-05-02 (day 123) 04:05:06.789012 UTC in ticks; frames 40 ms apart.
constexpr long kRunStart = 116444736000000000L + 1714622706L * 10000000L + 7890120L;
constexpr long kPeriod = 400000;

// A raw pair on the drive with seeded pixels and time stamps.
bool WriteMovie(const std::string& drive, const char* stem, unsigned int width, unsigned int height,
                unsigned int frames, unsigned int seed) {
  return trktest::WriteRaw(drive + "/" + stem + ".dat", width, height, frames, 133590000000000000L + seed, 333333,
                           seed);
}

// The bytes that the big movie holds at its end (the rest is a hole).
std::vector<unsigned char> BigTail() {
  std::vector<unsigned char> tail(kBigFrameBytes + 4096);
  for (size_t i = 0; i < tail.size(); ++i) tail[i] = static_cast<unsigned char>(i * 7 + 1);
  return tail;
}

// A sparse movie beyond 4 GiB: only its information file and the last frame
// and a bit are written.
void WriteBigMovie(const std::string& drive) {
  zeb::file::SRawImagerInfo layout;
  layout.width = kBigWidth;
  layout.height = kBigHeight;
  layout.frames = kBigFrames;
  const std::string info = layout.ToText().c_str();
  ASSERT_TRUE(WriteFile(drive + "/5-Big.info", info));
  const int fd = ::open((drive + "/5-Big.dat").c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::ftruncate(fd, kBigSize), 0);
  const std::vector<unsigned char> tail = BigTail();
  ASSERT_EQ(::pwrite(fd, tail.data(), tail.size(), kBigSize - static_cast<long>(tail.size())),
            static_cast<ssize_t>(tail.size()));
  ::close(fd);
}

// The drive, the simulator serving it, and the file system connected to it.
class Simulator {
 public:
  Simulator() : m_emulator("ZEBTRK_ENABLE_EMULATOR", std::nullopt), m_drive(m_dir / "drive") {
    EXPECT_TRUE(zeb::fileSystem()->MakeDir(m_drive.c_str(), true));
    EXPECT_TRUE(WriteMovie(m_drive, "3-Small", 64, 48, 12, 3));
    EXPECT_TRUE(WriteMovie(m_drive, "4-Other", 32, 16, 20, 4));
    EXPECT_TRUE(WriteMovie(m_drive, "1-Gone", 8, 8, 2, 7));
    EXPECT_TRUE(trktest::WriteRaw(m_drive + "/2-Timed.dat", 4, 3, 5, kRunStart, kPeriod));
    WriteBigMovie(m_drive);
    m_service.reset(new trktest::ServiceProcess(ZEBTRKSVC_BINARY, m_drive));
    EXPECT_TRUE(m_service->WaitUntilServing(5));
    m_fs.reset(new zeb::trk::CTrkInterface);
  }
  ~Simulator() { m_fs.reset(); }
  zeb::trk::CTrkInterface& fs() { return *m_fs; }
  std::string operator/(const std::string& name) const { return m_drive + "/" + name; }

 private:
  testsupport::TempDir m_dir;
  testsupport::ScopedEnv m_emulator;
  std::string m_drive;
  std::unique_ptr<trktest::ServiceProcess> m_service;
  std::unique_ptr<zeb::trk::CTrkInterface> m_fs;
};

class SimulatorTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_before = new testsupport::ResourceSnapshot;
    s_simulator = new Simulator;
  }
  // Nothing of the file system or its files is left open.
  static void TearDownTestSuite() {
    delete s_simulator;
    s_simulator = nullptr;
    EXPECT_EQ(s_before->Leaks(), "");
    delete s_before;
  }
  Simulator& sim() { return *s_simulator; }
  zeb::trk::CTrkInterface& fs() { return s_simulator->fs(); }
  static Simulator* s_simulator;
  static testsupport::ResourceSnapshot* s_before;
};
Simulator* SimulatorTest::s_simulator = nullptr;
testsupport::ResourceSnapshot* SimulatorTest::s_before = nullptr;

TEST_F(SimulatorTest, RandomReadsAndTheInformationFileEqualTheDrives) {
  zeb::TSharedPtr<zeb::IFile> info = fs().OpenFile("trk://3-Small:INFO", 0);
  ASSERT_TRUE(info);
  const std::string expectedInfo = ReadFile(sim() / "3-Small.info");
  std::string infoBytes(expectedInfo.size(), '\0');
  ASSERT_EQ(info->GetSize(), static_cast<long>(expectedInfo.size()));
  ASSERT_TRUE(info->ReadBytes(&infoBytes[0], static_cast<unsigned int>(infoBytes.size())));
  EXPECT_EQ(infoBytes, expectedInfo);

  const std::string data = ReadFile(sim() / "3-Small.dat");
  ASSERT_EQ(data.size(), 64u * 48 * 2 * 12);
  zeb::TSharedPtr<zeb::IFile> file = fs().OpenFile("trk://3-Small", 0);
  ASSERT_TRUE(file);
  ASSERT_EQ(file->GetSize(), static_cast<long>(data.size()));
  std::mt19937 random(20240502);
  std::vector<char> bytes(data.size() + 100);
  for (int i = 0; i < 300; ++i) {
    const long position = static_cast<long>(random() % (data.size() + 1));
    const unsigned int count = random() % (3 * 64 * 48 * 2);
    ASSERT_EQ(file->Seek(position, 1), position);
    const unsigned int expected =
        static_cast<unsigned int>(std::min<long>(count, static_cast<long>(data.size()) - position));
    ASSERT_EQ(file->Read(bytes.data(), count), expected) << count << " at " << position;
    ASSERT_EQ(std::string(bytes.data(), expected), data.substr(position, expected))
        << count << " at " << position;
  }
}

TEST_F(SimulatorTest, MovieBeyondFourGigabytes) {
  const std::vector<unsigned char> tail = BigTail();
  zeb::TSharedPtr<zeb::IFile> file = fs().OpenFile("trk://5-Big", 0);
  ASSERT_TRUE(file);
  ASSERT_EQ(file->GetSize(), kBigSize);
  EXPECT_EQ(std::string(fs().GetInfo("trk://5-Big").properties.GetValue("numFrames").c_str()),
            "1700");
  struct Case {
    long seek;
    unsigned int origin;
    unsigned int count;
  };
  const Case cases[] = {
      {-100, zeb::IFile::kSeekEnd, 100},
      {-static_cast<long>(tail.size()), zeb::IFile::kSeekEnd, 5000},  // across frames 1698/1699
      {-kBigFrameBytes - 10, zeb::IFile::kSeekEnd, 20},
      {-1, zeb::IFile::kSeekEnd, 0xFFFFFFFFu},  // cut at the end: one byte
  };
  for (const Case& c : cases) {
    const long position = file->Seek(c.seek, c.origin);
    ASSERT_EQ(position, kBigSize + c.seek);
    std::vector<unsigned char> bytes(std::min<long>(c.count, kBigSize - position));
    ASSERT_EQ(file->Read(bytes.data(), c.count), bytes.size());
    const long from = position - (kBigSize - static_cast<long>(tail.size()));
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), tail.begin() + from)) << position;
    EXPECT_EQ(file->GetPosition(), position + static_cast<long>(bytes.size()));
  }
}

// Frames read through the factory's type equal the local raw reader's, with
// the same time stamps.
void ExpectSameFrames(zeb::file::IImagerFile& trk, const std::string& localPath) {
  zeb::file::CRawImagerFile local;
  ASSERT_TRUE(local.Open(zeb::fileSystem(), localPath.c_str(), 0));
  ASSERT_EQ(trk.xPixels(), local.xPixels());
  ASSERT_EQ(trk.yPixels(), local.yPixels());
  ASSERT_EQ(trk.nFrames(), local.nFrames());
  std::vector<unsigned short> a(trk.xPixels() * trk.yPixels()), b(a.size());
  zeb::reduce::CReduceObjectArray objectsA, objectsB;
  for (unsigned int frame = 0; frame < trk.nFrames(); ++frame) {
    unsigned char presetA = 9, presetB = 9;
    ASSERT_TRUE(trk.GetFrame(a.data(), frame, presetA, objectsA)) << frame;
    ASSERT_TRUE(local.GetFrame(b.data(), frame, presetB, objectsB)) << frame;
    ASSERT_EQ(a, b) << frame;
    EXPECT_EQ(presetA, presetB);
    zeb::TSharedPtr<zeb::reduce::CFrameInfoReduceObject> infoA = objectsA.GetFrameInfo(0, false);
    zeb::TSharedPtr<zeb::reduce::CFrameInfoReduceObject> infoB = objectsB.GetFrameInfo(0, false);
    ASSERT_TRUE(infoA && infoB) << frame;
    EXPECT_EQ(infoA->timestamp().GetTimestamp(0), infoB->timestamp().GetTimestamp(0)) << frame;
  }
}

TEST_F(SimulatorTest, ImagerFactoryOpensMoviesAndReadsEveryFrame) {
  zeb::file::CImagerFileFactory* factory = zeb::file::imagerFileFactory();
  zeb::file::CImagerFileFactory::CType type;
  ASSERT_TRUE(factory->FindTypeForPath(&fs(), "trk://3-Small", 0, type));
  EXPECT_STREQ(type.name.c_str(), "TRK Imager File");
  EXPECT_FALSE(factory->FindTypeForPath(&fs(), "trk://8-None", 0, type));
  EXPECT_FALSE(zeb::trk::CTrkImagerFile::CanOpen(&fs(), "trk://8-None", 0));

  ASSERT_TRUE(factory->FindType("TRK Imager File", type));
  zeb::file::IImagerFile* file = type.Create();
  ASSERT_NE(file, nullptr);
  EXPECT_STREQ(file->GetName(), "TRK Imager File");
  EXPECT_FALSE(file->Open(&fs(), "trk://8-None", 0));
  ASSERT_TRUE(file->Open(&fs(), "trk://4-Other", 0));
  ExpectSameFrames(*file, sim() / "4-Other.dat");
  // A second Open releases the first movie and serves the next.
  ASSERT_TRUE(file->Open(&fs(), "trk://3-Small", 0));
  ExpectSameFrames(*file, sim() / "3-Small.dat");
  type.Destroy(file);
}

TEST_F(SimulatorTest, FilesOfOneMovieFromTwoThreads) {
  const std::string data = ReadFile(sim() / "4-Other.dat");
  zeb::TSharedPtr<zeb::IFile> a = fs().OpenFile("trk://4-Other", 0);
  zeb::TSharedPtr<zeb::IFile> b = fs().OpenFile("trk://4-Other", 0);
  ASSERT_TRUE(a && b);
  // Two threads, each reading the whole movie in frame-sized pieces that
  // straddle frame boundaries.
  auto readAll = [&data](zeb::IFile* file, bool* same) {
    std::vector<char> whole(data.size());
    file->Seek(0, 1);
    for (long done = 0; done < static_cast<long>(data.size());) {
      const unsigned int got = file->Read(whole.data() + done, kOtherFrameBytes / 3 + 1);
      if (got == 0) break;
      done += got;
    }
    *same = std::string(whole.data(), whole.size()) == data;
  };
  for (int round = 0; round < 5; ++round) {
    bool sameA = false, sameB = false;
    std::thread first(readAll, a.get(), &sameA);
    std::thread second(readAll, b.get(), &sameB);
    first.join();
    second.join();
    EXPECT_TRUE(sameA && sameB) << round;
  }
}

// The two files share the file system's connection, where the service cannot
// tell their openings apart: closing the newer must leave the older reading
// right frames, not a segment that nobody fills any more.
TEST_F(SimulatorTest, OlderFileOfAMovieReadsOnAfterTheNewerIsDestroyed) {
  const std::string data = ReadFile(sim() / "4-Other.dat");
  zeb::TSharedPtr<zeb::IFile> older = fs().OpenFile("trk://4-Other", 0);
  zeb::TSharedPtr<zeb::IFile> newer = fs().OpenFile("trk://4-Other", 0);
  ASSERT_TRUE(older && newer);
  std::vector<char> bytes(kOtherFrameBytes);
  auto readFrame = [&](zeb::IFile& file, long frame) {
    file.Seek(frame * kOtherFrameBytes, 1);
    return file.Read(bytes.data(), kOtherFrameBytes) == kOtherFrameBytes &&
           std::string(bytes.data(), kOtherFrameBytes) == data.substr(frame * kOtherFrameBytes, kOtherFrameBytes);
  };
  for (long frame = 0; frame < 6; ++frame) {
    ASSERT_TRUE(readFrame(*older, frame)) << frame;
    ASSERT_TRUE(readFrame(*newer, 19 - frame)) << frame;
  }
  newer.reset();  // closes its movie on the service
  for (long frame = 0; frame < 20; ++frame) EXPECT_TRUE(readFrame(*older, (frame * 7) % 20)) << frame;
}

TEST_F(SimulatorTest, RemovalDeletesTheMovieFromTheDrive) {
  ASSERT_EQ(fs().GetInfo("trk://1-Gone").type, zeb::IFileSystem::kTypeFile);
  EXPECT_TRUE(fs().RemoveFile("trk://1-Gone"));
  EXPECT_FALSE(zeb::fileSystem()->FileExists((sim() / "1-Gone.dat").c_str()));
  EXPECT_EQ(fs().GetInfo("trk://1-Gone").type, zeb::IFileSystem::kTypeNone);  // refreshed
  EXPECT_FALSE(fs().RemoveFile("trk://1-Gone"));
  // 5-Big moved one place up in the list; its frames follow the refreshed
  // cache, up to the last one beyond 4 GiB.
  zeb::trk::CTrkImagerFile file;
  ASSERT_TRUE(file.Open(&fs(), "trk://5-Big", 0));
  EXPECT_EQ(file.nFrames(), kBigFrames);
  std::vector<unsigned short> pixels(kBigWidth * kBigHeight);
  unsigned char preset = 0;
  zeb::reduce::CReduceObjectArray objects;
  ASSERT_TRUE(file.GetFrame(pixels.data(), kBigFrames - 1, preset, objects));
  const std::vector<unsigned char> tail = BigTail();
  EXPECT_EQ(std::memcmp(pixels.data(), tail.data() + tail.size() - kBigFrameBytes, kBigFrameBytes), 0);
}

// The listing shows the recorder's decoded times, and a movie written to the
// drive reaches the files-changed handlers and the listing through a real
// change event.
TEST_F(SimulatorTest, DecodedTimesAndDriveChangesReachTheListing) {
  const zeb::IFileSystem::CDirectoryEntry timed = fs().GetInfo("trk://2-Timed");
  EXPECT_EQ(timed.size, 4u * 3 * 5 * 2);
  EXPECT_EQ(trktest::Prop(timed, "startTime"), "123:04:05:06.789012");
  EXPECT_EQ(trktest::Prop(timed, "endTime"), "123:04:05:06.949012");
  EXPECT_EQ(trktest::Prop(timed, "duration"), "160000");

  std::vector<std::string> names = trktest::Names(fs().GetDirectoryListing("/", ""));
  std::mutex mutex;
  std::condition_variable changed;
  int calls = 0;
  fs().AddFilesChangedHandler(zeb::delegate<void()>::FromLamda([&] {
    std::lock_guard<std::mutex> guard(mutex);
    ++calls;
    changed.notify_all();
  }));
  ASSERT_TRUE(trktest::WriteRaw(sim() / "6-New.dat", 4, 3, 1, kRunStart, kPeriod));
  // Writing a pair may announce more than one change; wait for the one
  // after which the new movie is listed. (Never list with `mutex` held: the
  // handler takes it while the refresh holds the cache lock.)
  bool listed = false;
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (int seen = 0; !listed && std::chrono::steady_clock::now() < limit;) {
    {
      std::unique_lock<std::mutex> guard(mutex);
      changed.wait_until(guard, limit, [&] { return calls > seen; });
      seen = calls;
    }
    listed = trktest::Names(fs().GetDirectoryListing("/", "")).size() == names.size() + 1;
  }
  EXPECT_TRUE(listed);
  names.push_back("6-New");
  EXPECT_EQ(trktest::Names(fs().GetDirectoryListing("/", "")), names);
  EXPECT_EQ(fs().GetInfo("/6-New").type, 2u);
}

// Segments of a simulator ended by SIGKILL stay until the next simulator
// starts, which removes those of its naming scheme whose process is gone and
// no others.
TEST(SimulatorStartTest, RemovesTheSegmentsOfKilledSimulators) {
  testsupport::TempDir dir;
  ASSERT_TRUE(WriteMovie(dir.path(), "3-Small", 64, 48, 12, 3));
  auto present = [](const std::string& name) { return ::access(("/dev/shm/" + name).c_str(), F_OK) == 0; };
  std::string left;
  {
    trktest::ServiceProcess killed(ZEBTRKSVC_BINARY, dir.path());
    ASSERT_TRUE(killed.WaitUntilServing(1));
    CTrkClient client;
    zeb::CString mapping;
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.OpenMovie(0, mapping));
    left = mapping.c_str();
    killed.Stop(SIGKILL);
  }
  ASSERT_TRUE(present(left)) << left;
  const std::string live = "zebtrksvc-" + std::to_string(::getpid()) + "-1";
  CSharedMemory ours, other;
  ASSERT_TRUE(ours.Create(live.c_str(), 8));  // a living owner
  ASSERT_TRUE(other.Create("zebtrksvc-1A2F", 8));  // not of the scheme
  trktest::ServiceProcess next(ZEBTRKSVC_BINARY, dir.path());
  ASSERT_TRUE(next.WaitUntilServing(1));
  EXPECT_FALSE(present(left));
  EXPECT_TRUE(present(live));
  EXPECT_TRUE(present("zebtrksvc-1A2F"));
}

}  // namespace
