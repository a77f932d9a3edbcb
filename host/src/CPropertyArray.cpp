// CPropertyArray: a linear list of name/value pairs (entries are few).
#include <zeb/CPropertyArray.h>

namespace zeb {

CPropertyArray::CEntry::CEntry(const CPropertyArray* array, const CString& name)
    : m_array(array), m_name(name) {}

bool CPropertyArray::CEntry::exists() const { return m_array && m_array->HasValue(m_name); }

CString CPropertyArray::CEntry::value() const {
  return m_array ? m_array->GetValue(m_name) : CString();
}

void CPropertyArray::SetValue(const CString& name, const CString& value) {
  const unsigned long index = IndexOf(name);
  if (index != TArray<ENTRY>::npos) {
    m_entries[index].value = value;
    return;
  }
  m_entries.Add(ENTRY{name, value});
}

CString CPropertyArray::GetValue(const CString& name) const {
  const unsigned long index = IndexOf(name);
  return index == TArray<ENTRY>::npos ? CString() : m_entries[index].value;
}

bool CPropertyArray::HasValue(const CString& name) const {
  return IndexOf(name) != TArray<ENTRY>::npos;
}

bool CPropertyArray::Remove(const CString& name) {
  const unsigned long index = IndexOf(name);
  if (index == TArray<ENTRY>::npos) return false;
  m_entries.Remove(index);
  return true;
}

CPropertyArray::CEntry CPropertyArray::operator[](const CString& name) const {
  return CEntry(this, name);
}

unsigned long CPropertyArray::IndexOf(const CString& name) const {
  for (unsigned long i = 0; i < m_entries.size(); ++i) {
    if (m_entries[i].name.Equals(name)) return i;
  }
  return TArray<ENTRY>::npos;
}

}  // namespace zeb
