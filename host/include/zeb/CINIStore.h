// CINIStore: a CMemStore read from and written to INI text.
//
// Syntax written by Save and read by Load:
//   name=value            a key without section (no '/' in the key); these
//                         come first, before any section
//   [section]             starts a section; "section/name" keys follow
//   name=value
// A key "a/b/c" is section "a", name "b/c" (split at the first '/').
// Sections appear in the order of their first key, keys in store order.
//
// Reading: lines are split at the first unescaped '='; whitespace around
// section names, names and values is trimmed, so hand-written "key = value"
// works. Blank lines and lines starting with ';' or '#' are comments; other
// lines without '=' are ignored. A repeated key keeps its last value.
//
// Escapes make every key and value round-trip exactly: Save writes '\\' for
// a backslash, '\n' '\r' '\t' '\0' for those control bytes, '\s' for a space
// at the start or end of a text, '\=' for '=' in names, '\]' for ']' in
// section names, and '\;' '\#' '\[' for those characters at the start of a
// name. Load turns them back; any other backslash sequence is kept as it
// stands (so "C:\dir" reads as written).
//
// Files are local paths. Save writes a temporary file beside the target and
// renames it over the target, so a reader never sees half a file.
// Not thread-safe: one store is used by one thread at a time.
#pragma once

#include <zeb/Api.h>
#include <zeb/CMemStore.h>

namespace zeb {

class ZEB_API CINIStore : public CMemStore {
 public:
  CINIStore();
  ~CINIStore() override;

  // Reads the file at `path`. True when it was read: the store then holds
  // exactly its pairs. False when the file is missing or unreadable: the
  // store is unchanged.
  bool Load(const CString& path);
  // Writes the store to `path` (replacing it). True on success; on failure
  // the file at `path` is unchanged.
  bool Save(const CString& path);

  // The same for text in memory. Parse replaces the store's pairs and cannot
  // fail; ToText gives what Save writes.
  void Parse(const char* text, unsigned long length);
  CString ToText() const;
};

}  // namespace zeb
