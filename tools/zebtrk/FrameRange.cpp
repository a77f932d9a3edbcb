#include "tools/zebtrk/FrameRange.h"

#include <cerrno>
#include <cstdlib>

#include "tools/zebtrk/CliError.h"

namespace {

// A decimal number of digits only; false for anything else (signs, spaces,
// overflow).
bool ParseNumber(const std::string& text, unsigned long& value) {
  if (text.empty() || text.size() > 19) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  value = std::strtoul(text.c_str(), nullptr, 10);
  return true;
}

[[noreturn]] void Fail(const std::string& text, const std::string& why, unsigned long frames) {
  throw CliError(kExitUsage, "bad frame range \"" + text + "\": " + why + " (the movie has " + std::to_string(frames) +
                                 " frames: 0:" + std::to_string(frames) + ")");
}

}  // namespace

FrameRange FrameRange::Parse(const std::string& text, unsigned long frames) {
  FrameRange range;
  range.end = frames;
  const size_t colon = text.find(':');
  if (colon == std::string::npos) {
    if (!ParseNumber(text, range.first)) Fail(text, "expected A:B, A:, :B or a frame number", frames);
    range.end = range.first + 1;
  } else {
    const std::string a = text.substr(0, colon);
    const std::string b = text.substr(colon + 1);
    if (!a.empty() && !ParseNumber(a, range.first)) Fail(text, "\"" + a + "\" is not a frame number", frames);
    if (!b.empty() && !ParseNumber(b, range.end)) Fail(text, "\"" + b + "\" is not a frame number", frames);
  }
  if (range.first >= range.end) Fail(text, "it holds no frame (the end is exclusive)", frames);
  if (range.end > frames) Fail(text, "it reaches past the last frame", frames);
  return range;
}
