// CMemStore: a linear list of pairs, each with its key's hash.
#include <zeb/CMemStore.h>

namespace zeb {
namespace {

// FNV-1a over the key's bytes.
unsigned long HashOf(const CString& key) {
  unsigned long hash = 14695981039346656037UL;
  const char* text = key.c_str();
  for (unsigned long i = 0; i < key.length(); ++i) {
    hash ^= static_cast<unsigned char>(text[i]);
    hash *= 1099511628211UL;
  }
  return hash;
}

}  // namespace

CMemStore::CMemStore() = default;
CMemStore::~CMemStore() = default;

CString CMemStore::GetString(const CString& key, const CString& defaultValue) {
  const unsigned long index = Find(key);
  return index == TArray<SNode>::npos ? defaultValue : m_nodes[index].value;
}

void CMemStore::SetString(const CString& key, const CString& value) {
  const unsigned long index = Find(key);
  if (index != TArray<SNode>::npos) {
    m_nodes[index].value = value;
    return;
  }
  m_nodes.Add(SNode{key, value, HashOf(key)});
}

bool CMemStore::HasKey(const CString& key) { return Find(key) != TArray<SNode>::npos; }

bool CMemStore::RemoveKey(const CString& key) {
  const unsigned long index = Find(key);
  if (index == TArray<SNode>::npos) return false;
  m_nodes.Remove(index);
  return true;
}

void CMemStore::Clear() { m_nodes.Clear(); }

unsigned long CMemStore::Find(const CString& key) const {
  const unsigned long hash = HashOf(key);
  for (unsigned long i = 0; i < m_nodes.size(); ++i) {
    if (m_nodes[i].hash == hash && m_nodes[i].key.Equals(key)) return i;
  }
  return TArray<SNode>::npos;
}

}  // namespace zeb
