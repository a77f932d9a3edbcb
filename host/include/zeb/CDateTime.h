// CDateTime: a point in time (or a difference of two), in UTC.
//
// Held as a signed 64-bit count of 100-nanosecond ticks since
// 1601-01-01 00:00:00 UTC. A default-constructed CDateTime is empty: it holds
// 0 ticks, IsEmpty() is true and Format renders every field as zeros
// ("%j:%(irig)" gives "000:00:00:00.000.000"), which is how "no time" reads.
// The one real instant of 0 ticks (1601-01-01 00:00) is indistinguishable
// from empty and formats the same way.
//
// Timestamp kinds (NewTimestamp's second argument, GetTimestamp's argument):
//   0  100-ns ticks        1  microseconds        2  milliseconds
//   3  seconds
// counted from 1601-01-01 UTC for a point in time, from zero for a
// difference. Conversions to coarser units truncate toward zero.
//
// operator- gives the difference as a CDateTime whose ticks are the
// difference of the two tick counts, so (end - start).GetTimestamp(1) is the
// duration in microseconds.
//
// Format language (all fields UTC, proleptic Gregorian calendar):
//   %Y  year, 4 digits          %m  month 01-12       %d  day 01-31
//   %H  hour 00-23              %M  minute 00-59      %S  second 00-59
//   %j  day of the year 001-366 (1-based)
//   %(irig)  time of day "HH:MM:SS.mmm.uuu" (milliseconds and microseconds)
//   %%  a literal '%'
// Anything else is copied as it stands, including unknown %-sequences.
//
// A plain value: trivially copyable and destructible; no shared state.
#pragma once

#include <zeb/Api.h>
#include <zeb/CString.h>

namespace zeb {

class ZEB_API CDateTime {
 public:
  // Ticks of 1970-01-01 00:00:00 UTC.
  static constexpr long kUnixEpochTicks = 116444736000000000L;
  static constexpr long kTicksPerSecond = 10000000L;

  CDateTime() : m_ticks(0) {}

  // A time from `value` in the units of `kind` (0 to 3, above). An unknown
  // kind gives an empty time. Values out of the 64-bit tick range saturate.
  static CDateTime NewTimestamp(long value, int kind);
  // The current time.
  static CDateTime Now();

  // The time in the units of `kind` (0 to 3); 0 for an unknown kind.
  long GetTimestamp(int kind) const;
  long ticks() const { return m_ticks; }
  bool IsEmpty() const { return m_ticks == 0; }

  // The difference this - other, in ticks (saturating).
  CDateTime operator-(const CDateTime& other) const;
  bool operator==(const CDateTime& other) const { return m_ticks == other.m_ticks; }
  bool operator!=(const CDateTime& other) const { return m_ticks != other.m_ticks; }
  bool operator<(const CDateTime& other) const { return m_ticks < other.m_ticks; }

  // Text of the time in the format language above; null gives "".
  CString Format(const char* format) const;

 private:
  explicit CDateTime(long ticks) : m_ticks(ticks) {}

  long m_ticks;
};

}  // namespace zeb
