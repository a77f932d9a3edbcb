// End to end: the zebtrk command against the simulator (a child zebtrksvc on
// a temporary drive) and in emulator mode (HOME in a temporary folder), on
// movies written here with the framework's raw imager writer, so every pixel
// is known. Uses the fixed service socket: marked SERVICE.
#include <gtest/gtest.h>
#include <png.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <dirent.h>

#include <string>
#include <vector>

#include <zeb/CLocalFileSystem.h>
#include <zeb/file/CRawImagerWriter.h>

#include "tests/support/TempDir.h"
#include "tests/tools/CliTestSupport.h"

namespace {

using clitest::SRun;
using testsupport::ReadFile;
using testsupport::TempDir;

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

std::vector<std::string> FilesIn(const std::string& folder) {
  std::vector<std::string> names;
  DIR* dir = opendir(folder.c_str());
  if (!dir) return names;
  while (dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(dir);
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
    ASSERT_EQ(clitest::Run({"/bin/mkdir", "-p", folder_}).status, 0);
    WriteMovies(folder_);
    if (!emulator_) StartService(drive_.path());
  }

  void StartService(const std::string& drive) {
    ASSERT_NE(access(kSocket.c_str(), F_OK), 0) << kSocket << " exists: is a service running?";
    service_ = std::make_unique<clitest::Background>(std::vector<std::string>{ZEBTRKSVC, "--drive", drive},
                                                     std::vector<std::string>{}, home_ / "service.log");
    ASSERT_TRUE(clitest::WaitForSocket(kSocket, 30)) << ReadFile(home_ / "service.log");
  }

  std::vector<std::string> Env() const {
    return {"HOME=" + home_.path(), emulator_ ? "ZEBTRK_ENABLE_EMULATOR=1" : "ZEBTRK_ENABLE_EMULATOR", "ZEBTRK_PLUGIN"};
  }

  SRun Cli(std::vector<std::string> args) const {
    args.insert(args.begin(), ZEBTRK_CLI);
    return clitest::Run(args, Env());
  }

  std::string Dat(const std::string& stem) const { return ReadFile(folder_ + "/" + stem + ".dat"); }

  TempDir home_;
  TempDir drive_;
  TempDir out_;
  bool emulator_ = false;
  std::string folder_;
  std::unique_ptr<clitest::Background> service_;
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

  run = Cli({"ls", "--json"});
  ASSERT_EQ(run.status, 0) << run.err;
  clitest::JsonValue json;
  std::string error;
  ASSERT_TRUE(clitest::ParseJson(run.out, json, error)) << error << "\n" << run.out;
  ASSERT_EQ(json.type, clitest::JsonValue::EType::kArray);
  ASSERT_EQ(json.array.size(), 3u);
  for (const SMovieSpec& spec : kMovies) {
    const clitest::JsonValue* found = nullptr;
    for (const clitest::JsonValue& movie : json.array) {
      if (movie.object.at("name").string == spec.stem) found = &movie;
    }
    ASSERT_NE(found, nullptr) << spec.stem << " not in " << run.out;
    EXPECT_EQ(found->object.at("frames").number, spec.frames);
    EXPECT_EQ(found->object.at("width").number, spec.width);
    EXPECT_EQ(found->object.at("height").number, spec.height);
    EXPECT_EQ(found->object.at("size").number, spec.width * spec.height * 2.0 * spec.frames);
    EXPECT_EQ(found->object.at("path").string, "trk:///" + spec.stem);
    // Frames 400000 ticks apart: (frames - 1) x 40 ms.
    EXPECT_EQ(found->object.at("durationMicroseconds").number, (spec.frames - 1) * 40000.0) << spec.stem;
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

  // PGM, frames 1 and 2: header and big-endian samples of those frames.
  const unsigned int frameBytes = 16 * 12 * 2;
  const std::string runA = Dat("1-Run A");
  run = Cli({"export", "1-Run A", out_ / "pgm", "--frames", "1:3", "--format=pgm"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(FilesIn(out_ / "pgm"), (std::vector<std::string>{"1-Run A-000001.pgm", "1-Run A-000002.pgm"}));
  for (unsigned int frame = 1; frame < 3; ++frame) {
    const std::string pgm = ReadFile(out_ / ("pgm/1-Run A-00000" + std::to_string(frame) + ".pgm"));
    const std::string header = "P5\n16 12\n65535\n";
    ASSERT_EQ(pgm.size(), header.size() + frameBytes);
    EXPECT_EQ(pgm.substr(0, header.size()), header);
    for (unsigned int i = 0; i < frameBytes; i += 2) {
      ASSERT_EQ(pgm[header.size() + i], runA[frame * frameBytes + i + 1]) << frame << " " << i;
      ASSERT_EQ(pgm[header.size() + i + 1], runA[frame * frameBytes + i]) << frame << " " << i;
    }
  }

  // PNG, frame 3 alone, with a preview.
  run = Cli({"export", "1-Run A", out_ / "png", "--frames", "3", "--preview"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(FilesIn(out_ / "png"), (std::vector<std::string>{"1-Run A-000003-preview.png", "1-Run A-000003.png"}));
  clitest::SPng png;
  ASSERT_TRUE(clitest::ReadPng(out_ / "png/1-Run A-000003.png", png));
  EXPECT_EQ(png.width, 16u);
  EXPECT_EQ(png.height, 12u);
  EXPECT_EQ(png.bitDepth, 16);
  EXPECT_EQ(png.colourType, PNG_COLOR_TYPE_GRAY);
  ASSERT_EQ(png.bytes.size(), frameBytes);
  for (unsigned int i = 0; i < frameBytes; i += 2) {
    const unsigned int value = png.bytes[i] << 8 | png.bytes[i + 1];
    ASSERT_EQ(value, Pixel(0, 3, i / 2)) << i;
  }
  ASSERT_TRUE(clitest::ReadPng(out_ / "png/1-Run A-000003-preview.png", png));
  EXPECT_EQ(png.width, 16u);
  EXPECT_EQ(png.bitDepth, 8);
  EXPECT_EQ(png.colourType, PNG_COLOR_TYPE_RGB);
  EXPECT_TRUE(Contains(run.out, "-preview.png")) << run.out;
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
  const SRun full = clitest::Run({"/bin/sh", "-c", "exec \"$0\" ls >/dev/full", ZEBTRK_CLI}, Env());
  EXPECT_EQ(full.status, 1);
  EXPECT_TRUE(Contains(full.err, "cannot write to standard output")) << full.err;
}

TEST_P(ZebtrkCliTest, RemoveShowsTheReportedChangeAndWatchSeesIt) {
  clitest::Background watch({ZEBTRK_CLI, "watch", "--count", "1"}, Env(), out_ / "watch.log");
  ASSERT_TRUE(clitest::WaitForText(out_ / "watch.log", "watching", 30)) << ReadFile(out_ / "watch.log");

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
  clitest::Background watch({ZEBTRK_CLI, "watch"}, Env(), out_ / "watch.log");
  ASSERT_TRUE(clitest::WaitForText(out_ / "watch.log", "watching", 30)) << ReadFile(out_ / "watch.log");
  EXPECT_EQ(watch.Kill(SIGINT), 0);
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
    return clitest::Run(args, env);
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
    // A socket file nobody listens on, as a crashed service leaves it.
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kSocket.c_str());
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    close(fd);
    run = Cli({"info", "1-Run A"});
    unlink(kSocket.c_str());
    EXPECT_EQ(run.status, 3);
    EXPECT_TRUE(Contains(run.err, "/tmp/zebtrksvc is left over from a service that stopped")) << run.err;
  }

  {
    // A service whose drive folder does not exist: no drive.
    clitest::Background service({ZEBTRKSVC, "--drive", home_ / "no-drive"}, {}, home_ / "service.log");
    ASSERT_TRUE(clitest::WaitForSocket(kSocket, 30)) << ReadFile(home_ / "service.log");
    run = Cli({"ls"});
    EXPECT_EQ(run.status, 4) << run.err;
    EXPECT_TRUE(Contains(run.err, "no drive")) << run.err;
    run = Cli({"status"});
    EXPECT_EQ(run.status, 4);
    EXPECT_TRUE(Contains(run.out, "drive:    not present")) << run.out;

    // watch does not need a drive; it ends when the service goes away.
    clitest::Background watch({ZEBTRK_CLI, "watch"}, {"HOME=" + home_.path(), "ZEBTRK_ENABLE_EMULATOR"},
                              home_ / "watch.log");
    ASSERT_TRUE(clitest::WaitForText(home_ / "watch.log", "watching", 30)) << ReadFile(home_ / "watch.log");
    EXPECT_TRUE(Contains(ReadFile(home_ / "watch.log"), "no drive is present; waiting for one"));
    EXPECT_EQ(service.Kill(SIGTERM), 0);
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
