// End to end: the zebtrk command against the simulator (a child zebtrksvc on
// a temporary drive) and in emulator mode (HOME in a temporary folder), on
// movies written here with the framework's raw imager writer, so every pixel
// is known. Uses the fixed service socket: marked SERVICE.
#include <gtest/gtest.h>
#include <png.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <zeb/CLocalFileSystem.h>
#include <zeb/file/CRawImagerWriter.h>

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

// Names chosen to exercise sorting by number, spaces, and JSON escaping.
const SMovieSpec kMovies[] = {
    {"1-Run A", 16, 12, 4},
    {"2-Say \"hi\" \\ now", 8, 4, 2},
    {"10-Hot Spot", 40, 30, 6},
};

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
    layout.firstFrameTicks = 133590240000000000L + static_cast<long>(m) * 36000000000L;
    layout.framePeriodTicks = 400000;
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
  for (char c : text) escaped += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
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
  EXPECT_TRUE(Contains(run.out, "movies:   3")) << run.out;
  EXPECT_TRUE(Contains(run.out, emulator_ ? "mode:     emulator" : "service:  running")) << run.out;

  run = Cli({"ls"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Contains(run.out, "NAME")) << run.out;
  for (const SMovieSpec& spec : kMovies) EXPECT_TRUE(Contains(run.out, spec.stem)) << run.out;
  EXPECT_TRUE(Contains(run.out, "40 x 30")) << run.out;

  run = Cli({"ls", "Run*"});
  EXPECT_EQ(run.status, 0);
  EXPECT_TRUE(Contains(run.out, "1-Run A"));
  EXPECT_FALSE(Contains(run.out, "10-Hot Spot"));

  // One object per movie, written by JsonWriter (whose output is checked
  // whole in ZebtrkCliUnitTest); names escaped.
  run = Cli({"ls", "--json"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out.substr(0, 2), "[{") << run.out;
  EXPECT_EQ(run.out.substr(run.out.size() - 3), "}]\n") << run.out;
  for (const SMovieSpec& spec : kMovies) {
    const std::string name = JsonEscaped(spec.stem);
    const unsigned long size = spec.width * spec.height * 2ul * spec.frames;
    EXPECT_TRUE(Contains(run.out, "{\"name\":\"" + name + "\",\"path\":\"trk:///" + name + "\",\"index\":")) << run.out;
    EXPECT_TRUE(Contains(run.out, ",\"frames\":" + std::to_string(spec.frames) + ",\"width\":" +
                                      std::to_string(spec.width) + ",\"height\":" + std::to_string(spec.height) +
                                      ",\"size\":" + std::to_string(size) + ",\"recorded\":\""))
        << spec.stem << " in " << run.out;
    // Frames 400000 ticks apart: (frames - 1) x 40 ms.
    EXPECT_TRUE(Contains(run.out, ",\"durationMicroseconds\":" + std::to_string((spec.frames - 1) * 40000) + "}"))
        << spec.stem << " in " << run.out;
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

TEST_P(ZebtrkCliTest, ExportedFramesEqualTheFrameData) {
  // Raw, every frame: a copy of the frame data file.
  SRun run = Cli({"export", "10-Hot Spot", out_ / "raw", "--format", "raw"});
  ASSERT_EQ(run.status, 0) << run.err;
  const std::string dat = Dat("10-Hot Spot");
  ASSERT_EQ(dat.size(), 40u * 30 * 2 * 6);
  EXPECT_EQ(ReadFile(out_ / "raw/10-Hot Spot.raw"), dat);
  EXPECT_TRUE(Contains(run.out, "exported 6 frames (0:6)")) << run.out;

  // PGM, frames 1 and 2, and PNG, frame 3 alone with a preview (its colours
  // are checked in ZebtrkCliUnitTest): the frames' samples, big-endian.
  const unsigned int frameBytes = 16 * 12 * 2;
  auto bigEndian = [&](unsigned int frame) {
    std::string samples = Dat("1-Run A").substr(frame * frameBytes, frameBytes);
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
      {{"rm", "10"}, 5, "no movie named \"10\"; did you mean \"10-Hot Spot\"?"},
      {{"export", "1-Run A", out_ / "x", "--frames", "3:9"}, 2, "bad frame range \"3:9\""},
      {{"export", "1-Run A", out_ / "x", "--frames", "2:2"}, 2, "it holds no frame"},
      {{"export", "1-Run A", out_ / "x", "--format", "bmp"}, 2, "unknown format \"bmp\""},
      {{"export", "1-Run A", "/proc/version/out"}, 6, "cannot write to the output folder /proc/version/out"},
      {{"export", "1-Run A"}, 2, "missing argument; usage: zebtrk export NAME OUTDIR"},
      {{"frobnicate"}, 2, "unknown command \"frobnicate\""},
      {{"watch", "--count", "0"}, 2, "--count needs a positive number"},
      {{}, 2, "Exit codes:"},
  };
  for (const auto& c : cases) {
    const SRun run = Cli(c.args);
    EXPECT_EQ(run.status, c.status) << c.message << "\n" << run.err;
    EXPECT_TRUE(Contains(run.err, c.message)) << run.err;
  }
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

  const SRun run = Cli({"rm", "10-Hot Spot"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Contains(run.out, "removed 10-Hot Spot\n")) << run.out;
  EXPECT_TRUE(Contains(run.out, "the plug-in reported the change (removed 10-Hot Spot); now 2 movies:")) << run.out;
  EXPECT_FALSE(Contains(run.out.substr(run.out.find("now 2")), "10-Hot Spot")) << run.out;
  EXPECT_NE(access((folder_ + "/10-Hot Spot.dat").c_str(), F_OK), 0);

  EXPECT_EQ(watch.Wait(30), 0) << ReadFile(out_ / "watch.log");
  const std::string log = ReadFile(out_ / "watch.log");
  EXPECT_TRUE(Contains(log, "3 movies:")) << log;
  EXPECT_TRUE(Contains(log, "change 1 (removed 10-Hot Spot): 2 movies:")) << log;
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

  run = Cli({"status"}, {"ZEBTRK_PLUGIN=" + home_ / "missing/libzebtrk.so"});
  EXPECT_EQ(run.status, 7);
  EXPECT_TRUE(Contains(run.err, "cannot load the plug-in library " + home_ / "missing/libzebtrk.so")) << run.err;
  run = Cli({"ls"}, {"ZEBTRK_PLUGIN=" ZEB_LIBRARY});
  EXPECT_EQ(run.status, 7);
  EXPECT_TRUE(Contains(run.err, "is not the zebtrk plug-in: it has no zebtrk_Load")) << run.err;
}

}  // namespace
