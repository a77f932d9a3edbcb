// CDateTime: 100-ns ticks since 1601-01-01 UTC, with a small formatter.
#include <zeb/CDateTime.h>

#include <chrono>
#include <climits>
#include <cstdio>
#include <cstring>

namespace zeb {
namespace {

constexpr long kTicksPerDay = 864000000000L;
constexpr long kDaysFrom1601To1970 = 134774;

// Ticks per unit of a timestamp kind; 0 for an unknown kind.
long TicksPerUnit(int kind) {
  switch (kind) {
    case 0: return 1;
    case 1: return 10L;
    case 2: return 10000L;
    case 3: return CDateTime::kTicksPerSecond;
    default: return 0;
  }
}

long FloorDiv(long a, long b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

// Days since 1970-01-01 of a proleptic Gregorian date (civil algorithm).
long DaysFromCivil(long y, unsigned m, unsigned d) {
  y -= m <= 2;
  const long era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<long>(doe) - 719468;
}

struct SFields {
  long year;
  unsigned month, day, dayOfYear, hour, minute, second, millisecond, microsecond;
};

SFields Split(long ticks) {
  if (ticks == 0) return SFields{0, 0, 0, 0, 0, 0, 0, 0, 0};  // empty: all zeros
  SFields f{};
  const long days = FloorDiv(ticks, kTicksPerDay);
  long rest = ticks - days * kTicksPerDay;  // 0 .. kTicksPerDay-1
  const long z = days - kDaysFrom1601To1970 + 719468;
  const long era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  f.day = doy - (153 * mp + 2) / 5 + 1;
  f.month = mp < 10 ? mp + 3 : mp - 9;
  f.year = static_cast<long>(yoe) + era * 400 + (f.month <= 2);
  f.dayOfYear = static_cast<unsigned>(days - kDaysFrom1601To1970 - DaysFromCivil(f.year, 1, 1) + 1);
  f.hour = static_cast<unsigned>(rest / 36000000000L);
  rest %= 36000000000L;
  f.minute = static_cast<unsigned>(rest / 600000000L);
  rest %= 600000000L;
  f.second = static_cast<unsigned>(rest / CDateTime::kTicksPerSecond);
  rest %= CDateTime::kTicksPerSecond;
  f.millisecond = static_cast<unsigned>(rest / 10000);
  f.microsecond = static_cast<unsigned>((rest / 10) % 1000);
  return f;
}

void AppendNumber(CString& out, const char* format, long value) {
  char buffer[32];
  const int n = std::snprintf(buffer, sizeof buffer, format, value);
  if (n > 0) out.Append(buffer, static_cast<unsigned long>(n));
}

}  // namespace

CDateTime CDateTime::NewTimestamp(long value, int kind) {
  const long factor = TicksPerUnit(kind);
  if (factor == 0) return CDateTime();
  long ticks;
  if (__builtin_mul_overflow(value, factor, &ticks)) ticks = value < 0 ? LONG_MIN : LONG_MAX;
  return CDateTime(ticks);
}

CDateTime CDateTime::Now() {
  using namespace std::chrono;
  const long sinceUnix =
      duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count() / 100;
  return CDateTime(sinceUnix + kUnixEpochTicks);
}

long CDateTime::GetTimestamp(int kind) const {
  const long factor = TicksPerUnit(kind);
  return factor == 0 ? 0 : m_ticks / factor;
}

CDateTime CDateTime::operator-(const CDateTime& other) const {
  long difference;
  if (__builtin_sub_overflow(m_ticks, other.m_ticks, &difference)) {
    difference = m_ticks < other.m_ticks ? LONG_MIN : LONG_MAX;
  }
  return CDateTime(difference);
}

CString CDateTime::Format(const char* format) const {
  CString out;
  if (!format) return out;
  const SFields f = Split(m_ticks);
  for (const char* p = format; *p; ++p) {
    if (*p != '%' || p[1] == '\0') {
      out += *p;
      continue;
    }
    const char c = p[1];
    switch (c) {
      case 'Y': AppendNumber(out, "%04ld", f.year); break;
      case 'm': AppendNumber(out, "%02ld", f.month); break;
      case 'd': AppendNumber(out, "%02ld", f.day); break;
      case 'H': AppendNumber(out, "%02ld", f.hour); break;
      case 'M': AppendNumber(out, "%02ld", f.minute); break;
      case 'S': AppendNumber(out, "%02ld", f.second); break;
      case 'j': AppendNumber(out, "%03ld", f.dayOfYear); break;
      case '%': out += '%'; break;
      case '(': {
        static const char kIrig[] = "(irig)";
        if (std::strncmp(p + 1, kIrig, sizeof kIrig - 1) == 0) {
          out += CString::FromFormat("%02u:%02u:%02u.%03u.%03u", f.hour, f.minute, f.second,
                                     f.millisecond, f.microsecond);
          p += sizeof kIrig - 1;
          continue;
        }
        out += '%';
        continue;  // not ours: copy the '%' and go on with the '('
      }
      default:
        out += '%';
        continue;  // unknown sequence: copied as it stands
    }
    ++p;
  }
  return out;
}

}  // namespace zeb
