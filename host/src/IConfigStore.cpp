// IConfigStore: the interface's out-of-line destructor.
#include <zeb/IConfigStore.h>

namespace zeb {

IConfigStore::~IConfigStore() = default;

}  // namespace zeb
