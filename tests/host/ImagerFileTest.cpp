// The raw imager file (open, frames, time stamps, rejection of information
// that does not describe the data), its writer, and the factory.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include <zeb/CLocalFileSystem.h>
#include <zeb/CMemFile.h>
#include <zeb/file/CImagerFileFactory.h>
#include <zeb/file/CRawImagerFile.h>
#include <zeb/file/CRawImagerWriter.h>

#include "tests/support/ResourceSnapshot.h"
#include "tests/support/TempDir.h"

namespace {

using zeb::CDateTime;
using zeb::CMemFile;
using zeb::CString;
using zeb::IFile;
using zeb::TSharedPtr;
using zeb::file::CRawImagerFile;
using zeb::file::CRawImagerWriter;
using zeb::file::SRawImagerInfo;
using zeb::reduce::CFrameInfoReduceObject;
using zeb::reduce::CReduceObjectArray;

constexpr long kStart = 116444736000000000L + 1000L * 10000000L;  // 1970-01-01 00:16:40

SRawImagerInfo Layout(unsigned int width, unsigned int height, bool timing) {
  SRawImagerInfo layout;
  layout.width = width;
  layout.height = height;
  layout.hasTiming = timing;
  layout.firstFrameTicks = timing ? kStart : 0;
  layout.framePeriodTicks = timing ? 333333 : 0;
  return layout;
}

// Frame f, pixel p holds f * 1000 + p.
std::vector<unsigned short> Pixels(unsigned int frame, unsigned int count) {
  std::vector<unsigned short> pixels(count);
  for (unsigned int p = 0; p < count; ++p) pixels[p] = static_cast<unsigned short>(frame * 1000 + p);
  return pixels;
}

TSharedPtr<IFile> Text(const std::string& text) {
  return CMemFile::Create(text.data(), text.size());
}

TEST(RawImagerFileTest, WrittenPairOpensWithFramesAndTimeStamps) {
  testsupport::ResourceSnapshot before;
  {
    testsupport::TempDir dir;
    const CString path = (dir / "12-Run A.dat").c_str();
    CRawImagerWriter writer;
    ASSERT_TRUE(writer.Create(zeb::fileSystem(), path, Layout(4, 3, true)));
    for (unsigned int f = 0; f < 5; ++f) ASSERT_TRUE(writer.PutFrame(Pixels(f, 12).data()));
    ASSERT_TRUE(writer.Finish());
    EXPECT_EQ(testsupport::ReadFile(dir / "12-Run A.dat").size(), 5u * 4 * 3 * 2);

    CRawImagerFile raw;
    ASSERT_TRUE(raw.Open(zeb::fileSystem(), path, 0));
    EXPECT_STREQ(raw.GetName(), "Raw Imager File");
    EXPECT_EQ(raw.xPixels(), 4u);
    EXPECT_EQ(raw.yPixels(), 3u);
    EXPECT_EQ(raw.nFrames(), 5u);
    EXPECT_STREQ(raw.GetFilename(1).c_str(), (dir / "12-Run A.info").c_str());
    EXPECT_EQ(raw.GetNumAvailablePresets(), 1);

    std::vector<unsigned short> frame(12);
    unsigned char preset = 9;
    CReduceObjectArray objects;
    ASSERT_TRUE(raw.GetFrame(frame.data(), 3, preset, objects));
    EXPECT_EQ(frame, Pixels(3, 12));
    EXPECT_EQ(preset, 0);
    EXPECT_FALSE(raw.GetFrame(frame.data(), 5, preset, objects));

    // Time stamps of the last frame (the texts a metadata store makes of the
    // first and last are checked with the emulator's entry metadata).
    ASSERT_TRUE(raw.GetReduceObjectsForFrame(raw.nFrames() - 1, preset, objects));
    EXPECT_EQ(objects.size(), 1u);  // the array was replaced, not appended to
    TSharedPtr<CFrameInfoReduceObject> last = objects.GetFrameInfo(preset, false);
    ASSERT_TRUE(last);
    EXPECT_EQ(last->frame(), 4u);
    EXPECT_EQ(last->timestamp().ticks(), kStart + 4 * 333333);

    const unsigned short* pixels = static_cast<const unsigned short*>(raw.GetFrame(4u));
    ASSERT_NE(pixels, nullptr);
    EXPECT_EQ(pixels[11], 4011);

    zeb::file::IImagerFile::SExtractOptions options{1, 3, 2, 0};
    const CString part = (dir / "part.dat").c_str();
    ASSERT_TRUE(raw.Extract(zeb::fileSystem(), part, options));
    CRawImagerFile extracted;
    ASSERT_TRUE(extracted.Open(zeb::fileSystem(), part, 0));
    EXPECT_EQ(extracted.nFrames(), 2u);
    ASSERT_TRUE(extracted.GetFrame(frame.data(), 1, preset, objects));
    EXPECT_EQ(frame, Pixels(3, 12));
    EXPECT_EQ(objects.GetFrameInfo(0, false)->timestamp(), last->timestamp() - CDateTime::NewTimestamp(333333, 0));

    raw.Close();
    EXPECT_EQ(raw.nFrames(), 0u);
    EXPECT_FALSE(raw.GetReduceObjectsForFrame(0, preset, objects));
  }
  EXPECT_EQ(before.Leaks(), "");
}

TEST(RawImagerFileTest, FramesWithoutTimingCarryNoFrameInformation) {
  TSharedPtr<CMemFile> data = CMemFile::Create();
  TSharedPtr<CMemFile> info = CMemFile::Create();
  CRawImagerWriter writer;
  ASSERT_TRUE(writer.Create(data, info, Layout(2, 2, false)));
  ASSERT_TRUE(writer.PutFrame(Pixels(0, 4).data()));
  ASSERT_TRUE(writer.Finish());
  CRawImagerFile raw;
  ASSERT_TRUE(raw.Open(data, info, 0));
  unsigned char preset = 1;
  CReduceObjectArray objects;
  ASSERT_TRUE(raw.GetReduceObjectsForFrame(0, preset, objects));
  EXPECT_FALSE(objects.GetFrameInfo(preset, false));
  EXPECT_TRUE(objects.GetFrameInfo(preset, true));  // made on request
  EXPECT_EQ(objects.size(), 1u);
}

TEST(RawImagerFileTest, RejectsInformationThatDoesNotDescribeTheData) {
  const std::string good =
      "[raw]\nversion=1\nwidth=2\nheight=3\nframes=2\npixelFormat=uint16le\n"
      "firstFrameTime=1\nframePeriod=2\n";
  const std::string dataBytes(2 * 3 * 2 * 2, '\x01');
  {
    CRawImagerFile raw;
    EXPECT_TRUE(raw.Open(Text(dataBytes), Text(good), 0));
  }
  struct SCase {
    const char* why;
    std::string info;
    std::string data;
  };
  const SCase cases[] = {
      {"data one byte short", good, dataBytes.substr(1)},
      {"data one frame long", good, dataBytes + dataBytes.substr(12)},
      {"empty data", good, ""},
      {"zero width", "[raw]\nwidth=0\nheight=3\nframes=2\npixelFormat=uint16le\n", ""},
      {"absurd height", "[raw]\nwidth=2\nheight=70000\nframes=2\npixelFormat=uint16le\n", dataBytes},
      {"no frames", "[raw]\nwidth=2\nheight=3\nframes=0\npixelFormat=uint16le\n", ""},
      {"width not a number", "[raw]\nwidth=2x\nheight=3\nframes=2\npixelFormat=uint16le\n", dataBytes},
      {"frames missing", "[raw]\nwidth=2\nheight=3\npixelFormat=uint16le\n", dataBytes},
      {"other pixel format", "[raw]\nwidth=2\nheight=3\nframes=2\npixelFormat=uint8\n", dataBytes},
      {"version 2", "[raw]\nversion=2\nwidth=2\nheight=3\nframes=2\npixelFormat=uint16le\n", dataBytes},
      {"half a timing", "[raw]\nwidth=2\nheight=3\nframes=2\npixelFormat=uint16le\nframePeriod=1\n", dataBytes},
      {"time not a number", "[raw]\nwidth=2\nheight=3\nframes=2\npixelFormat=uint16le\nfirstFrameTime=-1\nframePeriod=1\n", dataBytes},
      {"not INI at all", std::string("\x00\xff garbage", 10), dataBytes},
  };
  for (const SCase& c : cases) {
    CRawImagerFile raw;
    EXPECT_FALSE(raw.Open(Text(c.data), Text(c.info), 0)) << c.why;
    EXPECT_EQ(raw.nFrames(), 0u) << c.why;
  }
  CRawImagerFile raw;
  EXPECT_FALSE(raw.Open(Text(dataBytes), TSharedPtr<IFile>(), 0));
  EXPECT_FALSE(raw.Open(nullptr, CString("/x.dat"), 0));
  testsupport::TempDir dir;
  EXPECT_FALSE(raw.Open(zeb::fileSystem(), (dir / "missing.dat").c_str(), 0));
}

// A type of a plug-in, to watch Create and Destroy.
class CTestImagerFile : public CRawImagerFile {
 public:
  const char* GetName() override { return "Test Imager File"; }
  static bool CanOpen(zeb::IFileSystem*, const CString& path, unsigned int) {
    return path.StartsWith("test:");
  }
};

TEST(ImagerFileFactoryTest, RegistersFindsCreatesAndDestroys) {
  zeb::file::CImagerFileFactory* factory = zeb::file::imagerFileFactory();
  EXPECT_TRUE(factory->Register<CTestImagerFile>("Test Imager File", &CTestImagerFile::CanOpen,
                                                 nullptr, nullptr, nullptr, nullptr));
  zeb::file::CImagerFileFactory::CType type;
  ASSERT_TRUE(factory->FindType("Test Imager File", type));
  zeb::file::IImagerFile* made = type.Create();
  ASSERT_NE(made, nullptr);
  EXPECT_STREQ(made->GetName(), "Test Imager File");
  type.Destroy(made);  // null and other types: checked with the plug-in's type

  ASSERT_TRUE(factory->FindTypeForPath(zeb::fileSystem(), "test:x", 0, type));
  EXPECT_STREQ(type.name.c_str(), "Test Imager File");
  EXPECT_FALSE(type.CanOpenFile(TSharedPtr<IFile>(), 0));
  EXPECT_FALSE(factory->FindTypeForPath(zeb::fileSystem(), "/no/such/file.dat", 0, type));
  EXPECT_FALSE(factory->FindType("Unknown", type));
  const zeb::TArray<CString> names = factory->GetTypeNames();
  ASSERT_EQ(names.size(), 2u);
  EXPECT_STREQ(names[0].c_str(), "Raw Imager File");
  EXPECT_TRUE(factory->Unregister("Test Imager File"));
}

TEST(ImagerFileFactoryTest, ConcurrentRegistrationKeepsEveryType) {
  zeb::file::CImagerFileFactory factory;  // starts with the raw type
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&factory, t] {
      for (int i = 0; i < 50; ++i) {
        const CString name = CString::FromFormat("Type %d.%d", t, i);
        factory.Register<CTestImagerFile>(name, nullptr, nullptr, nullptr, nullptr, nullptr);
        zeb::file::CImagerFileFactory::CType type;
        EXPECT_TRUE(factory.FindType(name, type));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(factory.GetTypeNames().size(), 201u);
}

}  // namespace
