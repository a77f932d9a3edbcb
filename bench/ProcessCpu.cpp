#include "bench/ProcessCpu.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

ProcessCpu ProcessCpu::Service() {
  const char* text = std::getenv("ZEBTRK_BENCH_SERVICE_PID");
  return ProcessCpu(text != nullptr ? pid_t(std::atol(text)) : 0);
}

double ProcessCpu::Seconds() const {
  if (m_pid <= 0) return -1;
  std::string path = "/proc/" + std::to_string(m_pid) + "/stat";
  FILE* file = std::fopen(path.c_str(), "r");
  if (file == nullptr) return -1;
  char line[1024];
  bool read = std::fgets(line, sizeof line, file) != nullptr;
  std::fclose(file);
  if (!read) return -1;
  // The command name (field 2) may hold spaces and parentheses: count fields
  // from the last ')'. utime and stime are fields 14 and 15.
  const char* rest = std::strrchr(line, ')');
  if (rest == nullptr) return -1;
  unsigned long utime = 0, stime = 0;
  if (std::sscanf(rest + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime) != 2) return -1;
  return double(utime + stime) / double(sysconf(_SC_CLK_TCK));
}

double ProcessCpu::OwnSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}
