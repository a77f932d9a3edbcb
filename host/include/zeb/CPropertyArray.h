// CPropertyArray: an ordered list of named text values (a directory entry's
// properties).
//
// Names are case-sensitive and unique: SetValue replaces the value of an
// existing name in place and appends a new name at the end. A plain value
// type, used by one thread at a time.
#pragma once

#include <zeb/Api.h>
#include <zeb/CString.h>
#include <zeb/TArray.h>

namespace zeb {

class ZEB_API CPropertyArray {
 public:
  struct ENTRY {
    CString name;
    CString value;
  };

  // A handle on one named value, holding the name and the array it looks in;
  // valid while that array lives.
  class ZEB_API CEntry {
   public:
    CEntry(const CPropertyArray* array, const CString& name);
    // True when the array has the name.
    bool exists() const;
    // The value; empty when the name is absent.
    CString value() const;
    const CString& name() const { return m_name; }

   private:
    const CPropertyArray* m_array;
    CString m_name;
  };

  // Sets the named value, replacing an existing one.
  void SetValue(const CString& name, const CString& value);
  // The named value; empty when the name is absent.
  CString GetValue(const CString& name) const;
  bool HasValue(const CString& name) const;
  // Removes the name; false when it was absent.
  bool Remove(const CString& name);
  CEntry operator[](const CString& name) const;

  // The entries in order, for iteration.
  const TArray<ENTRY>& entries() const { return m_entries; }
  unsigned long size() const { return m_entries.size(); }

 private:
  // Index of the name, or TArray::npos.
  unsigned long IndexOf(const CString& name) const;

  TArray<ENTRY> m_entries;
};

}  // namespace zeb
