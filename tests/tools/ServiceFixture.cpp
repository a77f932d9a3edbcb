#include "tests/tools/ServiceFixture.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "ipc/LocalSocket.h"
#include "tests/support/ResourceSnapshot.h"

namespace tooltest {

bool WaitUntil(const std::function<bool()>& condition, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

bool ServiceAnswers() {
  LocalSocket probe;
  return probe.Connect("zebtrksvc");
}

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

std::string FileBytes(const std::string& path, uint64_t offset, size_t size) {
  std::string bytes(size, '\0');
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) return std::string();
  const ssize_t n = pread(fd, &bytes[0], size, static_cast<off_t>(offset));
  close(fd);
  return n == static_cast<ssize_t>(size) ? bytes : std::string();
}

uint64_t Field(const TinyMsgPackObject& map, const char* key) { return map.valueForKey(key).posIntegerValue(); }

::testing::AssertionResult SegmentHolds(const CSharedMemory& segment, const std::string& expected) {
  if (expected.empty()) return ::testing::AssertionFailure() << "no expected bytes";
  if (segment.data() == nullptr || segment.size() < expected.size()) {
    return ::testing::AssertionFailure() << "segment not mapped or too small";
  }
  const char* held = static_cast<const char*>(segment.data());
  for (size_t i = 0; i < expected.size(); ++i) {
    if (held[i] != expected[i]) return ::testing::AssertionFailure() << "bytes differ from offset " << i;
  }
  return ::testing::AssertionSuccess();
}

void ServiceFixture::SetUp() {
  if (ServiceAnswers()) GTEST_SKIP() << "a service already answers on /tmp/zebtrksvc";
  m_drive = m_scratch / "drive";
  const ToolRun demo = RunTool({"make-demo", m_drive, "--movies", std::to_string(kMovies), "--frames",
                                std::to_string(kFrames), "--seed", std::to_string(kSeed)},
                               m_scratch.path());
  ASSERT_EQ(demo.status, 0) << demo.err;
  m_plan = zebtrksvc::DemoDrive::Plan(kMovies, kSeed, kFrames);
  ASSERT_TRUE(StartService(m_service, m_drive));
  m_started = true;
}

void ServiceFixture::TearDown() {
  if (!m_started) return;
  m_service.Signal(SIGTERM);
  EXPECT_EQ(m_service.Wait(20000), 0) << testsupport::ReadFile(m_scratch / "service.err");
}

bool ServiceFixture::StartService(ChildProcess& child, const std::string& drive, const std::string& name) {
  if (!child.Start(ToolPath(), {"--drive", drive, "--verbose"}, m_scratch / (name + ".out"),
                   m_scratch / (name + ".err"))) {
    return false;
  }
  return WaitUntil([&] { return ServiceAnswers() || !child.Running(); }) && child.Running();
}

std::string ServiceFixture::DataPath(unsigned index) const {
  return m_drive + "/" + m_plan[index].stem() + ".dat";
}

uint64_t ServiceFixture::FrameBytes(unsigned index) const {
  return uint64_t{m_plan[index].width} * m_plan[index].height * 2;
}

}  // namespace tooltest
