// `zebtrk mount` end to end: the command mounts a temporary folder against the
// simulator (a child zebtrksvc) and in emulator mode (HOME in a temporary
// folder), and the test reads, lists and deletes through the kernel like any
// program. Uses the fixed service socket: marked SERVICE. Where FUSE cannot be
// mounted the tests say why and are skipped (ctest reports them skipped).
// No path leaves a mount behind: the teardown detaches whatever is mounted.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <tiffio.h>
#include <zeb/file/SRawImagerInfo.h>

#include "tests/support/ResourceSnapshot.h"
#include "tests/support/TempDir.h"
#include "tests/tools/ChildProcess.h"
#include "tools/zebtrk/BoundedWorker.h"

namespace {

using testsupport::ReadFile;
using testsupport::TempDir;
using tooltest::ChildProcess;
using tooltest::WaitUntil;

const std::string kSocket = "/tmp/zebtrksvc";

struct SMovie {
  std::string stem;
  unsigned width, height, frames;
};
// Odd sizes, so frames straddle FUSE's 128 KiB pieces and the .npy header.
const SMovie kMovies[] = {{"1-Alpha", 24, 10, 9}, {"2-Beta Two", 7, 5, 13}, {"3-Gamma", 321, 240, 6}};

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// The segments of /dev/shm but other test programs' scratch ones.
std::vector<std::string> Segments() {
  std::vector<std::string> names;
  for (const std::string& name : testsupport::ShmEntries()) {
    if (name.compare(0, 12, "zebtrk-test-") != 0) names.push_back(name);
  }
  return names;
}

// `count` bytes at `offset` of the file at `path` by pread; errno as the
// negative result on failure.
long PRead(const std::string& path, long offset, size_t count, std::string& bytes) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return -errno;
  bytes.assign(count, '\0');
  const ssize_t n = pread(fd, &bytes[0], count, offset);
  const long result = n < 0 ? -errno : n;
  close(fd);
  bytes.resize(n < 0 ? 0 : size_t(n));
  return result;
}

enum class EMode { kService, kEmulator };

class MountTest : public ::testing::TestWithParam<EMode> {
 protected:
  void SetUp() override {
    const int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fd < 0) GTEST_SKIP() << "FUSE cannot be mounted here (/dev/fuse: " << strerror(errno) << ")";
    close(fd);
    emulator_ = GetParam() == EMode::kEmulator;
    folder_ = emulator_ ? home_ / ".cache/Ostrel Systems/TRK" : drive_.path();
    mnt_ = home_ / "mnt";
    std::filesystem::create_directories(folder_);
    std::filesystem::create_directories(mnt_);
    segments_ = Segments();
    for (const SMovie& movie : kMovies) MakeMovie(movie);
    if (emulator_) return;
    ASSERT_NE(access(kSocket.c_str(), F_OK), 0) << kSocket << " exists: is a service running?";
    ASSERT_TRUE(service_.Start({ZEBTRKSVC, "--drive", folder_}, {}, home_ / "service.log") &&
                WaitUntil([] { return tooltest::SocketAccepts(kSocket); }))
        << ReadFile(home_ / "service.log");
  }

  void TearDown() override {
    if (mount_.Running()) {
      mount_.Signal(SIGINT);
      mount_.Wait(30);
    }
    if (Mounted()) umount2(mnt_.c_str(), MNT_DETACH);
    service_.Signal(SIGCONT);
    service_.Signal(SIGTERM);
    service_.Wait(30);
    if (!IsSkipped()) {
      EXPECT_EQ(Segments(), segments_) << "segments left in /dev/shm";
    }
  }

  void MakeMovie(const SMovie& movie) {
    const size_t dash = movie.stem.find('-');
    const tooltest::ToolRun run = tooltest::Run(
        {ZEBTRKSVC, "make-movie", folder_, "--width", std::to_string(movie.width), "--height",
         std::to_string(movie.height), "--frames", std::to_string(movie.frames), "--number",
         movie.stem.substr(0, dash), "--name", movie.stem.substr(dash + 1), "--seed", movie.stem.substr(0, dash)});
    ASSERT_EQ(run.status, 0) << run.err;
  }

  // Starts `zebtrk mount MNT --foreground ARGS` and waits until it has
  // mounted. False (and the test skipped) where FUSE refuses the mount.
  bool Mount(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {ZEBTRK_CLI, "mount", mnt_, "--foreground"};
    argv.insert(argv.end(), args.begin(), args.end());
    const std::vector<std::string> env = {"HOME=" + home_.path(),
                                          emulator_ ? "ZEBTRK_ENABLE_EMULATOR=1" : "ZEBTRK_ENABLE_EMULATOR"};
    EXPECT_TRUE(mount_.Start(argv, env, home_ / "mount.out", home_ / "mount.err"));
    WaitUntil([&] { return Contains(ReadFile(home_ / "mount.out"), "mounted ") || !mount_.Running(); });
    if (Contains(ReadFile(home_ / "mount.err"), "FUSE is not available")) return false;  // skipped
    EXPECT_TRUE(Mounted()) << ReadFile(home_ / "mount.err");
    return Mounted();
  }

  // Ends the mount as Ctrl-C does; it must leave nothing mounted.
  void Unmount() {
    mount_.Signal(SIGINT);
    EXPECT_EQ(mount_.Wait(30), 0) << ReadFile(home_ / "mount.err");
    EXPECT_FALSE(Mounted());
  }

  bool Mounted() const {
    return Contains(ReadFile("/proc/self/mountinfo"), " " + mnt_ + " ");
  }

  std::vector<std::string> Names() const {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(mnt_, error)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  std::string Dat(const std::string& stem) const { return ReadFile(folder_ + "/" + stem + ".dat"); }

  TempDir home_;
  TempDir drive_;
  bool emulator_ = false;
  std::string folder_, mnt_;
  std::vector<std::string> segments_;
  ChildProcess service_;
  ChildProcess mount_;
};

// Mounts with the arguments `args` (a vector), or skips the test where FUSE
// refuses the mount.
#define MOUNT_OR_SKIP(args)                                                             \
  do {                                                                                  \
    if (Mount(args)) break;                                                             \
    const std::string why = ReadFile(home_ / "mount.err");                              \
    if (Contains(why, "FUSE is not available")) {                                        \
      GTEST_SKIP() << "cannot mount: " << why;                                          \
    }                                                                                   \
    return;                                                                             \
  } while (0)

// The four views of every movie against its .dat, whole and at random
// offsets from several threads at once, across frame boundaries and the
// headers' ends.
TEST_P(MountTest, ViewsHoldTheMovieBytes) {
  MOUNT_OR_SKIP(std::vector<std::string>());
  for (const SMovie& movie : kMovies) {
    SCOPED_TRACE(movie.stem);
    const std::string dat = Dat(movie.stem), base = mnt_ + "/" + movie.stem;
    ASSERT_EQ(dat.size(), size_t(movie.width) * movie.height * movie.frames * 2);
    EXPECT_TRUE(ReadFile(base + ".raw") == dat);

    const std::string npy = ReadFile(base + ".npy");
    ASSERT_GT(npy.size(), 10u);
    const size_t header = 10 + (uint8_t(npy[8]) | uint8_t(npy[9]) << 8);
    EXPECT_EQ(npy.compare(0, 8, std::string("\x93NUMPY\x01\x00", 8)), 0);
    EXPECT_EQ(header % 64, 0u);
    const std::string dict = npy.substr(10, header - 10);
    EXPECT_TRUE(Contains(dict, "'descr': '<u2'") && Contains(dict, "'fortran_order': False")) << dict;
    EXPECT_TRUE(Contains(dict, "'shape': (" + std::to_string(movie.frames) + ", " + std::to_string(movie.height) +
                                   ", " + std::to_string(movie.width) + ")"))
        << dict;
    EXPECT_TRUE(npy.compare(header, std::string::npos, dat) == 0);

    const std::string info = ReadFile(base + ".info");
    zeb::file::SRawImagerInfo layout;
    ASSERT_TRUE(zeb::file::SRawImagerInfo::FromText(info.data(), info.size(), layout)) << info;
    EXPECT_EQ(layout.width, movie.width);
    EXPECT_EQ(layout.height, movie.height);
    EXPECT_EQ(layout.frames, movie.frames);

    // The TIFF view as libtiff reads it: one page per frame.
    TIFF* tif = TIFFOpen((base + ".tif").c_str(), "rc");  // c: strips as stored
    ASSERT_NE(tif, nullptr);
    const size_t frameBytes = size_t(movie.width) * movie.height * 2;
    std::string page(frameBytes, '\0');
    unsigned pages = 0;
    do {
      uint32_t width = 0;
      TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &width);
      EXPECT_EQ(width, movie.width);
      EXPECT_EQ(TIFFReadEncodedStrip(tif, 0, &page[0], tmsize_t(frameBytes)), tmsize_t(frameBytes));
      EXPECT_TRUE(page == dat.substr(pages * frameBytes, frameBytes)) << "page " << pages;
      ++pages;
    } while (TIFFReadDirectory(tif));
    TIFFClose(tif);
    EXPECT_EQ(pages, movie.frames);

    // NumPy maps the .npy view (mmap on the mount) and sees the movie.
    const tooltest::ToolRun numpy = tooltest::Run(
        {"/usr/bin/python3", "-c",
         "import numpy, sys; a = numpy.load(sys.argv[1], mmap_mode='r'); "
         "b = numpy.fromfile(sys.argv[2], dtype='<u2').reshape(a.shape); print(a.shape, bool((a == b).all()))",
         base + ".npy", folder_ + "/" + movie.stem + ".dat"});
    EXPECT_EQ(numpy.out, "(" + std::to_string(movie.frames) + ", " + std::to_string(movie.height) + ", " +
                             std::to_string(movie.width) + ") True\n")
        << numpy.err;

    std::atomic<int> wrong{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 4; ++t) {
      readers.emplace_back([&, t] {
        std::mt19937 random(t);
        const size_t frame = size_t(movie.width) * movie.height * 2;
        for (int i = 0; i < 40; ++i) {
          const char* const views[] = {".raw", ".npy", ".tif"};
          const size_t starts[] = {0, header, 8};
          const size_t offset = random() % dat.size();
          size_t count = 1 + random() % (3 * frame);
          if (i % 3 == 2) count = std::min(count, dat.size() - offset);  // the page directories follow
          std::string bytes;
          const long n = PRead(base + views[i % 3], long(offset + starts[i % 3]), count, bytes);
          if (n != long(std::min(count, dat.size() - offset)) || bytes != dat.substr(offset, count)) ++wrong;
        }
      });
    }
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(wrong.load(), 0);
  }
  Unmount();
}

// The listing comes from the plug-in's cache (it answers while the service is
// stopped) and follows movies added and deleted on the drive; an open file
// reads on meanwhile.
TEST_P(MountTest, ListingFollowsTheDrive) {
  MOUNT_OR_SKIP(std::vector<std::string>());
  const std::string alpha = mnt_ + "/1-Alpha.raw";
  const int fd = open(alpha.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  if (!emulator_) service_.Signal(SIGSTOP);
  EXPECT_EQ(Names().size(), 12u);
  struct stat st;
  EXPECT_EQ(stat(alpha.c_str(), &st), 0);
  EXPECT_EQ(size_t(st.st_size), Dat("1-Alpha").size());
  EXPECT_EQ(stat((mnt_ + "/1-Alpha.txt").c_str(), &st), -1);
  if (!emulator_) service_.Signal(SIGCONT);

  MakeMovie({"4-Delta", 5, 4, 3});
  EXPECT_TRUE(WaitUntil([&] { return Names().size() == 16; }));
  EXPECT_TRUE(Contains(ReadFile(mnt_ + "/4-Delta.info"), "frames=3"));
  std::filesystem::remove(folder_ + "/2-Beta Two.dat");
  std::filesystem::remove(folder_ + "/2-Beta Two.info");
  EXPECT_TRUE(WaitUntil([&] { return Names().size() == 12 && access((mnt_ + "/2-Beta Two.npy").c_str(), F_OK) != 0; }));

  const std::string dat = Dat("1-Alpha");
  std::string bytes(dat.size(), '\0');
  EXPECT_EQ(pread(fd, &bytes[0], bytes.size(), 0), ssize_t(dat.size()));
  EXPECT_TRUE(bytes == dat);
  close(fd);
  Unmount();
}

// Without --allow-delete everything that changes the folder is EROFS; with
// it, unlinking NAME.raw deletes the movie (its other views are EPERM), and
// writing stays refused.
TEST_P(MountTest, ChangesAreRefusedButDeletion) {
  for (const bool allowDelete : {false, true}) {
    SCOPED_TRACE(allowDelete ? "--allow-delete" : "read-only");
    const std::vector<std::string> args =
        allowDelete ? std::vector<std::string>{"--allow-delete"} : std::vector<std::string>();
    MOUNT_OR_SKIP(args);
    const std::string raw = mnt_ + "/1-Alpha.raw", info = mnt_ + "/1-Alpha.info";
    const auto error = [](int result) { return result == -1 ? errno : 0; };
    const struct {
      const char* what;
      int error;
    } refused[] = {
        {"open for writing", error(open(raw.c_str(), O_WRONLY | O_CLOEXEC))},
        {"create", error(open((mnt_ + "/new").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644))},
        {"rename", error(rename(raw.c_str(), (mnt_ + "/x.raw").c_str()))},
        {"mkdir", error(mkdir((mnt_ + "/d").c_str(), 0755))},
        {"truncate", error(truncate(raw.c_str(), 0))},
    };
    for (const auto& row : refused) EXPECT_EQ(row.error, EROFS) << row.what;
    errno = 0;
    EXPECT_EQ(unlink(info.c_str()), -1);
    EXPECT_EQ(errno, allowDelete ? EPERM : EROFS);
    errno = 0;
    const int removed = unlink(raw.c_str());
    EXPECT_EQ(removed, allowDelete ? 0 : -1) << strerror(errno);
    EXPECT_EQ(access((folder_ + "/1-Alpha.dat").c_str(), F_OK) == 0, !allowDelete);
    EXPECT_EQ(access(info.c_str(), F_OK) == 0, !allowDelete);
    Unmount();
  }
}

INSTANTIATE_TEST_SUITE_P(Modes, MountTest, ::testing::Values(EMode::kService, EMode::kEmulator),
                         [](const ::testing::TestParamInfo<EMode>& info) {
                           return info.param == EMode::kService ? "Service" : "Emulator";
                         });

using MountServiceTest = MountTest;

// A silent service costs a read the timeout and no more (EIO); a killed one
// fails reads at once; the mount stays, says so, and unmounts cleanly.
TEST_P(MountServiceTest, ReadsFailWithEioWhenTheServiceGoes) {
  const std::vector<std::string> args = {"--timeout", "1"};
  MOUNT_OR_SKIP(args);
  const int fd = open((mnt_ + "/3-Gamma.raw").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  const size_t frameBytes = 321 * 240 * 2;
  std::vector<char> frame(frameBytes);
  // Each read past the kernel's page cache: the mount has to ask.
  const auto readFrame = [&](size_t number, size_t count) {
    posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    errno = 0;
    return pread(fd, frame.data(), count, long(number * frameBytes)) == ssize_t(count) ? 0 : errno;
  };
  ASSERT_EQ(readFrame(0, 2), 0);

  service_.Signal(SIGSTOP);
  EXPECT_EQ(readFrame(5, frameBytes), EIO);
  EXPECT_TRUE(Contains(ReadFile(home_ / "mount.err"), "did not answer within 1 s"));
  // Frames 2 and 4 were never read: the mount has to ask the service for them.
  service_.Signal(SIGCONT);
  EXPECT_TRUE(WaitUntil([&] { return readFrame(2, 2) == 0; }));

  service_.Signal(SIGKILL);
  service_.Wait(30);
  EXPECT_EQ(readFrame(4, frameBytes), EIO);
  close(fd);
  EXPECT_EQ(Names().size(), 12u);
  EXPECT_TRUE(WaitUntil([&] { return Contains(ReadFile(home_ / "mount.err"), "the movie service stopped"); }));
  // What the killed service could not clean up.
  std::filesystem::remove(kSocket);
  for (const std::string& name : Segments()) {
    if (std::find(segments_.begin(), segments_.end(), name) == segments_.end()) shm_unlink(name.c_str());
  }
  Unmount();
}

// Unmounting, and mounting, while the service is silent end within the
// timeout, saying so.
TEST_P(MountServiceTest, UnmountIsBoundedWhileTheServiceIsSilent) {
  const std::vector<std::string> args = {"--timeout", "1"};
  MOUNT_OR_SKIP(args);
  const int fd = open((mnt_ + "/3-Gamma.raw").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  service_.Signal(SIGSTOP);
  std::vector<char> frame(321 * 240 * 2);
  EXPECT_EQ(pread(fd, frame.data(), frame.size(), 0), -1);
  close(fd);
  mount_.Signal(SIGINT);
  EXPECT_EQ(mount_.Wait(20), 1);
  EXPECT_TRUE(Contains(ReadFile(home_ / "mount.err"), "leaving without closing the plug-in"));
  EXPECT_FALSE(Mounted());

  // Mounting against the silent service ends within the bound, too.
  const tooltest::ToolRun again = tooltest::Run({ZEBTRK_CLI, "mount", mnt_, "--foreground", "--timeout", "1"},
                                                {"HOME=" + home_.path(), "ZEBTRK_ENABLE_EMULATOR"}, 20);
  EXPECT_EQ(again.status, 8) << again.err;
  EXPECT_TRUE(Contains(again.err, "did not answer within 1 s")) << again.err;
  EXPECT_FALSE(Mounted());
}

INSTANTIATE_TEST_SUITE_P(Modes, MountServiceTest, ::testing::Values(EMode::kService),
                         [](const ::testing::TestParamInfo<EMode>&) { return "Service"; });

// The bound on calls into the plug-in, with calls that end when told to.
TEST(BoundedWorkerTest, AbandonsAStuckCallAndFailsFastUntilItEnds) {
  typedef BoundedWorker::EResult R;
  auto gate = std::make_shared<std::atomic<bool>>(false);
  const auto stuck = [gate] {
    while (!*gate) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  };
  int runs = 0;
  const auto quick = [&runs] { ++runs; };
  {
    BoundedWorker calls(std::chrono::milliseconds(100));
    EXPECT_EQ(calls.Run(quick), R::kDone);
    EXPECT_EQ(calls.Run(stuck), R::kTimedOut);
    EXPECT_EQ(BoundedWorker::Abandoned(), 1u);
    EXPECT_EQ(calls.Run(quick), R::kBusy);
    EXPECT_FALSE(calls.Post(quick));
    *gate = true;
    EXPECT_TRUE(WaitUntil([] { return BoundedWorker::Abandoned() == 0; }));
    EXPECT_EQ(calls.Run(quick), R::kDone);
    EXPECT_EQ(runs, 2);

    // Callers queue for the worker, each within its own bound.
    BoundedWorker queue(std::chrono::milliseconds(5000));
    std::atomic<int> done{0};
    std::vector<std::thread> callers;
    for (int i = 0; i < 3; ++i) {
      callers.emplace_back([&] {
        if (queue.Run([] { std::this_thread::sleep_for(std::chrono::milliseconds(20)); }) == R::kDone) ++done;
      });
    }
    for (std::thread& caller : callers) caller.join();
    EXPECT_EQ(done.load(), 3);
    auto posted = std::make_shared<std::atomic<int>>(0);
    EXPECT_TRUE(queue.Post([posted] { ++*posted; }));
    EXPECT_TRUE(WaitUntil([&] { return *posted == 1; }));
  }
  // Destroying the object leaves a stuck call to end on its own.
  *gate = false;
  { BoundedWorker(std::chrono::milliseconds(10)).Run(stuck); }
  EXPECT_EQ(BoundedWorker::Abandoned(), 1u);
  *gate = true;
  EXPECT_TRUE(WaitUntil([] { return BoundedWorker::Abandoned() == 0; }));
}

}  // namespace
