// CSharedMemory on real POSIX shared memory: create, open and share across a
// child process, ownership and removal, failures, moves, random names, the
// segment mode and the untouched umask.
#include "ipc/CSharedMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <cstring>
#include <regex>
#include <set>

#include "tests/ipc/IpcTestSupport.h"

namespace {

using ipctest::IpcTest;
using ipctest::PathExists;

std::string ShmPath(const std::string& name) { return "/dev/shm/" + name; }

class CSharedMemoryTest : public IpcTest {};

TEST_F(CSharedMemoryTest, SegmentIsSharedAndOnlyTheOwnerRemovesIt) {
  std::string name = Name();
  CSharedMemory creator;
  ASSERT_TRUE(creator.Create(name.c_str(), 4096));
  EXPECT_EQ(creator.name(), name);
  EXPECT_EQ(creator.size(), 4096u);
  ASSERT_NE(creator.data(), nullptr);
  std::memcpy(creator.data(), "frame", 5);
  {
    CSharedMemory opener;
    ASSERT_TRUE(opener.Open(name.c_str()));
    EXPECT_EQ(opener.size(), 4096u);  // the whole segment, as created
    EXPECT_EQ(opener.name(), name);
    EXPECT_EQ(std::memcmp(opener.data(), "frame", 5), 0);
  }
  EXPECT_TRUE(PathExists(ShmPath(name)));  // the opener left it in place

  pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    CSharedMemory inChild;
    bool ok = inChild.Open(name.c_str()) && inChild.size() == 4096;
    if (ok) std::memcpy(static_cast<char*>(inChild.data()) + 4091, "child", 5);
    _exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(std::memcmp(static_cast<char*>(creator.data()) + 4091, "child", 5), 0);

  creator.Close();
  EXPECT_FALSE(PathExists(ShmPath(name)));
  EXPECT_EQ(creator.data(), nullptr);
  EXPECT_EQ(creator.size(), 4096u);  // still reports the closed segment
  EXPECT_EQ(creator.name(), name);
  // A second Close, or a destructor after Close, must not remove a new
  // segment that someone else made under the same name since.
  CSharedMemory newcomer;
  ASSERT_TRUE(newcomer.Create(name.c_str(), 100));
  creator.Close();
  EXPECT_TRUE(PathExists(ShmPath(name)));
}

TEST_F(CSharedMemoryTest, FailuresLeaveTheObjectClosedAndForeignSegmentsAlone) {
  std::string taken = Name(), missing = Name(), empty = Name(), zero = Name();
  CSharedMemory owner;
  ASSERT_TRUE(owner.Create(taken.c_str(), 64));
  std::memcpy(owner.data(), "keep", 4);
  // A segment of size 0, made by someone else.
  int fd = shm_open(("/" + empty).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
  ASSERT_NE(fd, -1);
  close(fd);

  struct Case {
    const char* what;
    bool open;  // Open, else Create of `size` bytes
    std::string name;
    size_t size;
  } cases[] = {
      {"create of a taken name", false, taken, 64},
      {"create of size 0", false, zero, 0},
      {"open of a missing name", true, missing, 0},
      {"open of a segment of size 0", true, empty, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    CSharedMemory memory;
    EXPECT_FALSE(c.open ? memory.Open(c.name.c_str()) : memory.Create(c.name.c_str(), c.size));
    EXPECT_EQ(memory.data(), nullptr);
    EXPECT_EQ(NewDescriptors().size(), 1u);  // only the owner's descriptor
  }
  EXPECT_TRUE(PathExists(ShmPath(empty)));        // the failed Open left it alone
  EXPECT_EQ(std::memcmp(owner.data(), "keep", 4), 0);  // the taken one is untouched
  CSharedMemory reader;
  EXPECT_TRUE(reader.Open(taken.c_str()));
  shm_unlink(("/" + empty).c_str());

  // A failed call leaves the object usable.
  CSharedMemory reused;
  EXPECT_FALSE(reused.Open(missing.c_str()));
  EXPECT_TRUE(reused.Create(missing.c_str(), 8));
}

TEST_F(CSharedMemoryTest, MovesTransferTheSegmentAndLeaveTheSourceEmpty) {
  std::string first = Name(), second = Name();
  CSharedMemory a;
  ASSERT_TRUE(a.Create(first.c_str(), 32));
  void* mapping = a.data();

  auto expectEmpty = [](const CSharedMemory& m) {
    EXPECT_EQ(m.data(), nullptr);
    EXPECT_EQ(m.size(), 0u);
    EXPECT_EQ(m.name(), "");
  };
  {
    CSharedMemory b(std::move(a));
    expectEmpty(a);
    a = std::move(b);  // back into the moved-from object
    expectEmpty(b);
  }  // destroying the moved-from object removes nothing
  EXPECT_TRUE(PathExists(ShmPath(first)));
  EXPECT_EQ(a.data(), mapping);
  EXPECT_EQ(a.size(), 32u);

  // Assigning onto an owner closes it first: its own segment goes.
  CSharedMemory c;
  ASSERT_TRUE(c.Create(second.c_str(), 16));
  c = std::move(a);
  EXPECT_FALSE(PathExists(ShmPath(second)));
  EXPECT_EQ(c.name(), first);  // every member moves along
  CSharedMemory& alias = c;
  c = std::move(alias);  // self-assignment keeps the mapping
  EXPECT_EQ(c.data(), mapping);
  c.Close();
  EXPECT_FALSE(PathExists(ShmPath(first)));  // ownership moved along
}

TEST_F(CSharedMemoryTest, CreateRandomUsesShortUpperCaseHexSuffixes) {
  std::string prefix = Name() + "-r";
  std::regex pattern(prefix + "(0|[1-9A-F][0-9A-F]{0,3})");
  std::vector<CSharedMemory> segments(20);
  std::set<std::string> names;
  for (CSharedMemory& segment : segments) {
    ASSERT_TRUE(segment.CreateRandom(prefix.c_str(), 16));
    EXPECT_TRUE(std::regex_match(segment.name(), pattern)) << segment.name();
    EXPECT_TRUE(PathExists(ShmPath(segment.name())));
    names.insert(segment.name());
  }
  EXPECT_EQ(names.size(), segments.size());  // taken names were skipped

  // Every failure is retried, and none leaves a segment behind.
  CSharedMemory impossible;
  EXPECT_FALSE(impossible.CreateRandom(prefix.c_str(), 0));
  EXPECT_EQ(impossible.data(), nullptr);
}

TEST_F(CSharedMemoryTest, CreateGivesMode0666WithoutTouchingTheUmask) {
  for (mode_t mask : {mode_t(022), mode_t(077), mode_t(0)}) {
    SCOPED_TRACE(testing::Message() << "mask " << std::oct << mask);
    ipctest::ScopedUmask scoped(mask);
    std::string name = Name();
    CSharedMemory memory;
    ASSERT_TRUE(memory.Create(name.c_str(), 8));
    EXPECT_EQ(ipctest::PathMode(ShmPath(name)), mode_t(0666));
    EXPECT_EQ(ipctest::ScopedUmask::Current(), mask);
  }
}

}  // namespace
