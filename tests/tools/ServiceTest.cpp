// The zebtrksvc program itself, started in a child process on a demo drive in
// a temporary folder and spoken to over /tmp/zebtrksvc: every ordinal, frame
// bytes against the data file, events, errors, shutdown and clean-up.
#include <gtest/gtest.h>

#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <set>

#include "ipc/CSharedMemory.h"
#include "tests/support/TempDir.h"
#include "tests/tools/ChildProcess.h"
#include "tests/tools/ServiceClient.h"
#include "tests/tools/ServiceFixture.h"
#include "tools/zebtrksvc/DemoDrive.h"
#include "tools/zebtrksvc/PackedTime.h"

namespace tooltest {
namespace {

using zebtrksvc::DemoDrive;
using zebtrksvc::MovieSpec;

using ServiceTest = ServiceFixture;

TEST_F(ServiceTest, DescribesTheDriveAndItsMovies) {
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  const Bytes versionCheck = Encode([](TinyMsgPackWriter& w) {
    w.StartMap(2);
    w.WriteString("act");
    w.WriteString("verCheck");
    w.WriteString("ver");
    w.WritePosInteger(0);
  });
  EXPECT_EQ(Field(client.Result(versionCheck), "ver"), 0u);
  EXPECT_TRUE(client.Result(Exec(kDetectDrive)).valueForKey("detected").boolValue());
  ASSERT_EQ(Field(client.Result(Exec(kListMovies)), "count"), kMovies);

  for (unsigned i = 0; i < kMovies; ++i) {
    SCOPED_TRACE(m_plan[i].stem());
    const MovieSpec& spec = m_plan[i];
    const TinyMsgPackObject info = client.Result(Exec(kGetMovieInfo, {{"index", i}})).valueForKey("info");
    EXPECT_EQ(info.size(), 10u);
    EXPECT_STREQ(info.valueForKey("name").stringValue(), spec.name.c_str());
    EXPECT_EQ(Field(info, "number"), spec.number);  // listed by number
    EXPECT_EQ(Field(info, "width"), spec.width);
    EXPECT_EQ(Field(info, "height"), spec.height);
    EXPECT_EQ(Field(info, "numFrames"), kFrames);
    const uint64_t dataBytes = uint64_t{spec.width} * spec.height * 2 * kFrames;
    EXPECT_EQ(Field(info, "size"), (dataBytes + 1023) / 1024);
    EXPECT_EQ(Field(info, "rtcTime"), zebtrksvc::UnixSeconds(spec.firstFrameTicks));
    EXPECT_EQ(Field(info, "startTime"), zebtrksvc::PackTime(spec.firstFrameTicks));
    EXPECT_EQ(Field(info, "endTime"),
              zebtrksvc::PackTime(spec.firstFrameTicks + (kFrames - 1) * spec.framePeriodTicks));
    EXPECT_EQ(Field(info, "status"), 0u);

    const Bytes byName = Encode([&](TinyMsgPackWriter& w) {
      w.StartMap(3);
      w.WriteString("act");
      w.WriteString("exec");
      w.WriteString("ord");
      w.WritePosInteger(kGetMovieIndex);
      w.WriteString("params");
      w.StartMap(1);
      w.WriteString("name");
      w.WriteString(i % 2 ? spec.stem() : spec.name);  // listed name or bare name
    });
    EXPECT_EQ(Field(client.Result(byName), "index"), i);

    const TinyMsgPackObject data = client.Result(Exec(kReadInfoFile, {{"fileId", i}})).valueForKey("data");
    ASSERT_EQ(data.type(), TinyMsgPackObject::Blob);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(data.blobData()), data.blobSize()),
              testsupport::ReadFile(m_drive + "/" + spec.stem() + ".info"));
  }
}

TEST_F(ServiceTest, FramesArriveInTheSegmentAsTheDataFileHoldsThem) {
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  const unsigned movie = 1;
  const uint64_t frameBytes = FrameBytes(movie);
  const std::string mapping =
      client.Result(Exec(kOpenMovie, {{"fileId", movie}})).valueForKey("mapping").stringValue();
  EXPECT_EQ(mapping.rfind("zebtrksvc-", 0), 0u);
  EXPECT_EQ(Segments(), std::set<std::string>{mapping});
  CSharedMemory segment;
  ASSERT_TRUE(segment.Open(mapping.c_str()));
  EXPECT_EQ(segment.size(), frameBytes);

  for (uint64_t frame : {uint64_t{0}, uint64_t{5}, uint64_t{kFrames - 1}, uint64_t{5}}) {
    SCOPED_TRACE(frame);
    EXPECT_EQ(client.Error(Exec(kReadFrame, {{"fileId", movie}, {"frameNumber", frame}})), "");
    EXPECT_TRUE(SegmentHolds(segment, FileBytes(DataPath(movie), frame * frameBytes, frameBytes)));
  }
  EXPECT_EQ(client.Error(Exec(kReadFrame, {{"fileId", movie}, {"frameNumber", kFrames}})),
            "frame 12 is past the end of movie 1 (12 frames)");

  EXPECT_EQ(client.Error(Exec(kCloseMovie, {{"fileId", movie}})), "");
  EXPECT_TRUE(Segments().empty());
  EXPECT_EQ(client.Error(Exec(kCloseMovie, {{"fileId", movie}})), "movie 1 is not open on this connection");
}

// Two files of one movie in one client share its connection, and the
// protocol names both by the same fileId: whichever closes first, the other
// must go on reading right frames.
TEST_F(ServiceTest, OpeningsOfOneMovieShareOneSegmentUntilTheLastCloses) {
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  const uint64_t frameBytes = FrameBytes(0);
  const std::string older = client.Result(Exec(kOpenMovie, {{"fileId", 0}})).valueForKey("mapping").stringValue();
  const std::string newer = client.Result(Exec(kOpenMovie, {{"fileId", 0}})).valueForKey("mapping").stringValue();
  EXPECT_EQ(newer, older);
  EXPECT_EQ(Segments(), std::set<std::string>{older});
  CSharedMemory segment;
  ASSERT_TRUE(segment.Open(older.c_str()));
  ASSERT_EQ(client.Error(Exec(kReadFrame, {{"fileId", 0}, {"frameNumber", 4}})), "");
  EXPECT_TRUE(SegmentHolds(segment, FileBytes(DataPath(0), 4 * frameBytes, frameBytes)));

  ASSERT_EQ(client.Error(Exec(kCloseMovie, {{"fileId", 0}})), "");  // the newer file goes
  EXPECT_EQ(Segments(), std::set<std::string>{older});
  for (uint64_t frame : {uint64_t{7}, uint64_t{0}, uint64_t{kFrames - 1}}) {
    SCOPED_TRACE(frame);
    ASSERT_EQ(client.Error(Exec(kReadFrame, {{"fileId", 0}, {"frameNumber", frame}})), "");
    EXPECT_TRUE(SegmentHolds(segment, FileBytes(DataPath(0), frame * frameBytes, frameBytes)));
  }
  ASSERT_EQ(client.Error(Exec(kCloseMovie, {{"fileId", 0}})), "");
  EXPECT_TRUE(Segments().empty());
  EXPECT_EQ(client.Error(Exec(kCloseMovie, {{"fileId", 0}})), "movie 0 is not open on this connection");
}

// When the list shifts between two openings of one position, the position
// names two movies: each keeps its own segment and gets its own frames as far
// as it reaches, and both live until the position's last opening closes (the
// service cannot tell whose file a CloseMovie ends).
TEST_F(ServiceTest, APositionThatNamesAnotherMovieMeanwhileServesBoth) {
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  const std::string before = client.Result(Exec(kOpenMovie, {{"fileId", 1}})).valueForKey("mapping").stringValue();
  // A longer movie listed right after the first takes position 1.
  const std::string number = std::to_string(m_plan[0].number);
  const ToolRun added = RunTool({"make-movie", m_drive, "--width", "64", "--height", "48", "--frames", "20",
                                 "--number", number, "--name", "Zz Late"},
                                m_scratch.path());
  ASSERT_EQ(added.status, 0) << added.err;
  ASSERT_TRUE(WaitUntil([&] { return Field(client.Result(Exec(kListMovies)), "count") == kMovies + 1; }));
  ASSERT_STREQ(client.Result(Exec(kGetMovieInfo, {{"index", 1}})).valueForKey("info").valueForKey("name").stringValue(),
               "Zz Late");
  const std::string after = client.Result(Exec(kOpenMovie, {{"fileId", 1}})).valueForKey("mapping").stringValue();
  ASSERT_NE(after, before);
  const std::string addedPath = m_drive + "/" + number + "-Zz Late.dat";
  const uint64_t addedBytes = 64 * 48 * 2;
  CSharedMemory first, second;
  ASSERT_TRUE(first.Open(before.c_str()));
  ASSERT_TRUE(second.Open(after.c_str()));
  EXPECT_EQ(first.size(), FrameBytes(1));
  EXPECT_EQ(second.size(), addedBytes);

  struct Step {
    uint64_t frame;
    int closesBefore;     // CloseMovie calls sent before the read
    uint64_t firstHolds;  // the frame that the first movie's segment holds after it
  };
  const Step steps[] = {{3, 0, 3}, {15, 0, 3}, {5, 1, 5}};  // 15: past the first movie's 12 frames
  for (const Step& step : steps) {
    SCOPED_TRACE(step.frame);
    for (int i = 0; i < step.closesBefore; ++i) ASSERT_EQ(client.Error(Exec(kCloseMovie, {{"fileId", 1}})), "");
    ASSERT_EQ(client.Error(Exec(kReadFrame, {{"fileId", 1}, {"frameNumber", step.frame}})), "");
    EXPECT_TRUE(SegmentHolds(first, FileBytes(DataPath(1), step.firstHolds * FrameBytes(1), FrameBytes(1))));
    EXPECT_TRUE(SegmentHolds(second, FileBytes(addedPath, step.frame * addedBytes, addedBytes)));
    EXPECT_EQ(Segments(), (std::set<std::string>{before, after}));
  }
  EXPECT_EQ(client.Error(Exec(kReadFrame, {{"fileId", 1}, {"frameNumber", 20}})),
            "frame 20 is past the end of movie 1 (20 frames)");
  ASSERT_EQ(client.Error(Exec(kCloseMovie, {{"fileId", 1}})), "");
  EXPECT_TRUE(Segments().empty());
}

TEST_F(ServiceTest, FaultsAreAnsweredWithAnErrorAndTheConnectionGoesOn) {
  auto request = [](std::function<void(TinyMsgPackWriter&)> body) { return Encode(body); };
  auto withParams = [](uint64_t ordinal, std::function<void(TinyMsgPackWriter&)> params) {
    return Encode([&](TinyMsgPackWriter& w) {
      w.StartMap(3);
      w.WriteString("act");
      w.WriteString("exec");
      w.WriteString("ord");
      w.WritePosInteger(ordinal);
      w.WriteString("params");
      params(w);
    });
  };
  struct Case {
    const char* what;
    Bytes request;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"unknown ordinal", Exec(99), "unknown ordinal 99"},
      {"unknown act", request([](TinyMsgPackWriter& w) {
         w.StartMap(1);
         w.WriteString("act");
         w.WriteString("nope");
       }),
       "unknown act \"nope\""},
      {"no act", request([](TinyMsgPackWriter& w) {
         w.StartMap(1);
         w.WriteString("ord");
         w.WritePosInteger(1);
       }),
       "missing \"act\""},
      {"act not a string", request([](TinyMsgPackWriter& w) {
         w.StartMap(2);
         w.WriteString("act");
         w.WritePosInteger(5);
         w.WriteString("ord");
         w.WritePosInteger(1);
       }),
       "\"act\" must be a string"},
      {"no ord", request([](TinyMsgPackWriter& w) {
         w.StartMap(1);
         w.WriteString("act");
         w.WriteString("exec");
       }),
       "missing \"ord\""},
      {"negative ord", request([](TinyMsgPackWriter& w) {
         w.StartMap(2);
         w.WriteString("act");
         w.WriteString("exec");
         w.WriteString("ord");
         w.WriteNegInteger(-1);
       }),
       "\"ord\" must be a non-negative integer"},
      {"version check without ver", request([](TinyMsgPackWriter& w) {
         w.StartMap(1);
         w.WriteString("act");
         w.WriteString("verCheck");
       }),
       "missing \"ver\""},
      {"no params", Exec(kGetMovieInfo), "missing parameter \"index\""},
      {"params not a map", withParams(kGetMovieInfo, [](TinyMsgPackWriter& w) {
         w.StartArray(1);
         w.WritePosInteger(0);
       }),
       "\"params\" must be a map"},
      {"index as text", withParams(kGetMovieInfo, [](TinyMsgPackWriter& w) {
         w.StartMap(1);
         w.WriteString("index");
         w.WriteString("0");
       }),
       "parameter \"index\" must be a non-negative integer"},
      {"index past the list", Exec(kGetMovieInfo, {{"index", 7}}), "no movie at index 7"},
      {"fileId past the list", Exec(kOpenMovie, {{"fileId", 3}}), "no movie at index 3"},
      {"huge fileId", Exec(kReadInfoFile, {{"fileId", 1ull << 40}}), "no movie at index 1099511627776"},
      {"delete past the list", Exec(kDeleteMovie, {{"fileId", 9}}), "no movie at index 9"},
      {"frame of a movie not open", Exec(kReadFrame, {{"fileId", 0}, {"frameNumber", 0}}),
       "movie 0 is not open on this connection"},
      {"frame without its number", Exec(kReadFrame, {{"fileId", 0}}), "missing parameter \"frameNumber\""},
      {"name as a number", withParams(kGetMovieIndex, [](TinyMsgPackWriter& w) {
         w.StartMap(1);
         w.WriteString("name");
         w.WritePosInteger(5);
       }),
       "parameter \"name\" must be a string"},
      {"unknown name", withParams(kGetMovieIndex, [](TinyMsgPackWriter& w) {
         w.StartMap(1);
         w.WriteString("name");
         w.WriteString("Nowhere");
       }),
       "no movie named \"Nowhere\""},
      {"destroy unknown queue", Exec(kDestroyEventQueue, {{"queueId", 77}}), "no event queue 77"},
      {"read unknown queue", Exec(kReadEventQueue, {{"queueId", 77}}), "no event queue 77"},
      {"unknown keys are skipped", request([](TinyMsgPackWriter& w) {
         w.StartMap(3);
         w.WriteString("junk");
         w.StartMap(1);
         w.WriteString("deep");
         w.StartArray(2);
         w.WriteBlob("\x01\x02\x03", 3);
         w.WriteNil();
         w.WriteString("act");
         w.WriteString("exec");
         w.WriteString("ord");
         w.WritePosInteger(kListMovies);
       }),
       ""},
  };
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(client.Error(c.request), c.error);
    EXPECT_EQ(Field(client.Result(Exec(kListMovies)), "count"), kMovies);  // still usable
  }
}

TEST_F(ServiceTest, UndecodableRequestClosesOnlyItsConnection) {
  const std::vector<std::pair<const char*, Bytes>> cases = {
      {"an array", Encode([](TinyMsgPackWriter& w) {
         w.StartArray(1);
         w.WritePosInteger(1);
       })},
      {"a string", Encode([](TinyMsgPackWriter& w) { w.WriteString("exec"); })},
      {"the unused byte C1", Bytes{0xC1}},
      {"an ext value", Bytes{0x81, 0xA3, 'a', 'c', 't', 0xD4, 0x01, 0x00}},
      {"a key that is a number", Bytes{0x81, 0x01, 0x02}},
  };
  ServiceClient bystander;
  ASSERT_TRUE(bystander.Connect());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    ServiceClient client;
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Send(c.second));
    EXPECT_TRUE(client.ClosedByService());
    EXPECT_TRUE(bystander.Result(Exec(kDetectDrive)).valueForKey("detected").boolValue());
  }
}

// Reads events until `done` holds; false when an event of another type
// arrives or too many pass.
bool EventsUntil(ServiceClient& events, uint64_t queue, const std::function<bool()>& done) {
  for (int i = 0; i < 10; ++i) {
    const TinyMsgPackObject event = events.Result(Exec(kReadEventQueue, {{"queueId", queue}})).valueForKey("event");
    if (Field(event, "type") != 1 || Field(event, "drive") != 0) return false;
    if (done()) return true;
  }
  return false;
}

// Reads events until the movie list has `count` movies.
bool EventsUntilCount(ServiceClient& events, uint64_t queue, ServiceClient& requests, uint64_t count) {
  return EventsUntil(events, queue, [&] { return Field(requests.Result(Exec(kListMovies)), "count") == count; });
}

TEST_F(ServiceTest, ChangesOfTheMovieListAreAnnounced) {
  ServiceClient requests, events;
  ASSERT_TRUE(requests.Connect());
  ASSERT_TRUE(events.Connect());
  const uint64_t queue = Field(events.Result(Exec(kCreateEventQueue)), "queueId");
  EXPECT_NE(queue, 0xFFFFFFFFu);

  // Deleting takes the companions (same base name) and leaves other files.
  const std::string stem = m_drive + "/" + m_plan[0].stem();
  ASSERT_TRUE(testsupport::WriteFile(stem + ".meta", "x"));
  ASSERT_TRUE(testsupport::WriteFile(stem + ".v2.txt", "x"));
  ASSERT_EQ(requests.Error(Exec(kDeleteMovie, {{"fileId", 0}})), "");
  EXPECT_EQ(Field(requests.Result(Exec(kListMovies)), "count"), kMovies - 1);  // answered after the rescan
  for (const char* gone : {".dat", ".info", ".meta"}) EXPECT_FALSE(PathExists(stem + gone)) << gone;
  EXPECT_TRUE(PathExists(stem + ".v2.txt"));
  EXPECT_TRUE(EventsUntilCount(events, queue, requests, kMovies - 1));

  // A movie written into the drive by someone else.
  const ToolRun dropped = RunTool({"make-movie", m_drive, "--width", "64", "--height", "48", "--frames", "3",
                                   "--number", "40", "--name", "Dropped In"},
                                  m_scratch.path());
  ASSERT_EQ(dropped.status, 0) << dropped.err;
  EXPECT_TRUE(EventsUntilCount(events, queue, requests, kMovies));
  const TinyMsgPackObject last = requests.Result(Exec(kGetMovieInfo, {{"index", kMovies - 1}})).valueForKey("info");
  EXPECT_STREQ(last.valueForKey("name").stringValue(), "Dropped In");

  // A movie rewritten in place under the same name is read again.
  const ToolRun rewritten = RunTool({"make-movie", m_drive, "--width", "32", "--height", "16", "--frames", "2",
                                     "--number", "40", "--name", "Dropped In"},
                                    m_scratch.path());
  ASSERT_EQ(rewritten.status, 0) << rewritten.err;
  EXPECT_TRUE(EventsUntil(events, queue, [&] {
    // While it is rewritten the movie may be missing for a moment.
    const TinyMsgPackObject answer = requests.Call(Exec(kGetMovieInfo, {{"index", kMovies - 1}}));
    if (!ErrorText(answer).empty()) return false;
    const TinyMsgPackObject& info = answer.valueForKey("result").valueForKey("info");
    return Field(info, "width") == 32 && Field(info, "numFrames") == 2;
  }));

  // Two deletions before the next read: both events are kept. (A new queue,
  // so that no event of the rewrite is counted.)
  const uint64_t fresh = Field(events.Result(Exec(kCreateEventQueue)), "queueId");
  ASSERT_EQ(requests.Error(Exec(kDeleteMovie, {{"fileId", 0}})), "");
  ASSERT_EQ(requests.Error(Exec(kDeleteMovie, {{"fileId", 0}})), "");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(Field(events.Result(Exec(kReadEventQueue, {{"queueId", fresh}})).valueForKey("event"), "type"), 1u);
  }
  ASSERT_EQ(requests.Error(Exec(kDeleteAllMovies)), "");
  EXPECT_TRUE(EventsUntilCount(events, fresh, requests, 0));
  EXPECT_TRUE(PathExists(stem + ".v2.txt"));
}

TEST_F(ServiceTest, TheDriveComingAndGoingIsAnnounced) {
  ServiceClient requests, events;
  ASSERT_TRUE(requests.Connect());
  ASSERT_TRUE(events.Connect());
  const uint64_t queue = Field(events.Result(Exec(kCreateEventQueue)), "queueId");
  const std::string away = m_scratch / "elsewhere";

  ASSERT_EQ(rename(m_drive.c_str(), away.c_str()), 0);
  EXPECT_TRUE(EventsUntilCount(events, queue, requests, 0));
  EXPECT_FALSE(requests.Result(Exec(kDetectDrive)).valueForKey("detected").boolValue());
  EXPECT_EQ(requests.Error(Exec(kDeleteAllMovies)), "no drive present");

  ASSERT_EQ(rename(away.c_str(), m_drive.c_str()), 0);
  EXPECT_TRUE(EventsUntilCount(events, queue, requests, kMovies));
  EXPECT_TRUE(requests.Result(Exec(kDetectDrive)).valueForKey("detected").boolValue());

  // An empty drive folder appearing is a change too, though no movie came.
  ASSERT_EQ(rename(m_drive.c_str(), away.c_str()), 0);
  EXPECT_TRUE(EventsUntilCount(events, queue, requests, 0));
  ASSERT_EQ(mkdir(m_drive.c_str(), 0755), 0);
  EXPECT_EQ(Field(events.Result(Exec(kReadEventQueue, {{"queueId", queue}})).valueForKey("event"), "type"), 1u);
  EXPECT_TRUE(requests.Result(Exec(kDetectDrive)).valueForKey("detected").boolValue());
}

TEST_F(ServiceTest, DestroyingAQueueEndsTheReadPendingOnIt) {
  ServiceClient requests, events;
  ASSERT_TRUE(requests.Connect());
  ASSERT_TRUE(events.Connect());
  const uint64_t queue = Field(events.Result(Exec(kCreateEventQueue)), "queueId");
  ASSERT_TRUE(events.Send(Exec(kReadEventQueue, {{"queueId", queue}})));
  // The pending read blocks only its own connection.
  EXPECT_EQ(Field(requests.Result(Exec(kListMovies)), "count"), kMovies);
  EXPECT_EQ(requests.Error(Exec(kDestroyEventQueue, {{"queueId", queue}})), "");
  // "Closed", whether the read was already waiting or arrived just after.
  const TinyMsgPackObject closed = events.Receive();
  ASSERT_EQ(ErrorText(closed), "");
  EXPECT_EQ(Field(closed.valueForKey("result").valueForKey("event"), "type"), 0u);
  EXPECT_EQ(Field(events.Result(Exec(kReadEventQueue, {{"queueId", queue}})).valueForKey("event"), "type"), 0u);
  EXPECT_EQ(requests.Error(Exec(kDestroyEventQueue, {{"queueId", queue}})),
            "no event queue " + std::to_string(queue));
}

TEST_F(ServiceTest, AClientThatLeavesLeavesNoSegment) {
  {
    ServiceClient plain, waiting;
    ASSERT_TRUE(plain.Connect());
    ASSERT_TRUE(waiting.Connect());
    plain.Result(Exec(kOpenMovie, {{"fileId", 0}}));
    plain.Result(Exec(kOpenMovie, {{"fileId", 2}}));
    waiting.Result(Exec(kOpenMovie, {{"fileId", 1}}));
    const uint64_t queue = Field(waiting.Result(Exec(kCreateEventQueue)), "queueId");
    ASSERT_TRUE(waiting.Send(Exec(kReadEventQueue, {{"queueId", queue}})));
    EXPECT_EQ(Segments().size(), 3u);
  }  // both disconnect, one of them while waiting for an event
  EXPECT_TRUE(WaitUntil([] { return Segments().empty(); }));
}

TEST_F(ServiceTest, ASecondInstanceIsRefusedAndTheFirstGoesOn) {
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  const ToolRun second = RunTool({"--drive", m_drive}, m_scratch.path(), 20000);
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find("another zebtrksvc is running"), std::string::npos) << second.err;
  EXPECT_TRUE(PathExists("/tmp/zebtrksvc"));
  EXPECT_EQ(Field(client.Result(Exec(kListMovies)), "count"), kMovies);
  ServiceClient later;
  ASSERT_TRUE(later.Connect());
  EXPECT_TRUE(later.Result(Exec(kDetectDrive)).valueForKey("detected").boolValue());
}

TEST_F(ServiceTest, SigtermRemovesTheSocketAndEverySegment) {
  ServiceClient client, waiting;
  ASSERT_TRUE(client.Connect());
  ASSERT_TRUE(waiting.Connect());
  client.Result(Exec(kOpenMovie, {{"fileId", 0}}));
  client.Result(Exec(kOpenMovie, {{"fileId", 1}}));
  const uint64_t queue = Field(waiting.Result(Exec(kCreateEventQueue)), "queueId");
  ASSERT_TRUE(waiting.Send(Exec(kReadEventQueue, {{"queueId", queue}})));
  ASSERT_EQ(Segments().size(), 2u);

  m_service.Signal(SIGTERM);
  EXPECT_EQ(m_service.Wait(20000), 0);
  EXPECT_FALSE(PathExists("/tmp/zebtrksvc"));
  EXPECT_TRUE(Segments().empty());
  // The pending read was answered "closed" (or the connection just ended).
  try {
    const TinyMsgPackObject answer = waiting.Receive();
    EXPECT_EQ(Field(answer.valueForKey("result").valueForKey("event"), "type"), 0u);
  } catch (const std::runtime_error&) {
  }
  EXPECT_TRUE(client.ClosedByService());
}

TEST_F(ServiceTest, FramesBeyondFourGibibytesOfASparseMovie) {
  // 640 x 512 x 2 bytes x 6600 frames = 4.33 GB, a hole but for the ends.
  const uint32_t frames = 6600;
  const ToolRun big = RunTool({"make-movie", m_drive, "--width", "640", "--height", "512", "--frames",
                               std::to_string(frames), "--number", "90", "--name", "Long Watch", "--sparse"},
                              m_scratch.path());
  ASSERT_EQ(big.status, 0) << big.err;
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  ASSERT_TRUE(WaitUntil([&] { return Field(client.Result(Exec(kListMovies)), "count") == kMovies + 1; }));
  const uint64_t frameBytes = 640 * 512 * 2;
  const TinyMsgPackObject info = client.Result(Exec(kGetMovieInfo, {{"index", kMovies}})).valueForKey("info");
  EXPECT_EQ(Field(info, "size"), frameBytes * frames / 1024);
  EXPECT_EQ(Field(info, "numFrames"), frames);

  const std::string mapping =
      client.Result(Exec(kOpenMovie, {{"fileId", kMovies}})).valueForKey("mapping").stringValue();
  CSharedMemory segment;
  ASSERT_TRUE(segment.Open(mapping.c_str()));
  const std::string dataPath = m_drive + "/90-Long Watch.dat";
  for (uint64_t frame : {uint64_t{frames - 1}, uint64_t{frames / 2}, uint64_t{0}}) {
    SCOPED_TRACE(frame);
    ASSERT_EQ(client.Error(Exec(kReadFrame, {{"fileId", kMovies}, {"frameNumber", frame}})), "");
    const std::string expected = FileBytes(dataPath, frame * frameBytes, frameBytes);
    ASSERT_EQ(expected.size(), frameBytes);
    EXPECT_TRUE(SegmentHolds(segment, expected));
    const bool hole = frame != 0 && frame != frames - 1;
    EXPECT_EQ(expected.find_first_not_of('\0') == std::string::npos, hole);
  }
}

// Without the fixture's service.
class ServiceStartTest : public ::testing::Test {
 protected:
  testsupport::TempDir m_scratch;
};

TEST_F(ServiceStartTest, AStaleSocketFileIsReplaced) {
  if (ServiceAnswers()) GTEST_SKIP() << "a service already answers on /tmp/zebtrksvc";
  // A socket file whose listener has gone.
  const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_NE(stale, -1);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/tmp/zebtrksvc");
  unlink(address.sun_path);
  ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  close(stale);
  ASSERT_FALSE(ServiceAnswers());

  ChildProcess service;
  ASSERT_TRUE(service.Start(ToolPath(), {"--drive", m_scratch / "absent"}, m_scratch / "out", m_scratch / "err"));
  ASSERT_TRUE(WaitUntil([&] { return ServiceAnswers() || !service.Running(); }));
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  EXPECT_FALSE(client.Result(Exec(kDetectDrive)).valueForKey("detected").boolValue());
  EXPECT_EQ(Field(client.Result(Exec(kListMovies)), "count"), 0u);
  service.Signal(SIGINT);
  EXPECT_EQ(service.Wait(20000), 0);
  EXPECT_FALSE(PathExists("/tmp/zebtrksvc"));
}

TEST_F(ServiceStartTest, ArgumentsAreCheckedAndExplained) {
  const std::string dir = m_scratch / "d";
  struct Case {
    std::vector<std::string> args;
    int status;
    const char* message;  // in stderr (status 2) or stdout (status 0)
  };
  const std::vector<Case> cases = {
      {{}, 2, "no drive folder given"},
      {{"--drive"}, 2, "option --drive needs a value"},
      {{"--drive", dir, "--bogus"}, 2, "unknown argument \"--bogus\""},
      {{"make-demo"}, 2, "make-demo needs a folder"},
      {{"make-demo", dir, "--movies", "0"}, 2, "option --movies needs a whole number from 1"},
      {{"make-movie", dir, "--width", "64", "--height", "48", "--frames", "2", "--number", "1"}, 2,
       "make-movie needs --width, --height, --frames, --number and --name"},
      {{"make-movie", dir, "--width", "70000"}, 2, "option --width needs a whole number from 1 to 65535"},
      {{"make-movie", dir, "--rate", "fast"}, 2, "option --rate needs frames per second"},
      {{"--help"}, 0, "usage: zebtrksvc --drive DIR"},
  };
  for (const Case& c : cases) {
    std::string line;
    for (const std::string& arg : c.args) line += arg + " ";
    SCOPED_TRACE(line);
    const ToolRun run = RunTool(c.args, m_scratch.path(), 20000);
    EXPECT_EQ(run.status, c.status);
    const std::string& text = c.status == 0 ? run.out : run.err;
    EXPECT_NE(text.find(c.message), std::string::npos) << text;
    if (c.status == 2) {
      EXPECT_NE(run.err.find("usage: zebtrksvc"), std::string::npos);
    }
  }
  EXPECT_FALSE(PathExists(dir));
}

TEST_F(ServiceStartTest, DemoDrivesFollowTheSeed) {
  auto make = [&](const std::string& name, const char* seed) {
    const ToolRun run =
        RunTool({"make-demo", m_scratch / name, "--movies", "4", "--frames", "5", "--seed", seed}, m_scratch.path());
    EXPECT_EQ(run.status, 0) << run.err;
  };
  make("a", "3");
  make("b", "3");
  make("c", "4");
  int files = 0;
  for (const MovieSpec& spec : DemoDrive::Plan(4, 3, 5)) {
    for (const char* extension : {".dat", ".info"}) {
      const std::string file = "/" + spec.stem() + extension;
      const std::string a = testsupport::ReadFile(m_scratch / "a" + file);
      ASSERT_FALSE(a.empty()) << file;
      EXPECT_TRUE(a == testsupport::ReadFile(m_scratch / "b" + file)) << file;
      ++files;
    }
  }
  EXPECT_EQ(files, 8);
  const std::string first = "/" + DemoDrive::Plan(4, 3, 5)[0].stem() + ".dat";
  const std::string other = "/" + DemoDrive::Plan(4, 4, 5)[0].stem() + ".dat";
  EXPECT_FALSE(testsupport::ReadFile(m_scratch / "a" + first) == testsupport::ReadFile(m_scratch / "c" + other));
}

}  // namespace
}  // namespace tooltest
