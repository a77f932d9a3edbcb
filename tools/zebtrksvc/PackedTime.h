// PackedTime: the time codes that the movie protocol carries in "startTime"
// and "endTime", and the recording time of "rtcTime".
//
// A packed time code T is built from a clock word C and a fraction word U:
//   C = day << 18 | hour << 12 | minute << 6 | second
//       (day: day of the year, 1-based as in %j; UTC)
//   U = microseconds within the second (millisecond x 1000 + microsecond)
//   T bits  0-15: upper half of C     bits 16-31: lower half of C
//   T bits 32-47: upper half of U     bits 48-63: lower half of U
// Example: day 123, 04:05:06, U = 789012 packs to 0x0A14000C414601EC.
//
// Pure functions; any thread.
#pragma once

#include <cstdint>

namespace zebtrksvc {

// Packs the fields as above. Fields wider than their bits are masked (day 9
// bits, hour, minute and second 6 bits each, fraction 32 bits).
uint64_t PackTimeCode(unsigned day, unsigned hour, unsigned minute, unsigned second,
                      uint32_t fraction);

// The packed code of a point in time given in the framework's ticks (100 ns
// since 1601-01-01 00:00:00 UTC), taken in UTC; sub-microsecond ticks are
// dropped.
uint64_t PackTime(long ticks);

// Whole seconds since 1970-01-01 00:00:00 UTC of a time in ticks (rounded
// down); 0 for a time before 1970.
uint64_t UnixSeconds(long ticks);

}  // namespace zebtrksvc
