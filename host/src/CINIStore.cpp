// CINIStore: INI text with escapes, so that Load gives back what Save wrote.
#include <zeb/CINIStore.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

namespace zeb {
namespace {

enum class EPart { kSection, kName, kValue };

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

void AppendEscaped(CString& out, const CString& text, EPart part) {
  const unsigned long n = text.length();
  for (unsigned long i = 0; i < n; ++i) {
    const char c = text[i];
    switch (c) {
      case '\\': out += "\\\\"; continue;
      case '\n': out += "\\n"; continue;
      case '\r': out += "\\r"; continue;
      case '\t': out += "\\t"; continue;
      case '\0': out += "\\0"; continue;
      default: break;
    }
    if (c == ' ' && (i == 0 || i + 1 == n)) {
      out += "\\s";  // would be trimmed away when read
    } else if (part == EPart::kName && c == '=') {
      out += "\\=";
    } else if (part == EPart::kSection && c == ']') {
      out += "\\]";
    } else if (part == EPart::kName && i == 0 && (c == ';' || c == '#' || c == '[')) {
      out += '\\';  // would read as a comment or a section
      out += c;
    } else {
      out += c;
    }
  }
}

CString Unescape(const char* text, unsigned long n) {
  CString out;
  for (unsigned long i = 0; i < n; ++i) {
    if (text[i] != '\\' || i + 1 == n) {
      out += text[i];
      continue;
    }
    const char next = text[i + 1];
    char plain;
    switch (next) {
      case '\\': plain = '\\'; break;
      case 'n': plain = '\n'; break;
      case 'r': plain = '\r'; break;
      case 't': plain = '\t'; break;
      case '0': plain = '\0'; break;
      case 's': plain = ' '; break;
      case '=': case ']': case ';': case '#': case '[': plain = next; break;
      default:
        out += '\\';  // not one of ours: kept as written
        continue;
    }
    out += plain;
    ++i;
  }
  return out;
}

// Trims blanks from both ends of [begin, end).
void Trim(const char*& begin, const char*& end) {
  while (begin < end && IsBlank(*begin)) ++begin;
  while (end > begin && IsBlank(end[-1])) --end;
}

// Position of the first '=' not escaped by a backslash, or null.
const char* FindSplit(const char* begin, const char* end) {
  for (const char* p = begin; p < end; ++p) {
    if (*p == '\\') {
      ++p;
    } else if (*p == '=') {
      return p;
    }
  }
  return nullptr;
}

bool ReadAll(int fd, std::vector<char>& bytes) {
  char buffer[65536];
  for (;;) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n == 0) return true;
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    bytes.insert(bytes.end(), buffer, buffer + n);
  }
}

bool WriteAll(int fd, const char* data, unsigned long size) {
  while (size > 0) {
    const ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<unsigned long>(n);
  }
  return true;
}

// Descriptor closed when the scope ends.
class CFd {
 public:
  explicit CFd(int fd) : m_fd(fd) {}
  ~CFd() { Close(); }
  CFd(const CFd&) = delete;
  CFd& operator=(const CFd&) = delete;
  int get() const { return m_fd; }
  bool Close() {
    if (m_fd < 0) return true;
    const int result = ::close(m_fd);
    m_fd = -1;
    return result == 0;
  }

 private:
  int m_fd;
};

}  // namespace

CINIStore::CINIStore() = default;
CINIStore::~CINIStore() = default;

bool CINIStore::Load(const CString& path) {
  if (path.empty()) return false;
  CFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd.get() < 0) return false;
  std::vector<char> bytes;
  try {
    if (!ReadAll(fd.get(), bytes)) return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
  Parse(bytes.data(), bytes.size());
  return true;
}

bool CINIStore::Save(const CString& path) {
  if (path.empty()) return false;
  static std::atomic<unsigned long> serial(0);
  const CString text = ToText();
  // A unique name beside the target: concurrent savers never share one.
  CString temporary;
  int fd = -1;
  for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
    temporary = CString::FromFormat("%s.tmp.%ld.%lu", path.c_str(), static_cast<long>(::getpid()),
                                    serial.fetch_add(1));
    fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0 && errno != EEXIST) return false;
  }
  if (fd < 0) return false;
  CFd file(fd);
  const bool written = WriteAll(file.get(), text.c_str(), text.length());
  if (!file.Close() || !written || ::rename(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  return true;
}

void CINIStore::Parse(const char* text, unsigned long length) {
  Clear();
  if (!text) return;
  const char* end = text + length;
  CString section;
  bool inSection = false;
  for (const char* line = text; line < end;) {
    const char* lineEnd = line;
    while (lineEnd < end && *lineEnd != '\n') ++lineEnd;
    const char* begin = line;
    const char* stop = lineEnd;
    line = lineEnd < end ? lineEnd + 1 : end;
    Trim(begin, stop);
    if (begin == stop || *begin == ';' || *begin == '#') continue;
    if (*begin == '[' && stop[-1] == ']' && stop - begin >= 2) {
      const char* nameBegin = begin + 1;
      const char* nameEnd = stop - 1;
      Trim(nameBegin, nameEnd);
      section = Unescape(nameBegin, static_cast<unsigned long>(nameEnd - nameBegin));
      inSection = true;
      continue;
    }
    const char* split = FindSplit(begin, stop);
    if (!split) continue;
    const char* nameBegin = begin;
    const char* nameEnd = split;
    const char* valueBegin = split + 1;
    const char* valueEnd = stop;
    Trim(nameBegin, nameEnd);
    Trim(valueBegin, valueEnd);
    CString key;
    if (inSection) {
      key = section;
      key += '/';
    }
    key += Unescape(nameBegin, static_cast<unsigned long>(nameEnd - nameBegin));
    SetString(key, Unescape(valueBegin, static_cast<unsigned long>(valueEnd - valueBegin)));
  }
}

CString CINIStore::ToText() const {
  CString out;
  // Keys without a section first: after a section header they would join it.
  for (const SNode& node : m_nodes) {
    if (node.key.find('/') != CString::npos) continue;
    AppendEscaped(out, node.key, EPart::kName);
    out += '=';
    AppendEscaped(out, node.value, EPart::kValue);
    out += '\n';
  }
  std::vector<CString> sections;
  for (const SNode& node : m_nodes) {
    const unsigned long slash = node.key.find('/');
    if (slash == CString::npos) continue;
    const CString section = node.key.substr(0, slash);
    bool seen = false;
    for (const CString& s : sections) seen = seen || s.Equals(section);
    if (!seen) sections.push_back(section);
  }
  for (const CString& section : sections) {
    out += '[';
    AppendEscaped(out, section, EPart::kSection);
    out += "]\n";
    for (const SNode& node : m_nodes) {
      const unsigned long slash = node.key.find('/');
      if (slash == CString::npos || !node.key.substr(0, slash).Equals(section)) continue;
      AppendEscaped(out, node.key.substr(slash + 1), EPart::kName);
      out += '=';
      AppendEscaped(out, node.value, EPart::kValue);
      out += '\n';
    }
  }
  return out;
}

}  // namespace zeb
