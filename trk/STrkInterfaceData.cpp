#include "trk/STrkInterfaceData.h"

#include <chrono>
#include <system_error>

namespace zeb {
namespace trk {

namespace {

// How long the destructor waits for the monitoring thread to end on its own
// (the service answering the pending read once its queue is destroyed) before
// it shuts the connections down under the thread's feet.
constexpr std::chrono::seconds kStopGrace(3);

}  // namespace

STrkInterfaceData::STrkInterfaceData() : queueId(kNoQueue), emulator(false), monitorEnded(false) {}

STrkInterfaceData::~STrkInterfaceData() {
  // Handlers first (each destroy operation runs), then the rest in reverse
  // order of declaration: clients (which disconnect), cwd, the cache.
  handlers.Clear();
}

void STrkInterfaceData::ListMovies() {
  std::lock_guard<std::recursive_mutex> guard(lock);
  movies.Clear();
  unsigned int count = 0;
  if (client.ListMovies(count)) {
    movies.Resize(count);  // all-zero records; may raise the out-of-memory exception
    for (unsigned int i = 0; i < count; ++i) {
      // The result is not examined: a record whose request failed keeps what
      // the failed call left in it and stays in the cache.
      client.GetMovieInfo(i, &movies[i]);
    }
  }
  CallHandlers();
}

namespace {

typedef zeb::delegate<void()> Handler;

// One handler of a walk: a copy to call, and the three words of the
// registered handler it was copied from. A copy's clone may return a new
// target (delegates made by other code than ours may do so), so the copy
// itself is not what identifies the registered handler.
struct SWalkEntry {
  Handler copy;
  Handler::Invoker invoker;
  void* target;
  const Handler::STable* table;
};

bool IsRegistered(const zeb::TArray<Handler>& handlers, const SWalkEntry& entry) {
  for (const Handler& handler : handlers) {
    if (handler.invoker() == entry.invoker && handler.target() == entry.target && handler.table() == entry.table) {
      return true;
    }
  }
  return false;
}

}  // namespace

void STrkInterfaceData::CallHandlers() {
  std::lock_guard<std::recursive_mutex> guard(lock);
  // A handler may add or remove handlers (it runs on this thread, and `lock`
  // is recursive), so the walk must not run over `handlers` itself, which may
  // be reallocated or shortened under it. The snapshot's copies hold a
  // reference to each target (or a target of their own), so a handler that
  // removes itself, or another one, cannot free a target that is still to be
  // called.
  zeb::TArray<SWalkEntry> snapshot;
  snapshot.Reserve(handlers.size());
  for (const Handler& handler : handlers) {
    snapshot.Add(SWalkEntry{handler, handler.invoker(), handler.target(), handler.table()});
  }
  for (const SWalkEntry& entry : snapshot) {
    // Removed during this walk: not called again (the host may already have
    // released what the handler uses).
    if (!IsRegistered(handlers, entry)) continue;
    entry.copy();
  }
}

void STrkInterfaceData::Monitor(zeb::CEvent* created) {
  unsigned int id = kNoQueue;
  const bool ok = eventClient.CreateEventQueue(id);
  if (ok) queueId = id;
  created->Signal();  // the constructor's event; not touched again
  if (ok) {
    STrkEvent event{};
    while (eventClient.ReadEventQueue(queueId, event) && event.type != 0) {
      if (event.type != 1) continue;
      // A refresh that throws (exhausted memory, a failed mutex, a handler's
      // own exception) must not terminate the host: it ends monitoring as a
      // failed read does.
      try {
        ListMovies();
      } catch (...) {
        break;
      }
    }
  }
  if (ok) eventClient.Disconnect();
  std::lock_guard<std::mutex> guard(monitorLock);
  monitorEnded = true;
  monitorCondition.notify_all();
}

void STrkInterfaceData::StopMonitoring() {
  if (!thread.joinable()) return;
  if (queueId == kNoQueue) {
    thread.join();  // it ended right after its failed queue creation
    return;
  }
  // Destroying the queue makes the service answer the pending read, which
  // ends the loop. The request goes over `client` in a helper thread so that
  // a service which never answers cannot hold the destructor (and the host's
  // exit) for ever.
  bool destroyDone = false;
  bool destroyed = false;
  std::thread stopper;
  try {
    stopper = std::thread([this, &destroyDone, &destroyed] {
      const bool result = client.DestroyEventQueue(queueId);
      std::lock_guard<std::mutex> guard(monitorLock);
      destroyed = result;
      destroyDone = true;
      monitorCondition.notify_all();
    });
  } catch (const std::system_error&) {
    destroyDone = true;  // no thread to spare: go straight to the shut-down
  }
  {
    // Wait until both are over, but not past the grace period, and no longer
    // at all once the queue could not be destroyed: the service will then
    // not answer the pending read.
    std::unique_lock<std::mutex> guard(monitorLock);
    monitorCondition.wait_for(guard, kStopGrace, [&] { return destroyDone && (monitorEnded || !destroyed); });
    if (!monitorEnded || !destroyDone) {
      // Wake whatever still waits for the service: the monitoring thread in
      // its read (or in a refresh on `client`) and the helper. Shutting a
      // connection down takes no client lock, since the waiting exchange
      // holds it, and goes through a descriptor of its own (prepared at
      // construction); the blocked reads then fail and the threads return.
      if (!monitorEnded) eventClient.Shutdown();
      client.Shutdown();
    }
  }
  if (stopper.joinable()) stopper.join();
  thread.join();
}

}  // namespace trk
}  // namespace zeb
