// ResourceSnapshot: what a test may leave behind, taken before and compared
// after a scenario: the process's open descriptors and the entries of /dev/shm
// (except the scratch segments that another test process names with its own
// "zebtrk-test-<pid>-" tag, since those tests run in parallel with this one).
//
// Usage:
//   ResourceSnapshot before;
//   ... scenario ...
//   EXPECT_EQ(before.Leaks(), "");   // text naming every new descriptor / segment
//
// Not thread-safe; take and compare snapshots while no other thread of the test
// opens or closes descriptors.
#pragma once

#include <cstddef>
#include <set>
#include <string>

namespace testsupport {

// Descriptor numbers open in this process now (from /proc/self/fd).
std::set<int> OpenDescriptors();

// Names in /dev/shm now.
std::set<std::string> ShmEntries();

// Threads of this process now (entries of /proc/self/task). A thread that has
// ended is gone from the count even before it is joined.
size_t ThreadCount();

class ResourceSnapshot {
 public:
  ResourceSnapshot();

  // Empty when nothing new is open or present; otherwise a readable list of
  // the descriptors (with their targets) and segments that appeared since the
  // snapshot was taken.
  std::string Leaks() const;

 private:
  std::set<int> m_fds;
  std::set<std::string> m_shm;
};

}  // namespace testsupport
