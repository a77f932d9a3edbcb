// IReduceObject: one reduction object, a piece of per-file or per-frame data
// that imager files hand out (held through TSharedPtr<IReduceObject>).
//
// Every kind has a fixed identifier, id(). Objects are immutable once made,
// so copies of the shared pointer may be read from any thread.
#pragma once

#include <zeb/Api.h>
#include <zeb/SGuid.h>

namespace zeb {
namespace reduce {

class ZEB_API IReduceObject {
 public:
  virtual ~IReduceObject();
  // The identifier of the object's kind.
  virtual SGuid id() const = 0;

 protected:
  IReduceObject() = default;
};

}  // namespace reduce
}  // namespace zeb
