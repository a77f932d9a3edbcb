// Numbers.h: decimal text to unsigned numbers and back, and zeb::to_string.
//
// Parse accepts plain decimal digits only: at least one digit and nothing
// else (no sign, no spaces, no prefix). Text that is not such a number (or a
// null pointer) gives 0. A number too large for the type saturates to the
// type's maximum. TryParse tells the two cases apart. ToString and to_string
// give plain decimal text without leading zeros. All functions are pure and
// thread-safe.
#pragma once

#include <zeb/Api.h>
#include <zeb/CString.h>

namespace zeb {

class ZEB_API CUInt16 {
 public:
  static unsigned short Parse(const char* text);
  // True when `text` is a decimal number that fits; `value` then holds it.
  // False otherwise, with `value` unchanged.
  static bool TryParse(const char* text, unsigned short& value);
  static CString ToString(unsigned short value);
};

class ZEB_API CUInt32 {
 public:
  static unsigned int Parse(const char* text);
  static bool TryParse(const char* text, unsigned int& value);
  static CString ToString(unsigned int value);
};

class ZEB_API CUInt64 {
 public:
  static unsigned long Parse(const char* text);
  static bool TryParse(const char* text, unsigned long& value);
  static CString ToString(unsigned long value);
};

ZEB_API CString to_string(int value);
ZEB_API CString to_string(unsigned int value);
ZEB_API CString to_string(long value);
ZEB_API CString to_string(unsigned long value);

}  // namespace zeb
