// ProcessCpu: CPU time (user + system) used so far by a process, read from
// /proc/<pid>/stat, and by the calling process itself.
//
// /proc counts in clock ticks (sysconf(_SC_CLK_TCK), 100 per second here), so
// a figure over a run of a few tenths of a second is good to a few percent.
//
// Ownership: plain value. Threads: any.
#pragma once

#include <sys/types.h>

class ProcessCpu {
 public:
  // The process `pid` (0: none; every reading is then negative).
  explicit ProcessCpu(pid_t pid) : m_pid(pid) {}
  // From ZEBTRK_BENCH_SERVICE_PID; none when it is unset.
  static ProcessCpu Service();

  // Seconds of CPU time of the process so far; -1 when it cannot be read.
  double Seconds() const;
  // Seconds of CPU time of the calling process (all its threads) so far.
  static double OwnSeconds();

 private:
  pid_t m_pid;
};
