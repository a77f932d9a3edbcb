// CReduceObjectArray: the reduction objects of a file or of one frame.
//
// Holds TArray<TSharedPtr<IReduceObject>> and a CSRWLock that guards it, so
// one array may be filled and read from different threads. Objects stay
// alive while any shared pointer to them does.
#pragma once

#include <zeb/Api.h>
#include <zeb/CSRWLock.h>
#include <zeb/SGuid.h>
#include <zeb/TArray.h>
#include <zeb/TSharedPtr.h>
#include <zeb/reduce/CFrameInfoReduceObject.h>
#include <zeb/reduce/IReduceObject.h>

namespace zeb {
namespace reduce {

class ZEB_API CReduceObjectArray {
 public:
  // Header code, like the array and lock they build: a plug-in that makes an
  // array links only the lock's constructor and destructor.
  CReduceObjectArray() {}
  virtual ~CReduceObjectArray() {}
  CReduceObjectArray(const CReduceObjectArray&) = delete;
  CReduceObjectArray& operator=(const CReduceObjectArray&) = delete;

  // Appends an object (an empty pointer is ignored).
  void Add(const TSharedPtr<IReduceObject>& object);
  // Removes every object.
  void Clear();
  unsigned long size() const;
  // The object at `index`; empty when out of range.
  TSharedPtr<IReduceObject> Get(unsigned long index) const;
  // The first object of kind `id`; empty when there is none.
  TSharedPtr<IReduceObject> Find(const SGuid& id) const;

  // The first frame information object of `preset`. When there is none:
  // empty, or with `create` true a new one (empty time stamp, frame 0) that
  // is added to the array and returned.
  TSharedPtr<CFrameInfoReduceObject> GetFrameInfo(unsigned char preset, bool create);

 private:
  TSharedPtr<CFrameInfoReduceObject> FindFrameInfo(unsigned char preset) const;

  TArray<TSharedPtr<IReduceObject>> m_objects;
  mutable CSRWLock m_lock;
};

}  // namespace reduce
}  // namespace zeb
