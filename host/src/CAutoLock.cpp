// CAutoLock: RAII hold of a CCriticalSection.
#include <zeb/CAutoLock.h>

namespace zeb {

CAutoLock::CAutoLock(CCriticalSection* section) : m_section(section) {
  if (m_section) m_section->Lock();
}

CAutoLock::CAutoLock(CCriticalSection& section) : CAutoLock(&section) {}

CAutoLock::~CAutoLock() {
  if (m_section) m_section->Unlock();
}

}  // namespace zeb
