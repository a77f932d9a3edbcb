// Path.h: path texts (namespace zeb::path). Pure functions, thread-safe.
//
// GetFilename, GetDirectory, RemoveExtension and ChangeExtension split at '/'.
#pragma once

#include <zeb/Api.h>
#include <zeb/CString.h>

namespace zeb {
namespace path {

// `directory` and `name` joined by exactly one separator: separators at the
// end of `directory` and at the start of `name` are not doubled ("/" + "a"
// gives "/a", "/d/" + "/a" gives "/d/a"). An empty `directory` gives `name`
// unchanged; an empty `name` gives `directory` unchanged.
ZEB_API CString MakePath(CString directory, CString name, char separator);

// Resolves `path` against the directory `base`:
// - a `path` that begins with the separator stands alone; otherwise it is
//   placed under `base`. An empty `base` means the root (the separator), so
//   ("", "a.dat") gives "/a.dat" and ("", "") gives "/".
// - the result is normalised: empty components (doubled separators) and "."
//   are dropped, ".." removes the component before it (and stays at the root
//   when there is none). A trailing separator is kept.
// - a relative `base` gives a relative result: ("d", "a") gives "d/a"; ".."
//   components that reach above it are kept ("d", "../../a" gives "../a").
// So a `path` beginning with the separator without "." or ".." components or
// doubled separators comes back unaltered, and "/" gives "/".
ZEB_API CString ExpandRelativePath(CString base, CString path, char separator);

// The last component: the text after the last '/' (all of `path` when it
// has none; empty when it ends with '/').
ZEB_API CString GetFilename(CString path);

// Everything before the last '/' ("/" for "/a", "" when there is none).
ZEB_API CString GetDirectory(CString path);

// The extension of the last component with its dot ("a/b.tar.gz" gives
// ".gz"); empty when there is none. A leading dot (".profile") is part of
// the name, not an extension.
ZEB_API CString GetExtension(CString path);

// `path` without the extension of its last component.
ZEB_API CString RemoveExtension(CString path);

// `path` with the extension of its last component replaced by `extension`,
// given with its dot (".dat"); a dot is added when it lacks one, and an
// empty `extension` just removes the extension.
ZEB_API CString ChangeExtension(CString path, CString extension);

// True when the whole `text` matches `pattern`: '*' matches any run of
// characters (also none, also '/'), '?' exactly one character, every other
// character itself (case-sensitive). An empty pattern matches only an empty
// text. Runs in O(pattern x text) at worst (greedy with one back-track point),
// never exponentially.
ZEB_API bool WildcardMatch(CString pattern, CString text);

}  // namespace path
}  // namespace zeb
