// The plug-in's entrances: zeb::trk::instance(), the single file system, and
// the four C functions that concern the plug-in as a whole (zebtrk_Load,
// zebtrk_drivePresent and the files-changed handler functions).
//
// Loading the library constructs nothing: the file system is a function-local
// static, built by the first call of instance() under the runtime's
// one-time-initialisation guard and destroyed at process exit.
#include "trk/zebtrk.h"

#include <atomic>
#include <cstdint>

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

// The heap target of a handler made for a C host: the host's callback and
// user data, then the clone/destroy pair that the delegate's table word points
// at, then the reference count. Every copy of the delegate shares the target,
// so copies compare equal and any of them removes the handler.
struct SHandlerTarget {
  void (*callback)(void* userData);
  void* userData;
  void* (*clone)(void* target);
  void (*destroy)(void* target);
  std::atomic<std::uint32_t> count;
};

static_assert(sizeof(std::atomic<std::uint32_t>) == 4, "32-bit reference count");

void InvokeHandler(void* target) {
  const SHandlerTarget* handler = static_cast<const SHandlerTarget*>(target);
  handler->callback(handler->userData);
}

void* CloneHandler(void* target) {
  static_cast<SHandlerTarget*>(target)->count.fetch_add(1, std::memory_order_relaxed);
  return target;
}

// The registered copy and the host's handle may be released in different
// threads: the last release frees the target.
void DestroyHandler(void* target) {
  SHandlerTarget* handler = static_cast<SHandlerTarget*>(target);
  if (handler->count.fetch_sub(1, std::memory_order_acq_rel) == 1) delete handler;
}

typedef zeb::delegate<void()> Handler;

}  // namespace

extern "C" {

zebtrk_Interface* zebtrk_Load(void) { return zeb::trk::instance(); }

bool zebtrk_drivePresent(void) { return zeb::trk::instance()->drivePresent(); }

zebDelegate zebtrk_AddFilesChangedHandler(void (*callback)(void* userData), void* userData) {
  SHandlerTarget* target = new SHandlerTarget{callback, userData, &CloneHandler, &DestroyHandler, {1}};  // count 1
  // The table word points at the clone/destroy pair inside the target.
  const Handler local(&InvokeHandler, target, reinterpret_cast<const Handler::STable*>(&target->clone));
  zeb::trk::instance()->AddFilesChangedHandler(local);  // registers a clone: 2
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
