// CString: characters in one heap block that records the length in front of
// them; the object holds the pointer to the characters (null when empty).
#include <zeb/CString.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <utility>

#include <zeb/Memory.h>

namespace zeb {
namespace {

struct SHeader {
  unsigned long length;
};

SHeader* HeaderOf(char* text) {
  return reinterpret_cast<SHeader*>(text - sizeof(SHeader));
}

// A block for `length` characters plus the NUL; returns the character pointer.
char* NewText(unsigned long length) {
  if (length > ~0UL - sizeof(SHeader) - 1) ThrowBadAllocException();
  void* block = Alloc(sizeof(SHeader) + length + 1);
  if (!block) ThrowBadAllocException();
  SHeader* header = static_cast<SHeader*>(block);
  header->length = length;
  char* text = reinterpret_cast<char*>(header + 1);
  text[length] = '\0';
  return text;
}

char Lower(char c) { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }

bool EqualNoCase(const char* a, const char* b, unsigned long n) {
  for (unsigned long i = 0; i < n; ++i) {
    if (Lower(a[i]) != Lower(b[i])) return false;
  }
  return true;
}

}  // namespace

CString::CString(const char* text) : m_text(nullptr) {
  if (text) Assign(text, std::strlen(text));
}

CString::CString(const char* text, int length) : m_text(nullptr) {
  if (!text) return;
  Assign(text, length < 0 ? std::strlen(text) : static_cast<unsigned long>(length));
}

CString::CString(const CString& other) : m_text(nullptr) {
  Assign(other.c_str(), other.length());
}

CString::~CString() { Release(); }

CString& CString::operator=(const CString& other) {
  if (this != &other) {
    CString copy(other);
    std::swap(m_text, copy.m_text);
  }
  return *this;
}

CString& CString::operator=(CString&& other) noexcept {
  if (this != &other) {
    Release();
    m_text = other.m_text;
    other.m_text = nullptr;
  }
  return *this;
}

CString& CString::operator=(const char* text) {
  CString copy(text);
  std::swap(m_text, copy.m_text);
  return *this;
}

unsigned long CString::length() const { return m_text ? HeaderOf(m_text)->length : 0; }

char CString::operator[](unsigned long index) const {
  return index < length() ? m_text[index] : '\0';
}

bool CString::Equals(const CString& other) const {
  const unsigned long n = length();
  return n == other.length() && std::memcmp(c_str(), other.c_str(), n) == 0;
}

bool CString::EqualsNoCase(const CString& other) const {
  const unsigned long n = length();
  return n == other.length() && EqualNoCase(c_str(), other.c_str(), n);
}

bool CString::StartsWith(const char* prefix) const {
  const unsigned long n = prefix ? std::strlen(prefix) : 0;
  return n <= length() && std::memcmp(c_str(), prefix ? prefix : "", n) == 0;
}

bool CString::StartsWithNoCase(const char* prefix) const {
  const unsigned long n = prefix ? std::strlen(prefix) : 0;
  return n <= length() && EqualNoCase(c_str(), prefix ? prefix : "", n);
}

bool CString::EndsWith(const char* suffix) const {
  const unsigned long n = suffix ? std::strlen(suffix) : 0;
  return n <= length() && std::memcmp(c_str() + length() - n, suffix ? suffix : "", n) == 0;
}

bool CString::EndsWithNoCase(const char* suffix) const {
  const unsigned long n = suffix ? std::strlen(suffix) : 0;
  return n <= length() && EqualNoCase(c_str() + length() - n, suffix ? suffix : "", n);
}

unsigned long CString::find(char c, unsigned long from) const {
  const unsigned long n = length();
  if (from >= n) return npos;
  const void* hit = std::memchr(m_text + from, c, n - from);
  return hit ? static_cast<unsigned long>(static_cast<const char*>(hit) - m_text) : npos;
}

unsigned long CString::find(const char* text, unsigned long from) const {
  const unsigned long n = length();
  const unsigned long k = text ? std::strlen(text) : 0;
  if (from > n || k > n - from) return npos;
  for (unsigned long i = from; i + k <= n; ++i) {
    if (std::memcmp(c_str() + i, text ? text : "", k) == 0) return i;
  }
  return npos;
}

unsigned long CString::rfind(char c) const {
  for (unsigned long i = length(); i > 0; --i) {
    if (m_text[i - 1] == c) return i - 1;
  }
  return npos;
}

CString CString::substr(unsigned long pos, unsigned long count) const {
  const unsigned long n = length();
  if (pos >= n) return CString();
  const unsigned long available = n - pos;
  CString result;
  result.Assign(m_text + pos, count < available ? count : available);
  return result;
}

CString CString::Mid(int start, int n) const {
  const unsigned long from = start < 0 ? 0 : static_cast<unsigned long>(start);
  return substr(from, n < 0 ? npos : static_cast<unsigned long>(n));
}

CString CString::SubString(int start, int n) const { return Mid(start, n); }

void CString::Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  FormatV(format, args);
  va_end(args);
}

void CString::FormatV(const char* format, va_list args) {
  if (!format) format = "";
  // Most texts are short: format once into a stack buffer and copy; only a
  // longer text is formatted a second time, into its own block. The old text
  // is released last, since an argument may point into it.
  char small[256];
  va_list first;
  va_copy(first, args);
  const int n = std::vsnprintf(small, sizeof small, format, first);
  va_end(first);
  if (n <= 0) {  // empty text or an encoding error
    Release();
    return;
  }
  char* text = NewText(static_cast<unsigned long>(n));
  if (static_cast<size_t>(n) < sizeof small) {
    std::memcpy(text, small, static_cast<size_t>(n));
  } else {
    std::vsnprintf(text, static_cast<size_t>(n) + 1, format, args);
  }
  Release();
  m_text = text;
}

CString CString::FromFormat(const char* format, ...) {
  CString result;
  va_list args;
  va_start(args, format);
  result.FormatV(format, args);
  va_end(args);
  return result;
}

CString& CString::operator+=(const CString& other) { return Append(other.c_str(), other.length()); }

CString& CString::operator+=(const char* text) {
  return text ? Append(text, std::strlen(text)) : *this;
}

CString& CString::operator+=(char c) { return Append(&c, 1); }

CString& CString::Append(const char* text, unsigned long n) {
  if (n == 0 || !text) return *this;
  const unsigned long old = length();
  if (n > ~0UL - old) ThrowBadAllocException();
  char* joined = NewText(old + n);
  std::memcpy(joined, c_str(), old);
  std::memcpy(joined + old, text, n);  // `text` may point into this string
  Release();
  m_text = joined;
  return *this;
}

void CString::Assign(const char* text, unsigned long n) {
  char* copy = nullptr;
  if (n > 0) {
    copy = NewText(n);
    std::memcpy(copy, text, n);
  }
  Release();
  m_text = copy;
}

void CString::Release() noexcept {
  if (m_text) Free(HeaderOf(m_text));
  m_text = nullptr;
}

bool operator==(const CString& a, const CString& b) { return a.Equals(b); }
bool operator==(const CString& a, const char* b) {
  const unsigned long n = b ? std::strlen(b) : 0;
  return n == a.length() && std::memcmp(a.c_str(), b ? b : "", n) == 0;
}
bool operator!=(const CString& a, const CString& b) { return !a.Equals(b); }
bool operator!=(const CString& a, const char* b) { return !(a == b); }

bool operator<(const CString& a, const CString& b) {
  const unsigned long n = a.length() < b.length() ? a.length() : b.length();
  const int c = std::memcmp(a.c_str(), b.c_str(), n);
  return c != 0 ? c < 0 : a.length() < b.length();
}

CString operator+(const CString& a, const CString& b) {
  CString result(a);
  result += b;
  return result;
}
CString operator+(const CString& a, const char* b) {
  CString result(a);
  result += b;
  return result;
}
CString operator+(const char* a, const CString& b) {
  CString result(a);
  result += b;
  return result;
}

}  // namespace zeb
