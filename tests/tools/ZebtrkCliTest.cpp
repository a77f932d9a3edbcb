// End to end: the zebtrk command against the simulator (a child zebtrksvc on
// a temporary drive) and in emulator mode (HOME in a temporary folder), on
// movies written here with the framework's raw imager writer, so every pixel
// is known. Uses the fixed service socket: marked SERVICE.
#include <gtest/gtest.h>
#include <png.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <zeb/CLocalFileSystem.h>
#include <zeb/file/CRawImagerWriter.h>
#include <zeb/file/SRawImagerInfo.h>

#include "tests/support/TempDir.h"
#include "tests/tools/ChildProcess.h"
#include "tests/tools/CliTestSupport.h"

namespace {

using testsupport::ReadFile;
using testsupport::TempDir;
using tooltest::ChildProcess;
using tooltest::WaitUntil;
using SRun = tooltest::ToolRun;

const std::string kSocket = "/tmp/zebtrksvc";

struct SMovieSpec {
  std::string stem;  // "<number>-<name>"
  unsigned int width, height, frames;
};

// Names chosen to exercise sorting by number, spaces, JSON escaping, and a
// terminal's escape sequence, a newline and characters of one and two
// columns in several bytes.
const SMovieSpec kMovies[] = {
    {"1-Run A", 16, 12, 4},
    {"2-Say \"hi\" \\ now", 8, 4, 2},
    {"3-\x1b[31mR\xc3\xb6" "d\n\xe6\x97\xa5", 4, 4, 2},
    {"10-Hot Spot", 40, 30, 6},
};
constexpr long kFirstTicks = 133590240000000000L;  // 2024-05-01 08:00:00 UTC
constexpr long kPeriodTicks = 400000;              // 25 Hz

// Pixel values that differ in both bytes, per movie, frame and position.
uint16_t Pixel(size_t movie, unsigned int frame, unsigned int i) {
  return static_cast<uint16_t>(1000 * (movie + 1) + 300 * frame + i * 7);
}

void WriteMovies(const std::string& folder) {
  for (size_t m = 0; m < sizeof(kMovies) / sizeof(kMovies[0]); ++m) {
    const SMovieSpec& spec = kMovies[m];
    zeb::file::SRawImagerInfo layout;
    layout.width = spec.width;
    layout.height = spec.height;
    layout.hasTiming = true;
    layout.firstFrameTicks = kFirstTicks + static_cast<long>(m) * 36000000000L;
    layout.framePeriodTicks = kPeriodTicks;
    zeb::file::CRawImagerWriter writer;
    ASSERT_TRUE(writer.Create(zeb::fileSystem(), (folder + "/" + spec.stem + ".dat").c_str(), layout));
    std::vector<unsigned short> pixels(spec.width * spec.height);
    for (unsigned int f = 0; f < spec.frames; ++f) {
      for (unsigned int i = 0; i < pixels.size(); ++i) pixels[i] = Pixel(m, f, i);
      ASSERT_TRUE(writer.PutFrame(pixels.data()));
    }
    ASSERT_TRUE(writer.Finish());
  }
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// True once the log at `path` holds `text` (waits for it).
bool Logged(const std::string& path, const std::string& text) {
  return WaitUntil([&] { return Contains(ReadFile(path), text); });
}

// A service started on `drive`; true once it accepts on kSocket.
bool StartService(ChildProcess& service, const std::string& drive, const std::string& log) {
  return service.Start({ZEBTRKSVC, "--drive", drive}, {}, log) &&
         WaitUntil([] { return tooltest::SocketAccepts(kSocket); });
}

// `text` as a JSON string's contents (the movie names need only these).
std::string JsonEscaped(const std::string& text) {
  std::string escaped;
  for (char c : text) {
    escaped += c == '"' || c == '\\' ? std::string("\\") + c : c == '\n' ? "\\n" : c == 0x1b ? "\\u001b" : std::string(1, c);
  }
  return escaped;
}

// The names in `folder`, sorted; none when it does not exist.
std::vector<std::string> FilesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    names.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  return names;
}

enum class EMode { kService, kEmulator };

// A HOME, a drive (or cache directory) with the three movies, and in service
// mode a running simulator.
class ZebtrkCliTest : public ::testing::TestWithParam<EMode> {
 protected:
  void SetUp() override {
    emulator_ = GetParam() == EMode::kEmulator;
    folder_ = emulator_ ? home_.path() + "/.cache/Ostrel Systems/TRK" : drive_.path();
    std::filesystem::create_directories(folder_);
    ASSERT_TRUE(std::filesystem::is_directory(folder_));
    WriteMovies(folder_);
    if (emulator_) return;
    ASSERT_NE(access(kSocket.c_str(), F_OK), 0) << kSocket << " exists: is a service running?";
    ASSERT_TRUE(StartService(service_, drive_.path(), home_ / "service.log")) << ReadFile(home_ / "service.log");
  }

  std::vector<std::string> Env() const {
    return {"HOME=" + home_.path(), emulator_ ? "ZEBTRK_ENABLE_EMULATOR=1" : "ZEBTRK_ENABLE_EMULATOR", "ZEBTRK_PLUGIN"};
  }

  SRun Cli(std::vector<std::string> args) const {
    args.insert(args.begin(), ZEBTRK_CLI);
    return tooltest::Run(args, Env());
  }

  std::string Dat(const std::string& stem) const { return ReadFile(folder_ + "/" + stem + ".dat"); }

  TempDir home_;
  TempDir drive_;
  TempDir out_;
  bool emulator_ = false;
  std::string folder_;
  ChildProcess service_;
};

TEST_P(ZebtrkCliTest, StatusAndListing) {
  SRun run = Cli({"status"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Contains(run.out, "movies:   4")) << run.out;
  EXPECT_TRUE(Contains(run.out, emulator_ ? "mode:     emulator" : "service:  running")) << run.out;

  // Columns by display width: the escaped name "3-\x1b[31mRöd\n日" is 17
  // columns wide (20 bytes); movies in the service's order in both modes.
  run = Cli({"ls"});
  ASSERT_EQ(run.status, 0) << run.err;
  for (const char* row : {"NAME               FRAMES  WIDTH x HEIGHT      SIZE  START (UTC)          DURATION   RATE\n"
                          "1-Run A                 4  16 x 12          1.5 KiB  2024-05-01 08:00:00   0.120 s  25 Hz\n",
                          "\n3-\\x1b[31mR\xc3\xb6" "d\\n\xe6\x97\xa5       2  4 x 4               64 B  2024-05-01 10:00:00",
                          "\n10-Hot Spot             6  40 x 30         14.1 KiB  2024-05-01 11:00:00   0.200 s  25 Hz\n"}) {
    EXPECT_TRUE(Contains(run.out, row)) << row << " not in\n" << run.out;
  }
  EXPECT_EQ(run.out.find('\x1b'), std::string::npos);

  run = Cli({"ls", "Run*"});
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(Contains(run.out, "1-Run A"));
  EXPECT_FALSE(Contains(run.out, "10-Hot Spot"));

  // The same objects, in the same forms, in both modes: index is the
  // position in the listing, times come from the information file.
  run = Cli({"ls", "--json"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out.substr(0, 2), "[{") << run.out;
  EXPECT_EQ(run.out.substr(run.out.size() - 3), "}]\n") << run.out;
  const char* const kStarts[] = {"08", "09", "10", "11"};
  for (size_t m = 0; m < 4; ++m) {
    const SMovieSpec& spec = kMovies[m];
    const std::string name = JsonEscaped(spec.stem);
    const unsigned long size = spec.width * spec.height * 2ul * spec.frames;
    const std::string end = std::to_string((spec.frames - 1) * 40000);
    const std::string object =
        "{\"name\":\"" + name + "\",\"path\":\"trk:///" + name + "\",\"number\":\"" +
        spec.stem.substr(0, spec.stem.find('-')) + "\",\"index\":" + std::to_string(m) +
        ",\"frames\":" + std::to_string(spec.frames) + ",\"width\":" + std::to_string(spec.width) +
        ",\"height\":" + std::to_string(spec.height) + ",\"size\":" + std::to_string(size) +
        ",\"startTime\":\"2024-05-01T" + kStarts[m] + ":00:00.000000Z\",\"endTime\":\"2024-05-01T" + kStarts[m] +
        ":00:00." + std::string(6 - end.size(), '0') + end + "Z\",\"durationMicroseconds\":" + end +
        ",\"frameRate\":25}";
    EXPECT_TRUE(Contains(run.out, object)) << object << " not in\n" << run.out;
  }
}

TEST_P(ZebtrkCliTest, InfoShowsPropertiesAndTheInformationFile) {
  SRun run = Cli({"info", "1-Run A"});
  ASSERT_EQ(run.status, 0) << run.err;
  for (const char* part :
       {"name:      1-Run A", "  width      16", "  height     12", "  numFrames  4", "  startTime  ",
        "  duration   120000", "information file (1-Run A:info", "[raw]", "frames=4", "width=16"}) {
    EXPECT_TRUE(Contains(run.out, part)) << part << " not in\n" << run.out;
  }
  run = Cli({"info", "10"});  // a movie number alone
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Contains(run.out, "name:      10-Hot Spot")) << run.out;
}

// `info` as a raw imager layout; false when it does not parse.
bool Layout(const std::string& info, zeb::file::SRawImagerInfo& layout) {
  return zeb::file::SRawImagerInfo::FromText(info.data(), info.size(), layout);
}

TEST_P(ZebtrkCliTest, ExportedFramesEqualTheFrameData) {
  // Raw, every frame: a copy of the frame data file, and its information
  // file; frames 2 to 4: their bytes, named by the range, timed from frame 2.
  const std::string dat = Dat("10-Hot Spot");
  const size_t frameBytes = 40 * 30 * 2;
  ASSERT_EQ(dat.size(), frameBytes * 6);
  SRun run = Cli({"export", "10", out_ / "raw", "--format", "raw"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Contains(run.out, "exported 6 frames (0:6)")) << run.out;
  EXPECT_EQ(ReadFile(out_ / "raw/10-Hot Spot.raw"), dat);
  EXPECT_EQ(ReadFile(out_ / "raw/10-Hot Spot.info"), ReadFile(folder_ + "/10-Hot Spot.info"));
  run = Cli({"export", "10-Hot Spot", out_ / "raw", "--format", "raw", "--frames", "2:5"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(ReadFile(out_ / "raw/10-Hot Spot-frames-000002-000004.raw"), dat.substr(2 * frameBytes, 3 * frameBytes));
  zeb::file::SRawImagerInfo layout;
  ASSERT_TRUE(Layout(ReadFile(out_ / "raw/10-Hot Spot-frames-000002-000004.info"), layout));
  EXPECT_EQ(layout.frames, 3u);
  EXPECT_EQ(layout.firstFrameTicks, kFirstTicks + 3 * 36000000000L + 2 * kPeriodTicks);
  EXPECT_EQ(layout.framePeriodTicks, kPeriodTicks);

  // No export replaces a file without --force; nothing is written then.
  run = Cli({"export", "10", out_ / "raw", "--format", "raw"});
  EXPECT_EQ(run.status, 6);
  EXPECT_TRUE(Contains(run.err, "2 of the files exist already, " + out_ / "raw/10-Hot Spot.raw first (--force"))
      << run.err;
  ASSERT_TRUE(testsupport::WriteFile(out_ / "raw/10-Hot Spot.raw", "old"));
  EXPECT_EQ(Cli({"export", "10", out_ / "raw", "--format", "raw", "--force", "--quiet"}).status, 0);
  EXPECT_EQ(ReadFile(out_ / "raw/10-Hot Spot.raw"), dat);
  EXPECT_EQ(FilesIn(out_ / "raw").size(), 4u);

  // NPY: the .npy header, then the frames as they are; numpy maps it.
  run = Cli({"export", "10", out_ / "npy", "--format", "npy", "--frames", "1:"});
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string npy = ReadFile(out_ / "npy/10-Hot Spot-frames-000001-000005.npy");
  ASSERT_GT(npy.size(), 128u);
  EXPECT_EQ(npy.substr(0, 128), std::string("\x93NUMPY\x01\x00\x76\x00", 10) +
                                    "{'descr': '<u2', 'fortran_order': False, 'shape': (5, 30, 40), }" +
                                    std::string(53, ' ') + "\n");
  EXPECT_TRUE(npy.substr(128) == dat.substr(frameBytes));
  if (access("/usr/bin/python3", X_OK) == 0) {
    const SRun python = tooltest::Run(
        {"/usr/bin/python3", "-c",
         "import sys, numpy; a = numpy.load(sys.argv[1], mmap_mode='r'); print(type(a).__name__, a.shape, a.dtype, "
         "int(a[4, 29, 39]))",
         out_ / "npy/10-Hot Spot-frames-000001-000005.npy"});
    if (python.status == 0) {
      EXPECT_EQ(python.out, "memmap (5, 30, 40) uint16 " + std::to_string(Pixel(3, 5, 30 * 40 - 1)) + "\n");
    } else {
      EXPECT_TRUE(Contains(python.err, "No module named 'numpy'")) << python.err;
    }
  }

  // TIFF: one page per frame, its samples, ImageJ's description on the
  // first, each page's time.
  run = Cli({"export", "10", out_ / "tiff", "--format", "tiff"});
  ASSERT_EQ(run.status, 0) << run.err;
  std::vector<clitest::STiffPage> pages;
  ASSERT_TRUE(clitest::ReadTiff(out_ / "tiff/10-Hot Spot.tif", pages));
  ASSERT_EQ(pages.size(), 6u);
  for (size_t n = 0; n < pages.size(); ++n) {
    EXPECT_EQ(pages[n].width, 40u);
    EXPECT_EQ(pages[n].height, 30u);
    EXPECT_EQ(pages[n].bitsPerSample, 16u);
    EXPECT_TRUE(pages[n].samples == dat.substr(n * frameBytes, frameBytes)) << n;
  }
  EXPECT_EQ(pages[0].description,
            "ImageJ=1.11a\nimages=6\nframes=6\nfinterval=0.04\ntunit=sec\nunit=pixel\nloop=false\n");
  EXPECT_EQ(pages[5].pageName, "2024-05-01T11:00:00.200000Z");
  EXPECT_EQ(pages[5].dateTime, "2024:05:01 11:00:00");

  // PGM, frames 1 and 2, and PNG, frame 3 alone with a preview (its colours
  // are checked in ZebtrkCliUnitTest): the frames' samples, big-endian.
  const unsigned int runBytes = 16 * 12 * 2;
  auto bigEndian = [&](unsigned int frame) {
    std::string samples = Dat("1-Run A").substr(frame * runBytes, runBytes);
    for (unsigned int i = 0; i + 1 < samples.size(); i += 2) std::swap(samples[i], samples[i + 1]);
    return samples;
  };
  run = Cli({"export", "1-Run A", out_ / "pgm", "--frames", "1:3", "--format=pgm"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(FilesIn(out_ / "pgm"), (std::vector<std::string>{"1-Run A-000001.pgm", "1-Run A-000002.pgm"}));
  for (unsigned int frame = 1; frame < 3; ++frame) {
    EXPECT_TRUE(ReadFile(out_ / ("pgm/1-Run A-00000" + std::to_string(frame) + ".pgm")) ==
                "P5\n16 12\n65535\n" + bigEndian(frame))
        << frame;
  }
  run = Cli({"export", "1-Run A", out_ / "png", "--frames", "3", "--preview"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(FilesIn(out_ / "png"), (std::vector<std::string>{"1-Run A-000003-preview.png", "1-Run A-000003.png"}));
  EXPECT_TRUE(Contains(run.out, "-preview.png")) << run.out;
  clitest::SPng png;
  ASSERT_TRUE(clitest::ReadPng(out_ / "png/1-Run A-000003.png", png));
  EXPECT_EQ(png.width, 16u);
  EXPECT_EQ(png.height, 12u);
  EXPECT_EQ(png.bitDepth, 16);
  EXPECT_EQ(png.colourType, PNG_COLOR_TYPE_GRAY);
  EXPECT_TRUE(std::string(png.bytes.begin(), png.bytes.end()) == bigEndian(3));
  EXPECT_EQ(Pixel(0, 3, 5), (png.bytes[10] << 8) | png.bytes[11]);  // the pattern itself, not the file only
}

TEST_P(ZebtrkCliTest, ErrorsAUserUnderstands) {
  struct {
    std::vector<std::string> args;
    int status;
    const char* message;
  } cases[] = {
      {{"info", "1-Run B"}, 5, "no movie named \"1-Run B\"; did you mean \"1-Run A\"?"},
      {{"info", "99"}, 5, "no movie named \"99\""},
      {{"rm", "1-Run B"}, 5, "no movie named \"1-Run B\"; did you mean \"1-Run A\"?"},
      {{"export", "1-Run A", out_ / "x", "--frames", "3:9"}, 2, "bad frame range \"3:9\""},
      {{"export", "1-Run A", out_ / "x", "--frames", "2:2"}, 2, "it holds no frame"},
      {{"export", "1-Run A", out_ / "x", "--format", "bmp"}, 2, "unknown format \"bmp\" (png, pgm, tiff, npy or raw)"},
      {{"export", "1-Run A", "-"}, 2, "exporting to standard output is not supported"},
      {{"--timeout", "0", "ls"}, 2, "--timeout needs a number of seconds from 0.001 to 86400, not \"0\""},
      {{"frob\x1b[2J"}, 2, "unknown command \"frob\\x1b[2J\""},
      {{"export", "1-Run A", "/proc/version/out"}, 6, "cannot write to the output folder /proc/version/out"},
      {{"export", "1-Run A"}, 2, "missing argument; usage: zebtrk export NAME OUTDIR"},
      {{"frobnicate"}, 2, "unknown command \"frobnicate\""},
      {{"watch", "--count", "0"}, 2, "--count needs a positive number"},
      {{}, 2, "no command given (zebtrk --help lists the commands)"},
  };
  for (const auto& c : cases) {
    const SRun run = Cli(c.args);
    EXPECT_EQ(run.status, c.status) << c.message << "\n" << run.err;
    EXPECT_TRUE(Contains(run.err, c.message)) << run.err;
    if (c.status == 2) {
      EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;  // one line
    }
  }
  const SRun version = Cli({"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_TRUE(Contains(version.out, "zebtrk 0.")) << version.out;
  EXPECT_TRUE(FilesIn(out_.path()).empty());  // nothing made for a refused export

  // Output that cannot be written is a failure.
  const SRun full = tooltest::Run({"/bin/sh", "-c", "exec \"$0\" ls >/dev/full", ZEBTRK_CLI}, Env());
  EXPECT_EQ(full.status, 1);
  EXPECT_TRUE(Contains(full.err, "cannot write to standard output")) << full.err;
}

TEST_P(ZebtrkCliTest, RemoveShowsTheReportedChangeAndWatchSeesIt) {
  ChildProcess watch;
  ASSERT_TRUE(watch.Start({ZEBTRK_CLI, "watch", "--count", "1"}, Env(), out_ / "watch.log"));
  ASSERT_TRUE(Logged(out_ / "watch.log", "watching")) << ReadFile(out_ / "watch.log");

  const SRun run = Cli({"rm", "10"});  // the number alone, as info takes it
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Contains(run.out, "removed 10-Hot Spot: 6 frames, 40 x 30, 14.1 KiB, start 2024-05-01 11:00:00 UTC "
                                "(listed at position 3)\n"))
      << run.out;
  EXPECT_TRUE(Contains(run.out, "the plug-in reported the change (removed 10-Hot Spot); now 3 movies:")) << run.out;
  EXPECT_FALSE(Contains(run.out.substr(run.out.find("now 3")), "10-Hot Spot")) << run.out;
  EXPECT_NE(access((folder_ + "/10-Hot Spot.dat").c_str(), F_OK), 0);

  EXPECT_EQ(watch.Wait(30), 0) << ReadFile(out_ / "watch.log");
  const std::string log = ReadFile(out_ / "watch.log");
  EXPECT_TRUE(Contains(log, "4 movies:")) << log;
  EXPECT_TRUE(Contains(log, "change 1 (removed 10-Hot Spot): 3 movies:")) << log;
  EXPECT_TRUE(Contains(log, "stopped after 1 change")) << log;
}

TEST_P(ZebtrkCliTest, WatchEndsCleanlyOnSigint) {
  ChildProcess watch;
  ASSERT_TRUE(watch.Start({ZEBTRK_CLI, "watch"}, Env(), out_ / "watch.log"));
  ASSERT_TRUE(Logged(out_ / "watch.log", "watching")) << ReadFile(out_ / "watch.log");
  watch.Signal(SIGINT);
  EXPECT_EQ(watch.Wait(30), 0);
  EXPECT_TRUE(Contains(ReadFile(out_ / "watch.log"), "stopped after 0 changes"));
}

INSTANTIATE_TEST_SUITE_P(Modes, ZebtrkCliTest, ::testing::Values(EMode::kService, EMode::kEmulator),
                         [](const ::testing::TestParamInfo<EMode>& info) {
                           return info.param == EMode::kService ? "Service" : "Emulator";
                         });

// Failures of the set-up: no service, a stale socket, no drive, no plug-in.
class ZebtrkCliSetupTest : public ::testing::Test {
 protected:
  SRun Cli(std::vector<std::string> args, std::vector<std::string> env = {}) const {
    args.insert(args.begin(), ZEBTRK_CLI);
    env.push_back("HOME=" + home_.path());
    env.push_back("ZEBTRK_ENABLE_EMULATOR");
    return tooltest::Run(args, env);
  }
  TempDir home_;
};

TEST_F(ZebtrkCliSetupTest, NoServiceStaleSocketNoDriveNoPlugin) {
  ASSERT_NE(access(kSocket.c_str(), F_OK), 0) << kSocket << " exists: is a service running?";
  SRun run = Cli({"ls"});
  EXPECT_EQ(run.status, 3) << run.err;
  EXPECT_TRUE(Contains(run.err, "the movie service is not running (no socket at /tmp/zebtrksvc)")) << run.err;
  EXPECT_TRUE(Contains(run.err, "zebtrksvc --drive DIR &")) << run.err;
  EXPECT_TRUE(Contains(run.err, "zebtrksvc make-demo DIR")) << run.err;
  run = Cli({"status"});
  EXPECT_EQ(run.status, 3);
  EXPECT_TRUE(Contains(run.out, "service:  not running")) << run.out;

  {
    ASSERT_TRUE(tooltest::LeaveStaleSocket(kSocket));
    run = Cli({"info", "1-Run A"});
    unlink(kSocket.c_str());
    EXPECT_EQ(run.status, 3);
    EXPECT_TRUE(Contains(run.err, "/tmp/zebtrksvc is left over from a service that stopped")) << run.err;
  }

  {
    // A service whose drive folder does not exist: no drive.
    ChildProcess service;
    ASSERT_TRUE(StartService(service, home_ / "no-drive", home_ / "service.log")) << ReadFile(home_ / "service.log");
    run = Cli({"ls"});
    EXPECT_EQ(run.status, 4) << run.err;
    EXPECT_TRUE(Contains(run.err, "no drive")) << run.err;
    run = Cli({"status"});
    EXPECT_EQ(run.status, 4);
    EXPECT_TRUE(Contains(run.out, "drive:    not present")) << run.out;

    // watch does not need a drive; it ends when the service goes away.
    ChildProcess watch;
    ASSERT_TRUE(watch.Start({ZEBTRK_CLI, "watch"}, {"HOME=" + home_.path(), "ZEBTRK_ENABLE_EMULATOR"},
                            home_ / "watch.log"));
    ASSERT_TRUE(Logged(home_ / "watch.log", "watching")) << ReadFile(home_ / "watch.log");
    EXPECT_TRUE(Contains(ReadFile(home_ / "watch.log"), "no drive is present; waiting for one"));
    service.Signal(SIGTERM);
    EXPECT_EQ(service.Wait(30), 0);
    EXPECT_EQ(watch.Wait(30), 3) << ReadFile(home_ / "watch.log");
    EXPECT_TRUE(Contains(ReadFile(home_ / "watch.log"), "the movie service stopped")) << ReadFile(home_ / "watch.log");
  }

  {
    // A service killed outright leaves its socket: watch still notices.
    ChildProcess service;
    ASSERT_TRUE(StartService(service, home_.path(), home_ / "service.log")) << ReadFile(home_ / "service.log");
    ChildProcess watch;
    ASSERT_TRUE(watch.Start({ZEBTRK_CLI, "watch"}, {"HOME=" + home_.path(), "ZEBTRK_ENABLE_EMULATOR"},
                            home_ / "watch.log"));
    ASSERT_TRUE(Logged(home_ / "watch.log", "watching")) << ReadFile(home_ / "watch.log");
    service.Signal(SIGKILL);
    EXPECT_EQ(service.Wait(30), 128 + SIGKILL);
    EXPECT_EQ(watch.Wait(30), 3) << ReadFile(home_ / "watch.log");
    EXPECT_TRUE(Contains(ReadFile(home_ / "watch.log"), "the movie service died (its socket is left over"))
        << ReadFile(home_ / "watch.log");

    // Killed and at once replaced: the new service answers, the plug-in's
    // connections (and its monitoring) are gone.
    ASSERT_TRUE(StartService(service, home_.path(), home_ / "service.log")) << ReadFile(home_ / "service.log");
    ASSERT_TRUE(watch.Start({ZEBTRK_CLI, "watch"}, {"HOME=" + home_.path(), "ZEBTRK_ENABLE_EMULATOR"},
                            home_ / "watch.log"));
    ASSERT_TRUE(Logged(home_ / "watch.log", "watching")) << ReadFile(home_ / "watch.log");
    service.Signal(SIGKILL);
    EXPECT_EQ(service.Wait(30), 128 + SIGKILL);
    ChildProcess replacement;
    ASSERT_TRUE(StartService(replacement, home_.path(), home_ / "service.log")) << ReadFile(home_ / "service.log");
    EXPECT_EQ(watch.Wait(30), 3) << ReadFile(home_ / "watch.log");
    const std::string log = ReadFile(home_ / "watch.log");
    EXPECT_TRUE(Contains(log, "the plug-in lost its connection to the movie service (was the service restarted?)"))
        << log;
  }

  run = Cli({"status"}, {"ZEBTRK_PLUGIN=" + home_ / "missing/libzebtrk.so"});
  EXPECT_EQ(run.status, 7);
  EXPECT_TRUE(Contains(run.err, "cannot load the plug-in library " + home_ / "missing/libzebtrk.so")) << run.err;
  run = Cli({"ls"}, {"ZEBTRK_PLUGIN=" ZEB_LIBRARY});
  EXPECT_EQ(run.status, 7);
  EXPECT_TRUE(Contains(run.err, "is not the zebtrk plug-in: it has no zebtrk_Load")) << run.err;
}

// A socket at kSocket that accepts but never answers (nobody calls accept:
// connections wait in the backlog), or, with `answer`, a thread that sends
// `answer` to the first connection and closes it.
class FakeService {
 public:
  explicit FakeService(const std::string& answer = "") {
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s", kSocket.c_str());
    m_ok = bind(m_fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 && listen(m_fd, 16) == 0;
    if (m_ok && !answer.empty()) {
      m_thread = std::thread([this, answer] {
        const int client = accept(m_fd, nullptr, nullptr);
        if (client < 0) return;
        char request[64];
        if (recv(client, request, sizeof(request), 0) > 0) send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
        close(client);
      });
    }
  }
  ~FakeService() {
    unlink(kSocket.c_str());
    shutdown(m_fd, SHUT_RDWR);
    if (m_thread.joinable()) m_thread.join();
    close(m_fd);
  }
  bool ok() const { return m_ok; }

 private:
  int m_fd = -1;
  bool m_ok = false;
  std::thread m_thread;
};

TEST_F(ZebtrkCliSetupTest, ASilentOrForeignServiceIsNamedAndNothingHangs) {
  ASSERT_NE(access(kSocket.c_str(), F_OK), 0) << kSocket << " exists: is a service running?";
  {
    FakeService silent;
    ASSERT_TRUE(silent.ok());
    for (const char* command : {"status", "ls", "watch"}) {
      const SRun run = Cli({"--timeout", "0.3", command});
      EXPECT_EQ(run.status, 8) << command << ": " << run.err;
      EXPECT_TRUE(Contains(run.err, "zebtrk: the movie service at /tmp/zebtrksvc accepts connections but did not "
                                    "answer within 0.3 s (no answer): is it stopped or hung? (--timeout S waits "
                                    "longer)\n"))
          << run.err;
    }
  }
  {
    FakeService foreign("HTTP/1.0 400 Bad Request\r\n\r\n");
    ASSERT_TRUE(foreign.ok());
    const SRun run = Cli({"ls"});
    EXPECT_EQ(run.status, 3) << run.err;
    EXPECT_TRUE(Contains(run.err, "the movie service at /tmp/zebtrksvc does not speak the expected protocol (its "
                                  "answer to the version check is not the protocol's)"))
        << run.err;
  }
}

// A service stopped (SIGSTOP) in the middle of a one-file export: the bound
// ends the export, Ctrl-C ends it sooner; neither leaves the unfinished file.
TEST_F(ZebtrkCliSetupTest, AStoppedServiceEndsAnExportWithoutDebris) {
  ASSERT_NE(access(kSocket.c_str(), F_OK), 0) << kSocket << " exists: is a service running?";
  const std::string drive = home_ / "drive";
  ASSERT_EQ(tooltest::Run({ZEBTRKSVC, "make-movie", drive, "--width", "4", "--height", "4", "--frames", "100000",
                           "--number", "1", "--name", "Long"})
                .status,
            0);
  ChildProcess service;
  ASSERT_TRUE(StartService(service, drive, home_ / "service.log")) << ReadFile(home_ / "service.log");
  struct {
    std::vector<std::string> timeout;
    int signal, status;
    const char* message;
  } cases[] = {
      {{"--timeout", "0.5"}, 0, 8, "did not answer within 0.5 s: is it stopped or hung?"},
      {{}, SIGINT, 130, "zebtrk: interrupted; unfinished files were removed"},
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {ZEBTRK_CLI};
    args.insert(args.end(), c.timeout.begin(), c.timeout.end());
    args.insert(args.end(), {"export", "1", home_ / "out", "--format", "tiff"});
    ChildProcess exporter;
    ASSERT_TRUE(exporter.Start(args, {"HOME=" + home_.path(), "ZEBTRK_ENABLE_EMULATOR"}, home_ / "export.log"));
    ASSERT_TRUE(WaitUntil([&] { return access((home_ / "out/1-Long.tif.part").c_str(), F_OK) == 0; }))
        << ReadFile(home_ / "export.log");
    service.Signal(SIGSTOP);
    if (c.signal) {
      exporter.Signal(c.signal);
      exporter.Signal(c.signal);  // a second Ctrl-C does not kill it half-way
    }
    EXPECT_EQ(exporter.Wait(30), c.status) << ReadFile(home_ / "export.log");
    service.Signal(SIGCONT);
    EXPECT_TRUE(Contains(ReadFile(home_ / "export.log"), c.message)) << ReadFile(home_ / "export.log");
    EXPECT_TRUE(FilesIn(home_ / "out").empty());
  }
}

}  // namespace
