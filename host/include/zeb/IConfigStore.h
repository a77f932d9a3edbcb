// IConfigStore: the framework's key/value configuration store interface.
//
// Keys are a section and a name joined by '/' ("meta/width"); values are
// texts. Implementations: CMemStore (in memory) and CINIStore (INI files).
// Thread-safety is the implementation's to state.
#pragma once

#include <zeb/Api.h>
#include <zeb/CString.h>

namespace zeb {

class ZEB_API IConfigStore {
 public:
  virtual ~IConfigStore();
  // The stored value, or `defaultValue` when the key is absent.
  virtual CString GetString(const CString& key, const CString& defaultValue) = 0;
  // Stores or replaces a value.
  virtual void SetString(const CString& key, const CString& value) = 0;
  virtual bool HasKey(const CString& key) = 0;
  // Removes a key; false when it was absent.
  virtual bool RemoveKey(const CString& key) = 0;

 protected:
  IConfigStore() = default;
};

}  // namespace zeb
