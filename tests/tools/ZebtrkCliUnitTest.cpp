// Unit tests of the zebtrk command's building blocks that need no plug-in:
// frame ranges, name suggestions, JSON text, the preview PNG, the preview
// stretch, argument splitting, output files and the output folder check, the
// bounded call, the encoder pool's order, escaped names and display widths.
#include <gtest/gtest.h>
#include <png.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/TempDir.h"
#include "tests/tools/CliTestSupport.h"
#include "tools/zebtrk/ArgumentList.h"
#include "tools/zebtrk/BoundedCall.h"
#include "tools/zebtrk/EncoderPool.h"
#include "tools/zebtrk/CliError.h"
#include "tools/zebtrk/FrameExporter.h"
#include "tools/zebtrk/FrameRange.h"
#include "tools/zebtrk/JsonWriter.h"
#include "tools/zebtrk/MovieCatalog.h"
#include "tools/zebtrk/NameMatcher.h"
#include "tools/zebtrk/OutputFile.h"
#include "tools/zebtrk/PngWriter.h"
#include "tools/zebtrk/PreviewRenderer.h"
#include "tools/zebtrk/ProgressBar.h"
#include "tools/zebtrk/TextFormat.h"
#include "tools/zebtrk/TiffStack.h"

namespace {

using testsupport::TempDir;

// The exit code and message of the CliError that `f` throws; code -1 when
// it throws none.
template <class F>
std::pair<int, std::string> ErrorOf(F f) {
  try {
    f();
  } catch (const CliError& error) {
    return {error.code(), error.what()};
  }
  return {-1, ""};
}

TEST(FrameRangeTest, ParsesSlicesWithinTheMovieAndRejectsTheRest) {
  struct {
    const char* text;
    unsigned long first, end;
  } cases[] = {
      {":", 0, 10},  {"0:10", 0, 10}, {"3:", 3, 10}, {":4", 0, 4},
      {"2:5", 2, 5}, {"9", 9, 10},    {"0", 0, 1},   {"9:10", 9, 10},
  };
  for (const auto& c : cases) {
    const FrameRange range = FrameRange::Parse(c.text, 10);
    EXPECT_EQ(range.first, c.first) << c.text;
    EXPECT_EQ(range.end, c.end) << c.text;
  }
  const char* bad[] = {"5:5", "6:2",   "10", "10:",  "0:11", ":0",  "-1:3",
                       "a:b", "1:2:3", "",   " 1:2", "+1",   "1.5", "99999999999999999999"};
  for (const char* text : bad) {
    const auto error = ErrorOf([&] { FrameRange::Parse(text, 10); });
    EXPECT_EQ(error.first, kExitUsage) << text;
    EXPECT_NE(error.second.find("bad frame range"), std::string::npos) << text;
    EXPECT_NE(error.second.find("the movie has 10 frames"), std::string::npos) << error.second;
  }
}

TEST(NameMatcherTest, SuggestsCloseNamesClosestFirst) {
  EXPECT_EQ(NameMatcher::Distance("kitten", "sitting"), 3u);
  EXPECT_EQ(NameMatcher::Distance("", "abc"), 3u);
  const std::vector<std::string> names = {"12-Run A", "13-Test", "7-Fire", "12-Run B", "140-Highway Night"};
  EXPECT_EQ(NameMatcher::Suggest("12-Run C", names), (std::vector<std::string>{"12-Run A", "12-Run B"}));
  EXPECT_EQ(NameMatcher::Suggest("13-test", names), (std::vector<std::string>{"13-Test"}));
  EXPECT_EQ(NameMatcher::Suggest("Highway", names), (std::vector<std::string>{"140-Highway Night"}));
  EXPECT_TRUE(NameMatcher::Suggest("completely different", names).empty());
  EXPECT_EQ(NameMatcher::Suggest("1", names, 2).size(), 2u);  // contained in several; limited
}

TEST(JsonWriterTest, EscapesStringsAndPlacesCommas) {
  struct {
    std::string in, out;
  } cases[] = {
      {"plain", "\"plain\""},
      {"q\"b\\s/", "\"q\\\"b\\\\s/\""},
      {"\n\t\r\b\f", "\"\\n\\t\\r\\b\\f\""},
      {std::string("\x01\x1f\x7f", 3), "\"\\u0001\\u001f\\u007f\""},
      {std::string("nul\0x", 5), "\"nul\\u0000x\""},
      {"caf\xc3\xa9 \xe2\x82\xac", "\"caf\xc3\xa9 \xe2\x82\xac\""},  // UTF-8 kept
      {"bad\xff\xc3", "\"bad\\ufffd\\ufffd\""},                      // not UTF-8
      {"\xed\xa0\x80", "\"\\ufffd\\ufffd\\ufffd\""},                 // surrogate
      {"\xc0\xaf", "\"\\ufffd\\ufffd\""},                            // overlong
  };
  for (const auto& c : cases) EXPECT_EQ(JsonWriter::Quote(c.in), c.out);

  JsonWriter json;
  json.BeginArray();
  json.BeginObject();
  json.Key("a");
  json.Number(1);
  json.Key("b");
  json.BeginArray();
  json.String("x");
  json.Null();
  json.EndArray();
  json.EndObject();
  json.BeginObject();
  json.EndObject();
  json.EndArray();
  EXPECT_EQ(json.text(), "[{\"a\":1,\"b\":[\"x\",null]},{}]");
}

// 16-bit gray PGM and PNG files are checked sample by sample against the
// movie in ZebtrkCliTest (ExportedFramesEqualTheFrameData); the preview's
// colours here.
TEST(ImageWriterTest, PreviewPngHoldsTheRenderedColours) {
  const uint8_t frame[] = {0x34, 0x12, 0xFF, 0x00, 0x00, 0xFF, 0x01, 0x00, 0xCD, 0xAB, 0xFF, 0xFF};
  TempDir dir;
  std::string error;
  const std::vector<uint8_t> rgb = PreviewRenderer::Render(frame, 3, 2);
  std::string bytes;
  ASSERT_TRUE(PngWriter::EncodeRgb8(rgb.data(), 3, 2, bytes, error)) << error;
  ASSERT_TRUE(testsupport::WriteFile(dir / "colour.png", bytes));
  clitest::SPng png;
  ASSERT_TRUE(clitest::ReadPng(dir / "colour.png", png));
  EXPECT_EQ(png.width, 3u);
  EXPECT_EQ(png.height, 2u);
  EXPECT_EQ(png.bitDepth, 8);
  EXPECT_EQ(png.colourType, PNG_COLOR_TYPE_RGB);
  EXPECT_EQ(png.bytes, rgb);
}

TEST(PreviewRendererTest, StretchIgnoresOutliersAndWarmIsBright) {
  // 1000 samples from 1000 to 1999 plus a few extreme pixels.
  std::vector<uint16_t> samples;
  for (int i = 0; i < 1000; ++i) samples.push_back(static_cast<uint16_t>(1000 + i));
  samples[0] = 0;
  samples[1] = 65535;
  const PreviewRenderer::SStretch stretch = PreviewRenderer::Percentiles(samples.data(), samples.size());
  EXPECT_GE(stretch.low, 1005);
  EXPECT_LE(stretch.low, 1015);
  EXPECT_GE(stretch.high, 1985);
  EXPECT_LE(stretch.high, 1995);

  const uint16_t flat[4] = {500, 500, 500, 500};
  const PreviewRenderer::SStretch even = PreviewRenderer::Percentiles(flat, 4);
  EXPECT_EQ(even.low, 500);
  EXPECT_EQ(even.high, 501);
  const uint16_t top[2] = {65535, 65535};
  EXPECT_LT(PreviewRenderer::Percentiles(top, 2).low, PreviewRenderer::Percentiles(top, 2).high);

  // The ramp's brightness rises from end to end.
  int previous = -1;
  for (int p = 0; p < 256; p += 15) {
    uint8_t rgb[3];
    PreviewRenderer::Colour(static_cast<uint8_t>(p), rgb);
    const int luma = 299 * rgb[0] + 587 * rgb[1] + 114 * rgb[2];
    EXPECT_GT(luma, previous) << p;
    previous = luma;
  }
  uint8_t last[3];
  PreviewRenderer::Colour(255, last);

  // A warm spot in a cool frame: brightest colour at the spot.
  std::vector<uint8_t> frame(10 * 10 * 2);
  for (size_t i = 0; i < 100; ++i) {
    const uint16_t value = i == 55 ? 4000 : static_cast<uint16_t>(3000 + i % 7);
    frame[2 * i] = static_cast<uint8_t>(value & 0xFF);
    frame[2 * i + 1] = static_cast<uint8_t>(value >> 8);
  }
  const std::vector<uint8_t> rgb = PreviewRenderer::Render(frame.data(), 10, 10);
  EXPECT_EQ(rgb[55 * 3], last[0]);
  EXPECT_EQ(rgb[55 * 3 + 1], last[1]);
}

TEST(ArgumentListTest, SplitsOptionsAndRejectsMistakes) {
  const ArgumentList a("export", {"12-Run A", "--frames", "1:3", "out", "--preview", "--format=pgm"}, {"--preview"},
                       {"--frames", "--format"});
  EXPECT_EQ(a.positional(), (std::vector<std::string>{"12-Run A", "out"}));
  EXPECT_EQ(a.Value("--frames"), "1:3");
  EXPECT_EQ(a.Value("--format"), "pgm");
  EXPECT_TRUE(a.Has("--preview"));
  EXPECT_FALSE(a.Has("--help"));
  const ArgumentList b("rm", {"-h", "--", "--odd-name", "-"}, {}, {});
  EXPECT_TRUE(b.Has("--help"));
  EXPECT_EQ(b.positional(), (std::vector<std::string>{"--odd-name", "-"}));

  struct {
    std::vector<std::string> args;
    const char* message;
  } bad[] = {
      {{"--nope"}, "unknown option --nope"},
      {{"--frames"}, "--frames needs a value"},
      {{"--preview=yes"}, "--preview takes no value"},
  };
  for (const auto& c : bad) {
    const auto error = ErrorOf([&] { ArgumentList("export", c.args, {"--preview"}, {"--frames"}); });
    EXPECT_EQ(error.first, kExitUsage);
    EXPECT_NE(error.second.find(c.message), std::string::npos) << error.second;
  }
  const auto error = ErrorOf([&] { a.ExpectPositional(3, 3, "zebtrk export NAME OUTDIR"); });
  EXPECT_EQ(error.first, kExitUsage);
  EXPECT_NE(error.second.find("missing argument; usage: zebtrk export NAME OUTDIR"), std::string::npos);
}

TEST(MovieCatalogTest, NamesAndFilters) {
  for (const char* path : {"trk:///12-Run A", "trk://12-Run A", "//12-Run A", "12-Run A"}) {
    EXPECT_EQ(MovieCatalog::BareName(path), "12-Run A") << path;
  }
  Movie movie;
  movie.name = "12-Run A-2";
  EXPECT_EQ(movie.ownName(), "Run A-2");
  struct {
    const char* filter;
    bool matches;
  } cases[] = {{"", true},     {"Run*", true},  {"12-*", true},  {"*A-2", true},
               {"Run", false}, {"13-*", false}, {"run*", false}, {"12-Run ?-2", true}};
  for (const auto& c : cases) EXPECT_EQ(MovieCatalog::Matches(movie, c.filter), c.matches) << c.filter;
}

TEST(OutputFileTest, OnlyCommittedFilesAppear) {
  TempDir dir;
  const std::string path = dir / "frame.pgm";
  {
    OutputFile file(path);
    file.Write("abc", 3);
    EXPECT_EQ(access((path + ".part").c_str(), F_OK), 0);
  }
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  EXPECT_NE(access((path + ".part").c_str(), F_OK), 0);
  {
    OutputFile file(path);
    file.Write("abc", 3);
    file.Commit();
  }
  EXPECT_EQ(testsupport::ReadFile(path), "abc");
  EXPECT_NE(access((path + ".part").c_str(), F_OK), 0);
  {
    // Without replace an existing file stays; the temporary goes.
    OutputFile file(path);
    file.Write("new", 3);
    const auto exists = ErrorOf([&] { file.Commit(false); });
    EXPECT_EQ(exists, std::make_pair(int(kExitOutput), path + " exists already (--force replaces it)"));
  }
  EXPECT_EQ(testsupport::ReadFile(path), "abc");
  {
    // What a command that must end at once removes.
    OutputFile a(dir / "a"), b(dir / "b");
    OutputFile::RemoveUnfinished();
    EXPECT_NE(access((dir / "a.part").c_str(), F_OK), 0);
    EXPECT_NE(access((dir / "b.part").c_str(), F_OK), 0);
  }

  const auto missing = ErrorOf([&] { OutputFile(dir / "no/such/folder/x.png"); });
  EXPECT_EQ(missing.first, kExitOutput);
  EXPECT_NE(missing.second.find("cannot create"), std::string::npos);
}

TEST(OutputFileTest, PrepareFolderMakesMissingFoldersAndRefusesFiles) {
  TempDir dir;
  FrameExporter::PrepareFolder(dir / "a/b/c");
  struct stat status {};
  ASSERT_EQ(stat((dir / "a/b/c").c_str(), &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
  ASSERT_TRUE(testsupport::WriteFile(dir / "file", "x"));
  for (const std::string& folder : {dir / "file", dir / "file/sub"}) {
    const auto error = ErrorOf([&] { FrameExporter::PrepareFolder(folder); });
    EXPECT_EQ(error.first, kExitOutput) << folder;
    EXPECT_NE(error.second.find("cannot write to the output folder " + folder), std::string::npos) << error.second;
  }
  EXPECT_EQ(FrameExporter::FrameFileName("12-Run/A", 7, ".png"), "12-Run_A-000007.png");
  EXPECT_EQ(FrameExporter::FrameFileName("..", 1234567, ".pgm"), "movie..-1234567.pgm");
  EXPECT_EQ(FrameExporter::StackFileName("12-Run/A", FrameRange{0, 10}, 10, ".tif"), "12-Run_A.tif");
  EXPECT_EQ(FrameExporter::StackFileName("12-Run A", FrameRange{2, 5}, 10, ".npy"), "12-Run A-frames-000002-000004.npy");
  // Classic TIFF up to 4 GiB less 64 MiB of 640x512 pages and their tags.
  EXPECT_FALSE(TiffStack::NeedsBigTiff(640, 512, 6446));
  EXPECT_TRUE(TiffStack::NeedsBigTiff(640, 512, 6447));
}

TEST(TextFormatTest, SizesDurationsAndProgress) {
  EXPECT_EQ(TextFormat::Size(0), "0 B");
  EXPECT_EQ(TextFormat::Size(1023), "1023 B");
  EXPECT_EQ(TextFormat::Size(1536), "1.5 KiB");
  EXPECT_EQ(TextFormat::Size(61440000), "58.6 MiB");
  EXPECT_EQ(TextFormat::Duration(0), "0.000 s");
  EXPECT_EQ(TextFormat::Duration(60210988), "1 min 0.210 s");
  EXPECT_EQ(TextFormat::Duration(7201000000), "2 h 0 min 1.000 s");
  EXPECT_EQ(TextFormat::Time(0), "-");
  EXPECT_EQ(TextFormat::IsoTime(116444736000000000L + 2500), "1970-01-01T00:00:00.000250Z");
  EXPECT_EQ(TextFormat::TiffTime(133590240000000000L), "2024:05:01 08:00:00");
  EXPECT_EQ(TextFormat::Rate(333667), "29.97 Hz");
  EXPECT_EQ(ProgressBar::Line("export x", 5, 10, 10), "export x  [#####.....]  5/10 frames");
  EXPECT_EQ(ProgressBar::Line("e", 12, 10, 4), "e  [####]  10/10 frames");
  EXPECT_EQ(ProgressBar::Line("e", 50, 200, 4, 2.0), "e  [#...]  50/200 frames  25 frames/s  0:06 left");
}

TEST(TextFormatTest, NamesAreEscapedAndMeasuredInColumns) {
  struct {
    std::string name, shown;
    size_t columns;
  } cases[] = {
      {"Run A", "Run A", 5},
      {"a\x1b[31mred\nb\tc", "a\\x1b[31mred\\nb\\tc", 18},
      {"caf\xc3\xa9", "caf\xc3\xa9", 4},                         // é: one column, two bytes
      {"e\xcc\x81", "e\xcc\x81", 1},                             // e + combining acute
      {"\xe6\x97\xa5\xe6\x9c\xac", "\xe6\x97\xa5\xe6\x9c\xac", 4},  // two wide characters
      {"\xc2\x9b" "1m", "\\xc2\\x9b1m", 10},                     // C1 control (CSI)
      {"bad\xff\xc3", "bad\\xff\\xc3", 11},                      // not UTF-8
      {"\xed\xa0\x80", "\\xed\\xa0\\x80", 12},                   // a surrogate
  };
  for (const auto& c : cases) {
    EXPECT_EQ(TextFormat::Escaped(c.name), c.shown) << c.shown;
    EXPECT_EQ(TextFormat::DisplayWidth(TextFormat::Escaped(c.name)), c.columns) << c.shown;
  }
}

TEST(MovieTest, DurationFromTheFramePeriodWhenThePropertyWraps) {
  Movie movie;
  movie.frames = 3;
  movie.durationUs = 18446712451312518279ul;  // across New Year: end - start wrapped
  unsigned long us = 0;
  EXPECT_FALSE(movie.Duration(us));
  movie.hasTiming = true;
  movie.firstFrameTicks = 133485407990000000L;  // 2023-12-31 23:59:59 UTC
  movie.framePeriodTicks = 10000000;
  ASSERT_TRUE(movie.Duration(us));
  EXPECT_EQ(us, 2000000u);
  EXPECT_EQ(TextFormat::IsoTime(movie.endTicks()), "2024-01-01T00:00:01.000000Z");
}

TEST(BoundedCallTest, ReturnsTimesOutAndCancels) {
  int pipeFds[2];
  ASSERT_EQ(pipe(pipeFds), 0);
  BoundedCall bound(std::chrono::milliseconds(1000), pipeFds[0], std::chrono::milliseconds(500));
  int value = 0;
  EXPECT_EQ(bound.Run([&] { value = 1; }), BoundedCall::EOutcome::kDone);
  EXPECT_EQ(value, 1);
  EXPECT_EQ(ErrorOf([&] { bound.Run([] { throw CliError(kExitFailure, "inside"); }); }),
            std::make_pair(int(kExitFailure), std::string("inside")));
  // Nested: runs under the outer bound, no deadlock.
  EXPECT_EQ(bound.Run([&] { bound.Run([&] { value = 2; }); }), BoundedCall::EOutcome::kDone);
  EXPECT_EQ(value, 2);

  auto release = std::make_shared<std::atomic<bool>>(false);
  auto blocked = [release] {
    while (!*release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  };
  EXPECT_EQ(bound.Run(blocked), BoundedCall::EOutcome::kTimedOut);
  EXPECT_EQ(bound.abandoned(), 1u);
  EXPECT_EQ(bound.Run([&] { value = 3; }), BoundedCall::EOutcome::kDone);  // a new worker
  EXPECT_EQ(value, 3);
  ASSERT_EQ(write(pipeFds[1], "x", 1), 1);
  EXPECT_EQ(bound.Run(blocked), BoundedCall::EOutcome::kCancelled);
  // A call that returns within the grace period after the cancel is done.
  EXPECT_EQ(bound.Run([] { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }),
            BoundedCall::EOutcome::kDone);
  *release = true;
  close(pipeFds[0]);
  close(pipeFds[1]);
}

TEST(EncoderPoolTest, ResultsComeInSubmissionOrderWithinTheCapacity) {
  EncoderPool pool(3, 4);
  std::vector<std::string> taken;
  for (int n = 0; n < 20; ++n) {
    while (pool.full()) taken.push_back(pool.Take()[0]);
    pool.Submit([n] {
      std::this_thread::sleep_for(std::chrono::microseconds((20 - n) % 7 * 300));
      if (n == 17) throw CliError(kExitOutput, "job 17");
      return std::vector<std::string>{std::to_string(n)};
    });
  }
  while (taken.size() < 17) taken.push_back(pool.Take()[0]);
  EXPECT_EQ(ErrorOf([&] { pool.Take(); }).second, "job 17");
  while (!pool.empty()) taken.push_back(pool.Take()[0]);
  ASSERT_EQ(taken.size(), 19u);
  for (int n = 0; n < 19; ++n) EXPECT_EQ(taken[n], std::to_string(n < 17 ? n : n + 1));
}

}  // namespace
