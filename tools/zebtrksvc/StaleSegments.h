// StaleSegments: the naming scheme of the simulator's shared memory segments
// and the clean-up of segments that a killed simulator left behind.
//
// A segment is named "zebtrksvc-<pid>-<hex>", <pid> being the process that
// made it. A simulator removes its segments when it stops, but one ended by
// SIGKILL (or a crash) cannot; so at start-up a simulator removes every
// segment of this scheme whose process no longer exists. Segments of living
// processes, of other schemes and of other programs are left alone.
//
// Threads: stateless; RemoveOrphans is meant for start-up, before any
// connection makes segments.
#pragma once

#include <string>
#include <vector>

namespace zebtrksvc {

class StaleSegments {
 public:
  // "zebtrksvc-<pid of this process>-": the prefix of this process's segment
  // names (a random hex number follows).
  static std::string OwnPrefix();
  // Removes the segments in `directory` (where the system keeps shared memory
  // objects) named by the scheme above whose process is gone: no process has
  // that id (kill(pid, 0) fails with ESRCH). Returns the names removed.
  static std::vector<std::string> RemoveOrphans(const char* directory = "/dev/shm");
  // The owner's process id of a segment name of the scheme; 0 for any other
  // name.
  static long OwnerOf(const std::string& name);
};

}  // namespace zebtrksvc
