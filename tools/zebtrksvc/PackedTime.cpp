#include "tools/zebtrksvc/PackedTime.h"

#include <ctime>

#include <zeb/CDateTime.h>

namespace zebtrksvc {
namespace {

// Seconds from 1601-01-01 to 1970-01-01.
constexpr long kUnixEpochSeconds = zeb::CDateTime::kUnixEpochTicks / zeb::CDateTime::kTicksPerSecond;

// Division rounding toward minus infinity, so that a time before 1970 still
// falls into the right second.
long FloorDiv(long value, long divisor) {
  long quotient = value / divisor;
  return (value % divisor < 0) ? quotient - 1 : quotient;
}

}  // namespace

uint64_t PackTimeCode(unsigned day, unsigned hour, unsigned minute, unsigned second,
                      uint32_t fraction) {
  const uint64_t clock = (uint64_t{day} & 0x1FF) << 18 | (uint64_t{hour} & 0x3F) << 12 |
                         (uint64_t{minute} & 0x3F) << 6 | (uint64_t{second} & 0x3F);
  const uint64_t words[4] = {clock >> 16, clock & 0xFFFF, uint64_t{fraction} >> 16,
                             uint64_t{fraction} & 0xFFFF};
  return words[0] | words[1] << 16 | words[2] << 32 | words[3] << 48;
}

uint64_t PackTime(long ticks) {
  const long seconds = FloorDiv(ticks, zeb::CDateTime::kTicksPerSecond);
  const long remainder = ticks - seconds * zeb::CDateTime::kTicksPerSecond;
  const time_t unixSeconds = static_cast<time_t>(seconds - kUnixEpochSeconds);
  tm fields = {};
  if (gmtime_r(&unixSeconds, &fields) == nullptr) return 0;
  return PackTimeCode(static_cast<unsigned>(fields.tm_yday + 1), static_cast<unsigned>(fields.tm_hour),
                      static_cast<unsigned>(fields.tm_min), static_cast<unsigned>(fields.tm_sec),
                      static_cast<uint32_t>(remainder / 10));
}

uint64_t UnixSeconds(long ticks) {
  const long seconds = FloorDiv(ticks, zeb::CDateTime::kTicksPerSecond) - kUnixEpochSeconds;
  return seconds < 0 ? 0 : static_cast<uint64_t>(seconds);
}

}  // namespace zebtrksvc
