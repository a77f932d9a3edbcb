#include "bench/ResultsReporter.h"

#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace {

// Nanoseconds in one unit of `unit`.
double NanosecondsPer(benchmark::TimeUnit unit) {
  switch (unit) {
    case benchmark::kSecond:
      return 1e9;
    case benchmark::kMillisecond:
      return 1e6;
    case benchmark::kMicrosecond:
      return 1e3;
    case benchmark::kNanosecond:
      break;
  }
  return 1.0;
}

}  // namespace

ResultsReporter::ResultsReporter(const std::string& path)
    : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_ColorTabular : OO_Tabular) {
  if (path.empty()) return;
  m_file = std::fopen(path.c_str(), "a");
  if (m_file == nullptr) std::fprintf(stderr, "results file %s: %s\n", path.c_str(), std::strerror(errno));
}

ResultsReporter::~ResultsReporter() {
  if (m_file != nullptr) std::fclose(m_file);
}

void ResultsReporter::ReportRuns(const std::vector<Run>& reports) {
  ConsoleReporter::ReportRuns(reports);
  if (m_file == nullptr) return;
  for (const Run& run : reports) {
    bool repeated = run.repetitions > 1;
    bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
    if (run.error_occurred || (repeated ? median : run.run_type == Run::RT_Iteration)) WriteRun(run);
  }
  std::fflush(m_file);
}

void ResultsReporter::WriteRun(const Run& run) {
  // "/real_time" is how the library marks UseRealTime; the table does not care.
  std::string name = run.run_name.str();
  const std::string marker = "/real_time";
  size_t at = name.find(marker);
  if (at != std::string::npos) name.erase(at, marker.size());
  if (run.error_occurred) {
    std::fprintf(m_file, "%s\terror=%s\n", name.c_str(), run.error_message.c_str());
    return;
  }
  double unit = NanosecondsPer(run.time_unit);
  std::fprintf(m_file, "%s\t%.6g\tcpu_ns=%.6g", name.c_str(), run.GetAdjustedRealTime() * unit,
               run.GetAdjustedCPUTime() * unit);
  for (const auto& counter : run.counters) std::fprintf(m_file, "\t%s=%.6g", counter.first.c_str(), double(counter.second));
  std::fputc('\n', m_file);
}
