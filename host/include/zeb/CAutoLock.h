// CAutoLock: holds a CCriticalSection for the life of the object (RAII).
//
// The constructor takes the lock, the destructor releases it. A null section
// is allowed and locks nothing. Used on the stack of the locking thread only.
#pragma once

#include <zeb/Api.h>
#include <zeb/CCriticalSection.h>

namespace zeb {

class ZEB_API CAutoLock {
 public:
  explicit CAutoLock(CCriticalSection* section);
  explicit CAutoLock(CCriticalSection& section);
  ~CAutoLock();
  CAutoLock(const CAutoLock&) = delete;
  CAutoLock& operator=(const CAutoLock&) = delete;

 private:
  CCriticalSection* m_section;
};

}  // namespace zeb
