// main() of every benchmark program: the library's usual flags, the console
// output, and the results file named by ZEBTRK_BENCH_RESULTS (bench/run sets
// it) for the summary table.
#include <cstdlib>

#include <benchmark/benchmark.h>

#include "bench/ResultsReporter.h"

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  const char* path = std::getenv("ZEBTRK_BENCH_RESULTS");
  ResultsReporter reporter(path != nullptr ? path : "");
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
