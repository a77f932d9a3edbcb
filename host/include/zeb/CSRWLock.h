// CSRWLock: a reader-writer lock (many readers or one writer).
//
// Not recursive. Any thread may use it; neither copied nor moved.
// CReduceObjectArray guards its objects with one.
#pragma once

#include <shared_mutex>

#include <zeb/Api.h>

namespace zeb {

class ZEB_API CSRWLock {
 public:
  CSRWLock();
  ~CSRWLock();
  CSRWLock(const CSRWLock&) = delete;
  CSRWLock& operator=(const CSRWLock&) = delete;

  void LockShared();
  void UnlockShared();
  void LockExclusive();
  void UnlockExclusive();

 private:
  std::shared_mutex m_mutex;
};

}  // namespace zeb
