// Path: joining, resolving and splitting path texts.
#include <zeb/Path.h>

#include <vector>

namespace zeb {
namespace path {
namespace {

// Position just after the last '/', 0 when there is none.
unsigned long NameStart(const CString& path) {
  const unsigned long slash = path.rfind('/');
  return slash == CString::npos ? 0 : slash + 1;
}

// Position of the extension's dot in the last component, or npos.
unsigned long ExtensionDot(const CString& path) {
  const unsigned long start = NameStart(path);
  const unsigned long dot = path.rfind('.');
  if (dot == CString::npos || dot <= start) return CString::npos;  // none, or a leading dot
  return dot;
}

}  // namespace

CString MakePath(CString directory, CString name, char separator) {
  if (directory.empty()) return name;
  if (name.empty()) return directory;
  unsigned long end = directory.length();
  while (end > 1 && directory[end - 1] == separator) --end;  // keep a lone root
  unsigned long start = 0;
  while (start < name.length() && name[start] == separator) ++start;
  CString result = directory.substr(0, end);
  if (result[result.length() - 1] != separator) result += separator;
  result += name.substr(start);
  return result;
}

CString ExpandRelativePath(CString base, CString path, char separator) {
  const bool pathAbsolute = path[0] == separator && !path.empty();
  CString joined;
  if (pathAbsolute) {
    joined = path;
  } else {
    if (base.empty()) base = CString(&separator, 1);  // an empty base is the root
    joined = base;
    joined += separator;
    joined += path;
  }
  const bool absolute = joined[0] == separator;
  const bool trailing = joined[joined.length() - 1] == separator && !path.empty();

  std::vector<CString> parts;
  unsigned long start = 0;
  while (start <= joined.length()) {
    unsigned long end = joined.find(separator, start);
    if (end == CString::npos) end = joined.length();
    CString part = joined.substr(start, end - start);
    start = end + 1;
    if (part.empty() || part == ".") continue;
    if (part == "..") {
      if (!parts.empty() && parts.back() != "..") {
        parts.pop_back();
      } else if (!absolute) {
        parts.push_back(part);  // a relative path may reach above its start
      }
      continue;
    }
    parts.push_back(part);
  }

  CString result;
  if (absolute) result += separator;
  for (unsigned long i = 0; i < parts.size(); ++i) {
    if (i > 0) result += separator;
    result += parts[i];
  }
  if (trailing && !parts.empty()) result += separator;
  if (result.empty() && !absolute) result = ".";
  return result;
}

CString GetFilename(CString path) { return path.substr(NameStart(path)); }

CString GetDirectory(CString path) {
  const unsigned long slash = path.rfind('/');
  if (slash == CString::npos) return CString();
  return slash == 0 ? CString("/") : path.substr(0, slash);
}

CString GetExtension(CString path) {
  const unsigned long dot = ExtensionDot(path);
  return dot == CString::npos ? CString() : path.substr(dot);
}

CString RemoveExtension(CString path) {
  const unsigned long dot = ExtensionDot(path);
  return dot == CString::npos ? path : path.substr(0, dot);
}

CString ChangeExtension(CString path, CString extension) {
  CString result = RemoveExtension(path);
  if (extension.empty()) return result;
  if (extension[0] != '.') result += '.';
  result += extension;
  return result;
}

bool WildcardMatch(CString pattern, CString text) {
  const char* p = pattern.c_str();
  const char* t = text.c_str();
  const unsigned long pn = pattern.length();
  const unsigned long tn = text.length();
  unsigned long pi = 0;
  unsigned long ti = 0;
  unsigned long starAt = CString::npos;  // position of the last '*' seen
  unsigned long resumeAt = 0;            // text position that '*' currently ends at
  while (ti < tn) {
    if (pi < pn && p[pi] == '*') {
      starAt = pi++;
      resumeAt = ti;
    } else if (pi < pn && (p[pi] == '?' || p[pi] == t[ti])) {
      ++pi;
      ++ti;
    } else if (starAt != CString::npos) {
      pi = starAt + 1;  // let the last '*' swallow one more character
      ti = ++resumeAt;
    } else {
      return false;
    }
  }
  while (pi < pn && p[pi] == '*') ++pi;
  return pi == pn;
}

}  // namespace path
}  // namespace zeb
