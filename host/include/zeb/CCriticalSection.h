// CCriticalSection: the framework's mutual-exclusion lock.
//
// Recursive: the thread that holds it may take it again, and must release it
// as often as it took it. Any thread may use it; it is neither copied nor
// moved. Usually taken through CAutoLock.
#pragma once

#include <mutex>

#include <zeb/Api.h>

namespace zeb {

class ZEB_API CCriticalSection {
 public:
  CCriticalSection();
  ~CCriticalSection();
  CCriticalSection(const CCriticalSection&) = delete;
  CCriticalSection& operator=(const CCriticalSection&) = delete;

  // Blocks until the calling thread holds the lock.
  void Lock();
  // True when the lock was taken without waiting.
  bool TryLock();
  // Releases one hold of the calling thread.
  void Unlock();

 private:
  std::recursive_mutex m_mutex;
};

}  // namespace zeb
