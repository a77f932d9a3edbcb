// ResultsReporter: the console reporter of every benchmark program, which also
// appends one line per result to a plain results file for bench/run's table.
//
// A line is: the benchmark's name, a tab, its real time per iteration in
// nanoseconds, a tab and "cpu_ns=" with the CPU time per iteration of the
// benchmark's thread, then for each user counter a tab and "name=value". With
// repetitions only the median aggregate is written (under the plain name);
// without them every run is. Failed runs are written as "name<TAB>error=...".
//
// Ownership: owns the results file (closed by the destructor). Threads: the
// benchmark library calls it from its own thread only.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

class ResultsReporter : public benchmark::ConsoleReporter {
 public:
  // Appends to `path` when it is not empty; an unopenable path prints a warning
  // on stderr once and leaves the console output alone.
  // Colours on a terminal only.
  explicit ResultsReporter(const std::string& path);
  ~ResultsReporter() override;
  ResultsReporter(const ResultsReporter&) = delete;
  ResultsReporter& operator=(const ResultsReporter&) = delete;

  void ReportRuns(const std::vector<Run>& reports) override;

 private:
  void WriteRun(const Run& run);

  FILE* m_file = nullptr;
};
