// CMemStore: an in-memory IConfigStore.
//
// Keeps its pairs in insertion order in a TArray<SNode>; SetString replaces
// the value of an existing key in place. Keys are case-sensitive. Not
// thread-safe: one store is used by one thread at a time.
#pragma once

#include <zeb/Api.h>
#include <zeb/IConfigStore.h>
#include <zeb/TArray.h>

namespace zeb {

class ZEB_API CMemStore : public IConfigStore {
 public:
  // One stored pair; `hash` is the key's hash, compared before the key.
  struct SNode {
    CString key;
    CString value;
    unsigned long hash;
  };

  CMemStore();
  ~CMemStore() override;

  CString GetString(const CString& key, const CString& defaultValue) override;
  void SetString(const CString& key, const CString& value) override;
  bool HasKey(const CString& key) override;
  bool RemoveKey(const CString& key) override;

  // Removes every pair.
  void Clear();
  // The pairs in insertion order.
  const TArray<SNode>& nodes() const { return m_nodes; }

 protected:
  // Index of the key, or TArray<SNode>::npos.
  unsigned long Find(const CString& key) const;

  TArray<SNode> m_nodes;
};

}  // namespace zeb
