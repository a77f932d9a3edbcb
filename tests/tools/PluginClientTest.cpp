// The plug-in's own service client (CTrkClient) against the real simulator:
// the two sides of the protocol agree on every command the plug-in sends,
// including the monitoring thread's stop pattern.
#include <gtest/gtest.h>

#include <thread>

#include <zeb/CMemFile.h>

#include "client/CTrkClient.h"
#include "tests/tools/ServiceFixture.h"
#include "tools/zebtrksvc/PackedTime.h"

namespace tooltest {
namespace {

using PluginClientTest = ServiceFixture;

TEST_F(PluginClientTest, DescribesAndReadsMoviesAsThePluginAsks) {
  CTrkClient client;
  ASSERT_TRUE(client.Connect());
  EXPECT_TRUE(client.DetectDrive());
  unsigned int count = 0;
  ASSERT_TRUE(client.ListMovies(count));
  ASSERT_EQ(count, kMovies);
  for (unsigned int i = 0; i < count; ++i) {
    const zebtrksvc::MovieSpec& spec = m_plan[i];
    SCOPED_TRACE(spec.stem());
    STrkMovieInfo info = {};
    ASSERT_TRUE(client.GetMovieInfo(i, &info));
    // The record is packed: its fields are copied out, never bound to
    // references.
    EXPECT_STREQ(info.name, spec.name.c_str());
    EXPECT_EQ(uint64_t{info.number}, spec.number);
    EXPECT_EQ(uint32_t{info.width}, spec.width);
    EXPECT_EQ(uint32_t{info.height}, spec.height);
    EXPECT_EQ(uint64_t{info.numFrames}, kFrames);
    EXPECT_EQ(uint64_t{info.rtcTime}, zebtrksvc::UnixSeconds(spec.firstFrameTicks));
    EXPECT_EQ(uint64_t{info.startTime}, zebtrksvc::PackTime(spec.firstFrameTicks));
    unsigned int index = 99;
    ASSERT_TRUE(client.GetMovieIndex(spec.stem().c_str(), index));
    EXPECT_EQ(index, i);
  }

  // A movie file: open, frames through the segment, a refused frame past the
  // end, close.
  zeb::CString mapping;
  ASSERT_TRUE(client.OpenMovie(2, mapping));
  CSharedMemory segment;
  ASSERT_TRUE(segment.Open(mapping.c_str()));
  for (unsigned long frame : {0ul, 11ul, 6ul}) {
    SCOPED_TRACE(frame);
    ASSERT_TRUE(client.ReadFrame(2, frame));
    EXPECT_TRUE(SegmentHolds(segment, FileBytes(DataPath(2), frame * FrameBytes(2), FrameBytes(2))));
  }
  EXPECT_FALSE(client.ReadFrame(2, kFrames));
  EXPECT_TRUE(client.CloseMovie(2));
  EXPECT_FALSE(client.CloseMovie(2));  // the plug-in's second close is refused, harmlessly
  EXPECT_TRUE(Segments().empty());

  // A movie's ":info" file.
  zeb::TSharedPtr<zeb::CMemFile> info(new zeb::CMemFile());
  ASSERT_TRUE(client.ReadInfoFile(1, info));
  const std::string expected = testsupport::ReadFile(m_drive + "/" + m_plan[1].stem() + ".info");
  ASSERT_EQ(static_cast<size_t>(info->GetSize()), expected.size());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(info->data()), expected.size()), expected);
}

TEST_F(PluginClientTest, MonitoringSeesChangesAndStopsWhenItsQueueIsDestroyed) {
  CTrkClient client, eventClient;
  ASSERT_TRUE(client.Connect());
  ASSERT_TRUE(eventClient.Connect());
  unsigned int queue = 0xFFFFFFFF;
  ASSERT_TRUE(eventClient.CreateEventQueue(queue));
  ASSERT_NE(queue, 0xFFFFFFFFu);

  // The monitoring loop: read until type 0 or a failed read.
  std::vector<unsigned int> types;
  std::thread monitor([&] {
    STrkEvent event = {};
    while (eventClient.ReadEventQueue(queue, event)) {
      types.push_back(event.type);
      if (event.type == 0) break;
    }
  });
  ASSERT_TRUE(client.DeleteMovie(0));
  unsigned int count = 0;
  ASSERT_TRUE(client.ListMovies(count));
  EXPECT_EQ(count, kMovies - 1);
  // The destructor's pattern: destroy through the other client, then join.
  // The deletion's event is queued before the destruction, so it is read
  // first, unless the destruction overtakes the reader.
  EXPECT_TRUE(client.DestroyEventQueue(queue));
  monitor.join();
  ASSERT_FALSE(types.empty());
  EXPECT_EQ(types.back(), 0u);
  for (size_t i = 0; i + 1 < types.size(); ++i) EXPECT_EQ(types[i], 1u);
}

}  // namespace
}  // namespace tooltest
