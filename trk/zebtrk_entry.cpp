// The plug-in's entrances: zeb::trk::instance(), the single file system, and
// the four C functions that concern the plug-in as a whole (zebtrk_Load,
// zebtrk_drivePresent and the files-changed handler functions).
//
// Loading the library constructs nothing: the file system is a function-local
// static, built by the first call of instance() under the runtime's
// one-time-initialisation guard and destroyed at process exit.
#include "trk/zebtrk.h"

#include <zeb/delegate.h>

#include "trk/CTrkInterface.h"

namespace zeb {
namespace trk {

CTrkInterface* instance() {
  static CTrkInterface fileSystem;
  return &fileSystem;
}

}  // namespace trk
}  // namespace zeb

namespace {

typedef zeb::delegate<void()> Handler;

// The function object of a handler made for a C host: the host's callback and
// its user data. FromLamda puts it in a heap target followed by the
// clone/destroy pair that the delegate's table word points at and a 32-bit
// atomic reference count; every copy of the delegate shares that target, so
// copies compare equal and any of them removes the handler, and the last
// release (in whichever thread) frees it.
struct SHostCallback {
  void (*callback)(void* userData);
  void* userData;
  void operator()() const { callback(userData); }
};

}  // namespace

extern "C" {

zebtrk_Interface* zebtrk_Load(void) { return zeb::trk::instance(); }

bool zebtrk_drivePresent(void) { return zeb::trk::instance()->drivePresent(); }

// A null callback registers nothing and gives the empty handle (all three
// words null), which zebtrk_RemoveFilesChangedHandler accepts and ignores: a
// handler that can only crash the refreshing thread is refused up front.
zebDelegate zebtrk_AddFilesChangedHandler(void (*callback)(void* userData), void* userData) {
  zeb::trk::CTrkInterface* fileSystem = zeb::trk::instance();
  if (!callback) return zebDelegate{nullptr, nullptr, nullptr};
  const Handler local = Handler::FromLamda(SHostCallback{callback, userData});  // count 1
  fileSystem->AddFilesChangedHandler(local);                                     // registers a clone: 2
  Handler handle(local);                                // 3
  return zeb::ToC(std::move(handle));                   // `local` goes: 2
}

void zebtrk_RemoveFilesChangedHandler(zebDelegate handler) {
  {
    // A copy of the handle (a clone: count 3 for a handle of ours), with
    // which the registered copy is found and destroyed (2); the copy goes at
    // the end of this block (1).
    const Handler::STable* table = static_cast<const Handler::STable*>(handler.table);
    const Handler copy(handler.invoker, table ? table->clone(handler.target) : handler.target, table);
    zeb::trk::instance()->RemoveFilesChangedHandler(copy);
  }
  zebDelegate_Destroy(handler);  // the host's reference: 0 frees the target
}

}  // extern "C"
