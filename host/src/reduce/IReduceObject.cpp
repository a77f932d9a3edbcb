// IReduceObject: the interface's out-of-line destructor.
#include <zeb/reduce/IReduceObject.h>

namespace zeb {
namespace reduce {

IReduceObject::~IReduceObject() = default;

}  // namespace reduce
}  // namespace zeb
