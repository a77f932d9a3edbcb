#include "tools/zebtrksvc/Log.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <string>

namespace zebtrksvc {
namespace {
std::atomic<bool> g_verbose{false};
}  // namespace

void SetVerbose(bool verbose) { g_verbose = verbose; }

bool Verbose() { return g_verbose; }

void Logf(const char* format, ...) {
  if (!g_verbose) return;
  char text[1024];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof(text), format, args);
  va_end(args);
  // One fputs per line: stdio locks the stream, so lines of different
  // threads do not interleave.
  std::string line = std::string("zebtrksvc: ") + text + "\n";
  fputs(line.c_str(), stderr);
}

}  // namespace zebtrksvc
