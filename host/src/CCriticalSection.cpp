// CCriticalSection and CAutoLock over std::recursive_mutex.
#include <zeb/CCriticalSection.h>

namespace zeb {

CCriticalSection::CCriticalSection() = default;
CCriticalSection::~CCriticalSection() = default;

void CCriticalSection::Lock() { m_mutex.lock(); }
bool CCriticalSection::TryLock() { return m_mutex.try_lock(); }
void CCriticalSection::Unlock() { m_mutex.unlock(); }

}  // namespace zeb
