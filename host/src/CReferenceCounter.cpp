// CReferenceCounter: an atomic count on the heap.
#include <zeb/CReferenceCounter.h>

#include <new>

#include <zeb/Memory.h>

namespace zeb {

CReferenceCounter* CReferenceCounter::Create() {
  CReferenceCounter* counter = new (std::nothrow) CReferenceCounter();
  if (!counter) ThrowBadAllocException();
  return counter;
}

void CReferenceCounter::AddRef() { m_count.fetch_add(1, std::memory_order_relaxed); }

bool CReferenceCounter::Release() {
  // acq_rel: the last releaser must see every write made through other copies
  // before it destroys the object.
  if (m_count.fetch_sub(1, std::memory_order_acq_rel) != 1) return false;
  delete this;
  return true;
}

unsigned long CReferenceCounter::count() const { return m_count.load(std::memory_order_relaxed); }

}  // namespace zeb
