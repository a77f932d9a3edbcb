// The zebtrksvc program itself, started in a child process on a demo drive in
// a temporary folder and spoken to over /tmp/zebtrksvc: every ordinal, frame
// bytes against the data file, events, errors, shutdown and clean-up. The
// test side of the protocol is spoken directly with the codec (no plug-in
// code involved).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <set>
#include <stdexcept>

#include "ipc/CSharedMemory.h"
#include "ipc/LocalSocket.h"
#include "msgpack/MemoryStream.h"
#include "msgpack/TinyMsgPackReader.h"
#include "msgpack/TinyMsgPackWriter.h"
#include "tests/support/FakeService.h"
#include "tests/support/ResourceSnapshot.h"
#include "tests/support/TempDir.h"
#include "tests/tools/ChildProcess.h"
#include "tools/zebtrksvc/DemoDrive.h"
#include "tools/zebtrksvc/PackedTime.h"

namespace tooltest {
namespace {

using zebtrksvc::DemoDrive;
using zebtrksvc::MovieSpec;
using Bytes = std::vector<unsigned char>;

enum : uint64_t {
  kDetectDrive, kListMovies, kGetMovieInfo, kGetMovieIndex, kOpenMovie, kCloseMovie, kReadFrame,
  kDeleteMovie, kDeleteAllMovies, kReadInfoFile, kCreateEventQueue, kDestroyEventQueue, kReadEventQueue,
};

// {"act": "exec", "ord": ordinal[, "params": {...}]}, the params written by
// `params` when given.
Bytes Exec(uint64_t ordinal, const std::function<void(TinyMsgPackWriter&)>& params = nullptr) {
  MemoryStream stream;
  TinyMsgPackWriter w(&stream);
  w.StartMap(params ? 3 : 2);
  w.WriteString("act");
  w.WriteString("exec");
  w.WriteString("ord");
  w.WritePosInteger(ordinal);
  if (params) {
    w.WriteString("params");
    params(w);
  }
  return stream.bytes();
}
// With params {key: number, ...}.
Bytes Exec(uint64_t ordinal, std::initializer_list<std::pair<const char*, uint64_t>> params) {
  return Exec(ordinal, [&](TinyMsgPackWriter& w) {
    w.StartMap(static_cast<uint32_t>(params.size()));
    for (const auto& param : params) {
      w.WriteString(param.first);
      w.WritePosInteger(param.second);
    }
  });
}
// With params {key: text}.
Bytes Exec(uint64_t ordinal, const char* key, const std::string& text) {
  return Exec(ordinal, [&](TinyMsgPackWriter& w) {
    w.StartMap(1);
    w.WriteString(key);
    w.WriteString(text);
  });
}

// The "error" text of an answer; empty when it has none.
std::string ErrorText(const TinyMsgPackObject& answer) {
  if (!answer.hasKey("error")) return std::string();
  const TinyMsgPackObject& error = answer.valueForKey("error");
  return error.type() == TinyMsgPackObject::String ? error.stringValue() : "(error that is not a string)";
}

// The positive integer under `key` of a map (throws on any other type).
uint64_t Field(const TinyMsgPackObject& map, const char* key) { return map.valueForKey(key).posIntegerValue(); }

// One connection to the service. Receiving gives up after kTimeoutSeconds
// (throwing), so a service that never answers fails the test instead of
// hanging it.
class ServiceClient {
 public:
  static constexpr int kTimeoutSeconds = 30;

  bool Connect() {
    if (!m_socket.Connect("zebtrksvc")) return false;
    timeval timeout = {kTimeoutSeconds, 0};
    setsockopt(m_socket.fd(), SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    return true;
  }
  // Sends the bytes in one write; true when all went out.
  bool Send(const Bytes& request) { return m_socket.Write(request.data(), request.size()) == request.size(); }
  TinyMsgPackObject Receive() { return m_reader.ReadObject(); }
  TinyMsgPackObject Call(const Bytes& request) {
    if (!Send(request)) throw std::runtime_error("request not sent");
    return Receive();
  }
  // "result" of the answer; throws (failing the test) on an error answer.
  TinyMsgPackObject Result(const Bytes& request) {
    TinyMsgPackObject answer = Call(request);
    const std::string error = ErrorText(answer);
    if (!error.empty()) throw std::runtime_error("service answered an error: " + error);
    return answer.valueForKey("result");
  }
  // The error text of the answer ("" when it succeeded).
  std::string Error(const Bytes& request) { return ErrorText(Call(request)); }
  // True when the service has closed this connection (waits for it).
  bool ClosedByService() {
    pollfd watched = {m_socket.fd(), POLLIN, 0};
    char byte;
    return poll(&watched, 1, kTimeoutSeconds * 1000) == 1 && recv(m_socket.fd(), &byte, 1, MSG_PEEK) == 0;
  }

 private:
  LocalSocket m_socket;
  TinyMsgPackReader m_reader{&m_socket};
};

const char* ToolPath() { return ZEBTRKSVC_PATH; }
// Runs zebtrksvc with `args` to its end.
ToolRun RunTool(std::vector<std::string> args) {
  args.insert(args.begin(), ToolPath());
  return Run(args);
}
bool ServiceAnswers() { return SocketAccepts("/tmp/zebtrksvc"); }

// The service's segments in /dev/shm ("zebtrksvc-...").
std::set<std::string> Segments() {
  std::set<std::string> ours;
  for (const std::string& name : testsupport::ShmEntries()) {
    if (name.rfind("zebtrksvc-", 0) == 0) ours.insert(name);
  }
  return ours;
}

bool PathExists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

// `size` bytes at `offset` of a file; empty when they cannot be read whole.
std::string FileBytes(const std::string& path, uint64_t offset, size_t size) {
  std::string bytes(size, '\0');
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) return std::string();
  const ssize_t n = pread(fd, &bytes[0], size, static_cast<off_t>(offset));
  close(fd);
  return n == static_cast<ssize_t>(size) ? bytes : std::string();
}

// A segment starts with `expected`; a failure names the first differing
// offset (a whole-frame string diff would take minutes to print).
::testing::AssertionResult SegmentHolds(const CSharedMemory& segment, const std::string& expected) {
  if (expected.empty()) return ::testing::AssertionFailure() << "no expected bytes";
  if (segment.data() == nullptr || segment.size() < expected.size()) {
    return ::testing::AssertionFailure() << "segment not mapped or too small";
  }
  const char* held = static_cast<const char*>(segment.data());
  const auto differ = std::mismatch(expected.begin(), expected.end(), held);
  if (differ.first == expected.end()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "bytes differ from offset " << (differ.first - expected.begin());
}

constexpr unsigned kMovies = 3;
constexpr uint32_t kFrames = 12;
constexpr uint64_t kSeed = 7;

// A real zebtrksvc on a demo drive of three movies of twelve frames, stopped
// with SIGTERM after the test (which must then exit with 0). Skipped when
// another service already answers on /tmp/zebtrksvc.
class ServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (ServiceAnswers()) GTEST_SKIP() << "a service already answers on /tmp/zebtrksvc";
    m_drive = m_scratch / "drive";
    const ToolRun demo = RunTool({"make-demo", m_drive, "--movies", std::to_string(kMovies), "--frames",
                                  std::to_string(kFrames), "--seed", std::to_string(kSeed)});
    ASSERT_EQ(demo.status, 0) << demo.err;
    m_plan = DemoDrive::Plan(kMovies, kSeed, kFrames);
    ASSERT_TRUE(m_service.Start({ToolPath(), "--drive", m_drive, "--verbose"}, {}, m_scratch / "service.log"));
    ASSERT_TRUE(WaitUntil([&] { return ServiceAnswers() || !m_service.Running(); }) && m_service.Running());
    m_started = true;
  }
  void TearDown() override {
    if (!m_started) return;
    m_service.Signal(SIGTERM);
    EXPECT_EQ(m_service.Wait(20), 0) << testsupport::ReadFile(m_scratch / "service.log");
  }
  // The data file of movie `index` of the demo drive, and its frame size.
  std::string DataPath(unsigned index) const { return m_drive + "/" + m_plan[index].stem() + ".dat"; }
  uint64_t FrameBytes(unsigned index) const { return uint64_t{m_plan[index].width} * m_plan[index].height * 2; }

  testsupport::TempDir m_scratch;
  std::string m_drive;
  std::vector<MovieSpec> m_plan;  // the demo drive's movies, in list order
  ChildProcess m_service;
  bool m_started = false;
};

// Requests written byte by byte, in FakeService::Wire notation.
Bytes Wire(const std::string& notation) { return FakeService::Wire(notation); }
const std::string kExec = "83 A3'act' A4'exec' A3'ord' ";  // up to the ordinal, with "params"

uint64_t Count(ServiceClient& client) { return Field(client.Result(Exec(kListMovies)), "count"); }
bool Detected(ServiceClient& client) {
  return client.Result(Exec(kDetectDrive)).valueForKey("detected").boolValue();
}
TinyMsgPackObject Info(ServiceClient& client, uint64_t index) {
  return client.Result(Exec(kGetMovieInfo, {{"index", index}})).valueForKey("info");
}
std::string Open(ServiceClient& client, uint64_t fileId) {
  return client.Result(Exec(kOpenMovie, {{"fileId", fileId}})).valueForKey("mapping").stringValue();
}
// The error text of ReadFrame and CloseMovie ("" when they succeed).
std::string ReadFrame(ServiceClient& client, uint64_t fileId, uint64_t frame) {
  return client.Error(Exec(kReadFrame, {{"fileId", fileId}, {"frameNumber", frame}}));
}
std::string Close(ServiceClient& client, uint64_t fileId) {
  return client.Error(Exec(kCloseMovie, {{"fileId", fileId}}));
}
uint64_t NextEventType(ServiceClient& events, uint64_t queue) {
  return Field(events.Result(Exec(kReadEventQueue, {{"queueId", queue}})).valueForKey("event"), "type");
}

// Writes a movie into `drive` with the simulator's make-movie.
::testing::AssertionResult MakeMovie(const std::string& drive, const std::string& number, const char* name,
                                     const char* width, const char* height, const std::string& frames,
                                     bool sparse = false) {
  std::vector<std::string> args = {"make-movie", drive,    "--width", width,  "--height", height,
                                   "--frames",   frames,   "--number", number, "--name",   name};
  if (sparse) args.push_back("--sparse");
  const ToolRun run = RunTool(args);
  if (run.status == 0) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "make-movie: " << run.err;
}

TEST_F(ServiceTest, DescribesTheDriveAndItsMovies) {
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  EXPECT_EQ(Field(client.Result(Wire("82 A3'act' A8'verCheck' A3'ver' 00")), "ver"), 0u);
  EXPECT_TRUE(Detected(client));
  ASSERT_EQ(Count(client), kMovies);

  for (unsigned i = 0; i < kMovies; ++i) {
    SCOPED_TRACE(m_plan[i].stem());
    const MovieSpec& spec = m_plan[i];
    const TinyMsgPackObject info = Info(client, i);
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
    // By listed name or by bare name.
    const Bytes byName = Exec(kGetMovieIndex, "name", i % 2 ? spec.stem() : spec.name);
    EXPECT_EQ(Field(client.Result(byName), "index"), i);

    const TinyMsgPackObject data = client.Result(Exec(kReadInfoFile, {{"fileId", i}})).valueForKey("data");
    ASSERT_EQ(data.type(), TinyMsgPackObject::Blob);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(data.blobData()), data.blobSize()),
              testsupport::ReadFile(m_drive + "/" + spec.stem() + ".info"));
  }
}

// Two files of one movie in one client share its connection, and the
// protocol names both by the same fileId: they share one segment, and
// whichever closes first, the other must go on reading right frames.
TEST_F(ServiceTest, FramesArriveInASegmentSharedByTheOpeningsOfAMovie) {
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  const unsigned movie = 1;
  const uint64_t frameBytes = FrameBytes(movie);
  const std::string mapping = Open(client, movie);
  EXPECT_EQ(mapping.rfind("zebtrksvc-", 0), 0u);
  CSharedMemory segment;
  ASSERT_TRUE(segment.Open(mapping.c_str()));
  EXPECT_EQ(segment.size(), frameBytes);
  EXPECT_EQ(Open(client, movie), mapping);
  EXPECT_EQ(Segments(), std::set<std::string>{mapping});

  for (uint64_t frame : {uint64_t{0}, uint64_t{5}, uint64_t{kFrames - 1}, uint64_t{5}}) {
    SCOPED_TRACE(frame);
    EXPECT_EQ(ReadFrame(client, movie, frame), "");
    EXPECT_TRUE(SegmentHolds(segment, FileBytes(DataPath(movie), frame * frameBytes, frameBytes)));
  }
  EXPECT_EQ(ReadFrame(client, movie, kFrames), "frame 12 is past the end of movie 1 (12 frames)");

  ASSERT_EQ(Close(client, movie), "");  // the newer file goes
  EXPECT_EQ(Segments(), std::set<std::string>{mapping});
  for (uint64_t frame : {uint64_t{7}, uint64_t{0}}) {
    SCOPED_TRACE(frame);
    ASSERT_EQ(ReadFrame(client, movie, frame), "");
    EXPECT_TRUE(SegmentHolds(segment, FileBytes(DataPath(movie), frame * frameBytes, frameBytes)));
  }
  EXPECT_EQ(Close(client, movie), "");
  EXPECT_TRUE(Segments().empty());
  EXPECT_EQ(Close(client, movie), "movie 1 is not open on this connection");
}

// When the list shifts between two openings of one position, the position
// names two movies: each keeps its own segment and gets its own frames as far
// as it reaches, and both live until the position's last opening closes (the
// service cannot tell whose file a CloseMovie ends).
TEST_F(ServiceTest, APositionThatNamesAnotherMovieMeanwhileServesBoth) {
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  const std::string before = Open(client, 1);
  // A longer movie listed right after the first takes position 1.
  const std::string number = std::to_string(m_plan[0].number);
  ASSERT_TRUE(MakeMovie(m_drive, number, "Zz Late", "64", "48", "20"));
  ASSERT_TRUE(WaitUntil([&] { return Count(client) == kMovies + 1; }));
  ASSERT_STREQ(Info(client, 1).valueForKey("name").stringValue(), "Zz Late");
  const std::string after = Open(client, 1);
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
    for (int i = 0; i < step.closesBefore; ++i) ASSERT_EQ(Close(client, 1), "");
    ASSERT_EQ(ReadFrame(client, 1, step.frame), "");
    EXPECT_TRUE(SegmentHolds(first, FileBytes(DataPath(1), step.firstHolds * FrameBytes(1), FrameBytes(1))));
    EXPECT_TRUE(SegmentHolds(second, FileBytes(addedPath, step.frame * addedBytes, addedBytes)));
    EXPECT_EQ(Segments(), (std::set<std::string>{before, after}));
  }
  EXPECT_EQ(ReadFrame(client, 1, 20), "frame 20 is past the end of movie 1 (20 frames)");
  ASSERT_EQ(Close(client, 1), "");
  EXPECT_TRUE(Segments().empty());
}

TEST_F(ServiceTest, FaultsAreAnsweredWithAnErrorAndTheConnectionGoesOn) {
  const struct {
    const char* what;
    Bytes request;
    std::string error;
  } cases[] = {
      {"unknown ordinal", Exec(99), "unknown ordinal 99"},
      {"unknown act", Wire("81 A3'act' A4'nope'"), "unknown act \"nope\""},
      {"no act", Wire("81 A3'ord' 01"), "missing \"act\""},
      {"act not a string", Wire("82 A3'act' 05 A3'ord' 01"), "\"act\" must be a string"},
      {"no ord", Wire("81 A3'act' A4'exec'"), "missing \"ord\""},
      {"negative ord", Wire("82 A3'act' A4'exec' A3'ord' FF"), "\"ord\" must be a non-negative integer"},
      {"version check without ver", Wire("81 A3'act' A8'verCheck'"), "missing \"ver\""},
      {"no params", Exec(kGetMovieInfo), "missing parameter \"index\""},
      {"params not a map", Wire(kExec + "02 A6'params' 91 00"), "\"params\" must be a map"},
      {"index as text", Wire(kExec + "02 A6'params' 81 A5'index' A1'0'"),
       "parameter \"index\" must be a non-negative integer"},
      {"index past the list", Exec(kGetMovieInfo, {{"index", 7}}), "no movie at index 7"},
      {"fileId past the list", Exec(kOpenMovie, {{"fileId", 3}}), "no movie at index 3"},
      {"huge fileId", Exec(kReadInfoFile, {{"fileId", 1ull << 40}}), "no movie at index 1099511627776"},
      {"delete past the list", Exec(kDeleteMovie, {{"fileId", 9}}), "no movie at index 9"},
      {"frame of a movie not open", Exec(kReadFrame, {{"fileId", 0}, {"frameNumber", 0}}),
       "movie 0 is not open on this connection"},
      {"frame without its number", Exec(kReadFrame, {{"fileId", 0}}), "missing parameter \"frameNumber\""},
      {"name as a number", Wire(kExec + "03 A6'params' 81 A4'name' 05"), "parameter \"name\" must be a string"},
      {"unknown name", Exec(kGetMovieIndex, "name", "Nowhere"), "no movie named \"Nowhere\""},
      {"destroy unknown queue", Exec(kDestroyEventQueue, {{"queueId", 77}}), "no event queue 77"},
      {"read unknown queue", Exec(kReadEventQueue, {{"queueId", 77}}), "no event queue 77"},
      {"unknown keys are skipped", Wire("83 A4'junk' 81 A4'deep' 92 C4 03 01 02 03 C0 A3'act' A4'exec' A3'ord' 01"),
       ""},
  };
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(client.Error(c.request), c.error);
    EXPECT_EQ(Count(client), kMovies);  // still usable
  }
}

TEST_F(ServiceTest, UndecodableRequestClosesOnlyItsConnection) {
  const char* cases[] = {"91 01", "A4'exec'", "C1", "81 A3'act' D4 01 00", "81 01 02"};
  ServiceClient bystander;
  ASSERT_TRUE(bystander.Connect());
  for (const char* request : cases) {
    SCOPED_TRACE(request);
    ServiceClient client;
    ASSERT_TRUE(client.Connect());
    ASSERT_TRUE(client.Send(Wire(request)));
    EXPECT_TRUE(client.ClosedByService());
    EXPECT_TRUE(Detected(bystander));
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
  return EventsUntil(events, queue, [&] { return Count(requests) == count; });
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
  EXPECT_EQ(Count(requests), kMovies - 1);  // answered after the rescan
  for (const char* gone : {".dat", ".info", ".meta"}) EXPECT_FALSE(PathExists(stem + gone)) << gone;
  EXPECT_TRUE(PathExists(stem + ".v2.txt"));
  EXPECT_TRUE(EventsUntilCount(events, queue, requests, kMovies - 1));

  // A movie written into the drive by someone else.
  ASSERT_TRUE(MakeMovie(m_drive, "40", "Dropped In", "64", "48", "3"));
  EXPECT_TRUE(EventsUntilCount(events, queue, requests, kMovies));
  EXPECT_STREQ(Info(requests, kMovies - 1).valueForKey("name").stringValue(), "Dropped In");

  // A movie rewritten in place under the same name is read again.
  ASSERT_TRUE(MakeMovie(m_drive, "40", "Dropped In", "32", "16", "2"));
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
  EXPECT_EQ(NextEventType(events, fresh), 1u);
  EXPECT_EQ(NextEventType(events, fresh), 1u);
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
  EXPECT_FALSE(Detected(requests));
  EXPECT_EQ(requests.Error(Exec(kDeleteAllMovies)), "no drive present");

  ASSERT_EQ(rename(away.c_str(), m_drive.c_str()), 0);
  EXPECT_TRUE(EventsUntilCount(events, queue, requests, kMovies));
  EXPECT_TRUE(Detected(requests));

  // An empty drive folder appearing is a change too, though no movie came.
  ASSERT_EQ(rename(m_drive.c_str(), away.c_str()), 0);
  EXPECT_TRUE(EventsUntilCount(events, queue, requests, 0));
  ASSERT_EQ(mkdir(m_drive.c_str(), 0755), 0);
  EXPECT_EQ(NextEventType(events, queue), 1u);
  EXPECT_TRUE(Detected(requests));
}

TEST_F(ServiceTest, DestroyingAQueueEndsTheReadPendingOnIt) {
  ServiceClient requests, events;
  ASSERT_TRUE(requests.Connect());
  ASSERT_TRUE(events.Connect());
  const uint64_t queue = Field(events.Result(Exec(kCreateEventQueue)), "queueId");
  ASSERT_TRUE(events.Send(Exec(kReadEventQueue, {{"queueId", queue}})));
  // The pending read blocks only its own connection.
  EXPECT_EQ(Count(requests), kMovies);
  EXPECT_EQ(requests.Error(Exec(kDestroyEventQueue, {{"queueId", queue}})), "");
  // "Closed", whether the read was already waiting or arrived just after.
  const TinyMsgPackObject closed = events.Receive();
  ASSERT_EQ(ErrorText(closed), "");
  EXPECT_EQ(Field(closed.valueForKey("result").valueForKey("event"), "type"), 0u);
  EXPECT_EQ(NextEventType(events, queue), 0u);
  EXPECT_EQ(requests.Error(Exec(kDestroyEventQueue, {{"queueId", queue}})),
            "no event queue " + std::to_string(queue));
}

TEST_F(ServiceTest, AClientThatLeavesLeavesNoSegment) {
  {
    ServiceClient plain, waiting;
    ASSERT_TRUE(plain.Connect());
    ASSERT_TRUE(waiting.Connect());
    Open(plain, 0);
    Open(plain, 2);
    Open(waiting, 1);
    const uint64_t queue = Field(waiting.Result(Exec(kCreateEventQueue)), "queueId");
    ASSERT_TRUE(waiting.Send(Exec(kReadEventQueue, {{"queueId", queue}})));
    EXPECT_EQ(Segments().size(), 3u);
  }  // both disconnect, one of them while waiting for an event
  EXPECT_TRUE(WaitUntil([] { return Segments().empty(); }));
}

TEST_F(ServiceTest, ASecondInstanceIsRefusedAndTheFirstGoesOn) {
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  const ToolRun second = RunTool({"--drive", m_drive});
  EXPECT_EQ(second.status, 1);
  EXPECT_NE(second.err.find("another zebtrksvc is running"), std::string::npos) << second.err;
  EXPECT_TRUE(PathExists("/tmp/zebtrksvc"));
  EXPECT_EQ(Count(client), kMovies);
  ServiceClient later;
  ASSERT_TRUE(later.Connect());
  EXPECT_TRUE(Detected(later));
}

TEST_F(ServiceTest, SigtermRemovesTheSocketAndEverySegment) {
  ServiceClient client, waiting;
  ASSERT_TRUE(client.Connect());
  ASSERT_TRUE(waiting.Connect());
  Open(client, 0);
  Open(client, 1);
  const uint64_t queue = Field(waiting.Result(Exec(kCreateEventQueue)), "queueId");
  ASSERT_TRUE(waiting.Send(Exec(kReadEventQueue, {{"queueId", queue}})));
  ASSERT_EQ(Segments().size(), 2u);

  m_service.Signal(SIGTERM);
  EXPECT_EQ(m_service.Wait(20), 0);
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

// The movie's size in KiB and its frames past 4 GiB of data. (Reading such
// frames through the plug-in is in tests/trk/MovieFileSimulatorTest.cpp.)
TEST_F(ServiceTest, FramesBeyondFourGibibytesOfASparseMovie) {
  // 640 x 512 x 2 bytes x 6600 frames = 4.33 GB, a hole but for the ends.
  const uint32_t frames = 6600;
  ASSERT_TRUE(MakeMovie(m_drive, "90", "Long Watch", "640", "512", std::to_string(frames), true));
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  ASSERT_TRUE(WaitUntil([&] { return Count(client) == kMovies + 1; }));
  const uint64_t frameBytes = 640 * 512 * 2;
  const TinyMsgPackObject info = Info(client, kMovies);
  EXPECT_EQ(Field(info, "size"), frameBytes * frames / 1024);
  EXPECT_EQ(Field(info, "numFrames"), frames);

  CSharedMemory segment;
  ASSERT_TRUE(segment.Open(Open(client, kMovies).c_str()));
  const std::string dataPath = m_drive + "/90-Long Watch.dat";
  for (uint64_t frame : {uint64_t{frames - 1}, uint64_t{frames / 2}}) {
    SCOPED_TRACE(frame);
    ASSERT_EQ(ReadFrame(client, kMovies, frame), "");
    EXPECT_TRUE(SegmentHolds(segment, FileBytes(dataPath, frame * frameBytes, frameBytes)));
  }
}

// Without the fixture's service.
class ServiceStartTest : public ::testing::Test {
 protected:
  testsupport::TempDir m_scratch;
};

TEST_F(ServiceStartTest, AStaleSocketFileIsReplaced) {
  if (ServiceAnswers()) GTEST_SKIP() << "a service already answers on /tmp/zebtrksvc";
  ASSERT_TRUE(LeaveStaleSocket("/tmp/zebtrksvc"));
  ASSERT_FALSE(ServiceAnswers());

  ChildProcess service;
  ASSERT_TRUE(service.Start({ToolPath(), "--drive", m_scratch / "absent"}, {}, m_scratch / "log"));
  ASSERT_TRUE(WaitUntil([&] { return ServiceAnswers() || !service.Running(); }));
  ServiceClient client;
  ASSERT_TRUE(client.Connect());
  EXPECT_FALSE(Detected(client));
  EXPECT_EQ(Count(client), 0u);
  service.Signal(SIGINT);
  EXPECT_EQ(service.Wait(20), 0);
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
      {{"make-movie", dir, "--name", std::string(64, 'n')}, 2,
       "is 64 bytes long; the plug-in shows names of more than 63 bytes as empty"},
      {{"--help"}, 0, "usage: zebtrksvc --drive DIR"},
      {{"--version"}, 0, "zebtrksvc 0."},
  };
  for (const Case& c : cases) {
    std::string line;
    for (const std::string& arg : c.args) line += arg + " ";
    SCOPED_TRACE(line);
    const ToolRun run = RunTool(c.args);
    EXPECT_EQ(run.status, c.status);
    const std::string& text = c.status == 0 ? run.out : run.err;
    EXPECT_NE(text.find(c.message), std::string::npos) << text;
    if (c.status == 2) {
      // One line, and where to look.
      EXPECT_EQ(run.err.find('\n'), run.err.size() - 1) << run.err;
      EXPECT_NE(run.err.find("(zebtrksvc --help shows the usage)"), std::string::npos);
    }
  }
  EXPECT_FALSE(PathExists(dir));
}

TEST_F(ServiceStartTest, DemoDrivesFollowTheSeed) {
  for (const char* drive : {"a3", "b3", "c4"}) {
    const ToolRun run =
        RunTool({"make-demo", m_scratch / drive, "--movies", "4", "--frames", "5", "--seed", drive + 1});
    ASSERT_EQ(run.status, 0) << run.err;
  }
  for (const MovieSpec& spec : DemoDrive::Plan(4, 3, 5)) {
    for (const char* extension : {".dat", ".info"}) {
      const std::string file = "/" + spec.stem() + extension;
      const std::string a = testsupport::ReadFile(m_scratch / "a3" + file);
      ASSERT_FALSE(a.empty()) << file;
      EXPECT_TRUE(a == testsupport::ReadFile(m_scratch / "b3" + file)) << file;
    }
  }
  const std::string first = "/" + DemoDrive::Plan(4, 3, 5)[0].stem() + ".dat";
  const std::string other = "/" + DemoDrive::Plan(4, 4, 5)[0].stem() + ".dat";
  EXPECT_FALSE(testsupport::ReadFile(m_scratch / "a3" + first) == testsupport::ReadFile(m_scratch / "c4" + other));
}

}  // namespace
}  // namespace tooltest
