// CSRWLock over std::shared_mutex.
#include <zeb/CSRWLock.h>

namespace zeb {

CSRWLock::CSRWLock() = default;
CSRWLock::~CSRWLock() = default;

void CSRWLock::LockShared() { m_mutex.lock_shared(); }
void CSRWLock::UnlockShared() { m_mutex.unlock_shared(); }
void CSRWLock::LockExclusive() { m_mutex.lock(); }
void CSRWLock::UnlockExclusive() { m_mutex.unlock(); }

}  // namespace zeb
