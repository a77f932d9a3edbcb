// CReduceObjectArray: shared pointers under a reader-writer lock.
#include <zeb/reduce/CReduceObjectArray.h>

namespace zeb {
namespace reduce {
namespace {

// Holds a CSRWLock shared or exclusive for one scope.
class CHold {
 public:
  CHold(CSRWLock& lock, bool exclusive) : m_lock(lock), m_exclusive(exclusive) {
    if (m_exclusive) {
      m_lock.LockExclusive();
    } else {
      m_lock.LockShared();
    }
  }
  ~CHold() {
    if (m_exclusive) {
      m_lock.UnlockExclusive();
    } else {
      m_lock.UnlockShared();
    }
  }
  CHold(const CHold&) = delete;
  CHold& operator=(const CHold&) = delete;

 private:
  CSRWLock& m_lock;
  bool m_exclusive;
};

}  // namespace

void CReduceObjectArray::Add(const TSharedPtr<IReduceObject>& object) {
  if (!object) return;
  CHold hold(m_lock, true);
  m_objects.Add(object);
}

void CReduceObjectArray::Clear() {
  CHold hold(m_lock, true);
  m_objects.Clear();
}

unsigned long CReduceObjectArray::size() const {
  CHold hold(m_lock, false);
  return m_objects.size();
}

TSharedPtr<IReduceObject> CReduceObjectArray::Get(unsigned long index) const {
  CHold hold(m_lock, false);
  return index < m_objects.size() ? m_objects[index] : TSharedPtr<IReduceObject>();
}

TSharedPtr<IReduceObject> CReduceObjectArray::Find(const SGuid& id) const {
  CHold hold(m_lock, false);
  for (const TSharedPtr<IReduceObject>& object : m_objects) {
    if (object->id() == id) return object;
  }
  return TSharedPtr<IReduceObject>();
}

TSharedPtr<CFrameInfoReduceObject> CReduceObjectArray::GetFrameInfo(unsigned char preset,
                                                                    bool create) {
  {
    CHold hold(m_lock, false);
    TSharedPtr<CFrameInfoReduceObject> found = FindFrameInfo(preset);
    if (found || !create) return found;
  }
  TSharedPtr<CFrameInfoReduceObject> made(new CFrameInfoReduceObject(CDateTime(), 0, preset));
  CHold hold(m_lock, true);
  TSharedPtr<CFrameInfoReduceObject> found = FindFrameInfo(preset);  // another thread may have won
  if (found) return found;
  m_objects.Add(made);
  return made;
}

TSharedPtr<CFrameInfoReduceObject> CReduceObjectArray::FindFrameInfo(unsigned char preset) const {
  for (const TSharedPtr<IReduceObject>& object : m_objects) {
    if (object->id() != CFrameInfoReduceObject::kId) continue;
    TSharedPtr<CFrameInfoReduceObject> info = object.DynamicCast<CFrameInfoReduceObject>();
    if (info && info->preset() == preset) return info;
  }
  return TSharedPtr<CFrameInfoReduceObject>();
}

}  // namespace reduce
}  // namespace zeb
