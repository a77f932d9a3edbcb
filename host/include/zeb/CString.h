// CString: the framework's text string, one pointer wide.
//
// Owns its characters. The pointer is null for an empty string or points at
// the characters of a heap block that also records the length just before
// them; c_str() is always NUL-terminated (an empty string gives ""). Lengths
// and positions are in bytes; no encoding is assumed. Texts may hold NUL bytes
// when made with an explicit length.
//
// A null `const char*` wherever one is accepted is treated as the empty text,
// since C callers of the framework may pass null paths.
//
// A value type: one CString is used by one thread at a time; distinct strings
// need no locking. Allocation failure raises CBadAllocException.
#pragma once

#include <cstdarg>

#include <zeb/Api.h>

namespace zeb {

class ZEB_API CString {
 public:
  // Returned by find when nothing is found; as a count, "to the end".
  static constexpr unsigned long npos = ~0UL;

  CString() noexcept : m_text(nullptr) {}
  CString(const char* text);  // NOLINT: implicit by design, as for any string
  // Copies `length` bytes of `text`; -1 (any negative value) means up to the
  // terminating NUL.
  CString(const char* text, int length);
  CString(const CString& other);
  CString(CString&& other) noexcept : m_text(other.m_text) { other.m_text = nullptr; }
  ~CString();

  CString& operator=(const CString& other);
  CString& operator=(CString&& other) noexcept;
  CString& operator=(const char* text);

  const char* c_str() const { return m_text ? m_text : ""; }
  unsigned long length() const;
  bool empty() const { return length() == 0; }

  // Byte at `index`; '\0' when `index` is at or past the end.
  char operator[](unsigned long index) const;

  bool Equals(const CString& other) const;
  bool EqualsNoCase(const CString& other) const;
  // Prefix and suffix tests; case-sensitive, or ignoring ASCII letter case.
  bool StartsWith(const char* prefix) const;
  bool StartsWithNoCase(const char* prefix) const;
  bool EndsWith(const char* suffix) const;
  bool EndsWithNoCase(const char* suffix) const;

  // Position of the first `c` at or after `from`, or npos.
  unsigned long find(char c, unsigned long from = 0) const;
  // Position of the first occurrence of `text` at or after `from`, or npos.
  unsigned long find(const char* text, unsigned long from = 0) const;
  // Position of the last `c`, or npos.
  unsigned long rfind(char c) const;

  // Characters from `pos` (clamped to the length), at most `count` of them;
  // npos as count means to the end.
  CString substr(unsigned long pos, unsigned long count = npos) const;
  // `n` characters from `start`; a negative `start` counts as 0, a negative
  // `n` means to the end, both are clamped to the length. Mid and SubString
  // are the same operation under two names.
  CString Mid(int start, int n = -1) const;
  CString SubString(int start, int n = -1) const;

  // Replaces the contents with the printf-formatted text.
  void Format(const char* format, ...) __attribute__((format(printf, 2, 3)));
  void FormatV(const char* format, va_list args) __attribute__((format(printf, 2, 0)));
  // A new printf-formatted string.
  static CString FromFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

  CString& operator+=(const CString& other);
  CString& operator+=(const char* text);
  CString& operator+=(char c);
  // Appends `length` bytes of `text`.
  CString& Append(const char* text, unsigned long length);

 private:
  void Assign(const char* text, unsigned long length);
  void Release() noexcept;

  char* m_text;
};

static_assert(sizeof(CString) == sizeof(void*), "CString is one pointer wide");

ZEB_API bool operator==(const CString& a, const CString& b);
ZEB_API bool operator==(const CString& a, const char* b);
ZEB_API bool operator!=(const CString& a, const CString& b);
ZEB_API bool operator!=(const CString& a, const char* b);
// Byte-wise ordering, for sorted containers.
ZEB_API bool operator<(const CString& a, const CString& b);
ZEB_API CString operator+(const CString& a, const CString& b);
ZEB_API CString operator+(const CString& a, const char* b);
ZEB_API CString operator+(const char* a, const CString& b);

}  // namespace zeb
