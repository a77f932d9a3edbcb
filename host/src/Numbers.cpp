// Numbers: strict decimal parsing with saturation, and decimal text.
#include <zeb/Numbers.h>

#include <cstdio>

namespace zeb {
namespace {

enum class EParse { kOk, kNotANumber, kOverflow };

// Parses `text` as digits only, up to `max`.
EParse ParseDecimal(const char* text, unsigned long max, unsigned long& value) {
  if (!text || *text == '\0') return EParse::kNotANumber;
  unsigned long result = 0;
  bool overflow = false;
  for (const char* p = text; *p; ++p) {
    if (*p < '0' || *p > '9') return EParse::kNotANumber;
    const unsigned long digit = static_cast<unsigned long>(*p - '0');
    if (result > (max - digit) / 10) {
      overflow = true;  // keep scanning: a later non-digit still makes it no number
    } else {
      result = result * 10 + digit;
    }
  }
  if (overflow) return EParse::kOverflow;
  value = result;
  return EParse::kOk;
}

unsigned long Parse(const char* text, unsigned long max) {
  unsigned long value = 0;
  switch (ParseDecimal(text, max, value)) {
    case EParse::kOk: return value;
    case EParse::kOverflow: return max;
    case EParse::kNotANumber: break;
  }
  return 0;
}

template <class T>
bool TryParse(const char* text, unsigned long max, T& value) {
  unsigned long parsed = 0;
  if (ParseDecimal(text, max, parsed) != EParse::kOk) return false;
  value = static_cast<T>(parsed);
  return true;
}

}  // namespace

unsigned short CUInt16::Parse(const char* text) {
  return static_cast<unsigned short>(zeb::Parse(text, 0xFFFFu));
}
bool CUInt16::TryParse(const char* text, unsigned short& value) {
  return zeb::TryParse(text, 0xFFFFu, value);
}
CString CUInt16::ToString(unsigned short value) { return to_string(static_cast<unsigned int>(value)); }

unsigned int CUInt32::Parse(const char* text) {
  return static_cast<unsigned int>(zeb::Parse(text, 0xFFFFFFFFu));
}
bool CUInt32::TryParse(const char* text, unsigned int& value) {
  return zeb::TryParse(text, 0xFFFFFFFFu, value);
}
CString CUInt32::ToString(unsigned int value) { return to_string(value); }

unsigned long CUInt64::Parse(const char* text) { return zeb::Parse(text, ~0UL); }
bool CUInt64::TryParse(const char* text, unsigned long& value) {
  return zeb::TryParse(text, ~0UL, value);
}
CString CUInt64::ToString(unsigned long value) { return to_string(value); }

CString to_string(int value) { return CString::FromFormat("%d", value); }
CString to_string(unsigned int value) { return CString::FromFormat("%u", value); }
CString to_string(long value) { return CString::FromFormat("%ld", value); }
CString to_string(unsigned long value) { return CString::FromFormat("%lu", value); }

}  // namespace zeb
