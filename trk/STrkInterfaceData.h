// STrkInterfaceData: the private record of the "trk:" file system
// (CTrkInterface), internal to the plug-in.
//
// Ownership: CTrkInterface allocates one in its constructor and deletes it in
// its destructor; nothing else owns or frees it. The record owns both service
// connections, the monitoring thread, the movie cache and the handler list.
//
// Threads and locks:
// - `lock` (recursive) guards `movies` and `handlers`. A refresh holds it for
//   its whole run, service requests and handler calls included. Lock order:
//   `lock` first, then a client's own lock; never the other way round.
// - `client` is shared by every host thread (its own lock serialises
//   exchanges); `eventClient` belongs to the monitoring thread.
// - `cwd` is not guarded: hosts set it before use or from one thread.
// - `emulator` and `queueId` are written only during construction.
// - `monitorLock` guards `monitorEnded`, which the monitoring thread sets as
//   its very last act so that the destructor can wait for it with a bound.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include <zeb/CEvent.h>
#include <zeb/CString.h>
#include <zeb/TArray.h>
#include <zeb/delegate.h>

#include "client/CTrkClient.h"
#include "client/STrkEvent.h"
#include "client/STrkMovieInfo.h"

namespace zeb {
namespace trk {

class CTrkInterface;

struct STrkInterfaceData {
  // Identifier of "no event queue".
  static constexpr unsigned int kNoQueue = 0xFFFFFFFFu;

  STrkInterfaceData();
  // Destroys every handler, then both clients (each disconnects), cwd and the
  // cache. The monitoring thread must have been joined (CTrkInterface's
  // destructor does that first).
  ~STrkInterfaceData();
  STrkInterfaceData(const STrkInterfaceData&) = delete;
  STrkInterfaceData& operator=(const STrkInterfaceData&) = delete;

  // The cache refresh. Takes `lock`, empties `movies`, asks `client` for the
  // number of movies, makes that many all-zero records and fills record i with
  // GetMovieInfo(i) (results not examined), then calls every handler with
  // `lock` still held. On a failed count the cache stays empty and the
  // handlers are called all the same.
  // Raises the framework's out-of-memory exception when the cache cannot grow
  // (the cache is then empty, the handlers are not called, `lock` is
  // released); std::system_error when the mutex fails.
  void ListMovies();

  // Calls every registered handler, first registered first, in the calling
  // thread with `lock` held (taken here; recursive, so callers that hold it
  // already may call this). Used by the refresh and by the emulator-mode
  // removal of a movie.
  //
  // A handler may add or remove handlers while it runs: the walk goes over a
  // snapshot (copies of the delegates, which keep their targets alive for the
  // walk), and before each call it checks that the handler it copied (by the
  // registered handler's three words, not the copy's: a copy may get a target
  // of its own) is still registered. So a handler removed during the walk is not called again,
  // even when it comes later in the snapshot (a host may free its user data
  // right after removing it); a handler added during the walk is called from
  // the next walk on. Raises the framework's out-of-memory exception when the
  // snapshot cannot be made (no handler is called then).
  void CallHandlers();

  // Body of the monitoring thread: creates the event queue on `eventClient`,
  // stores its id in `queueId`, signals `created` (which it never touches
  // again), then reads events until a read fails or delivers type 0,
  // refreshing on type 1; finally disconnects `eventClient` and sets
  // `monitorEnded`. An exception inside a refresh ends monitoring as a failed
  // read does; nothing leaves the thread.
  void Monitor(zeb::CEvent* created);

  // Stops the monitoring thread, if one was started, and joins it; returns
  // promptly even when the service never answers (see the definition).
  // Called by CTrkInterface's destructor only, once.
  void StopMonitoring();

  // Fields in the order the file system's contract gives them.
  zeb::TArray<STrkMovieInfo> movies;
  zeb::CString cwd;
  CTrkClient client;
  CTrkClient eventClient;
  std::thread thread;
  unsigned int queueId;
  zeb::TArray<zeb::delegate<void()>> handlers;
  std::recursive_mutex lock;
  bool emulator;

  // Bookkeeping of the monitoring thread's end (see above).
  std::mutex monitorLock;
  std::condition_variable monitorCondition;
  bool monitorEnded;
};

}  // namespace trk
}  // namespace zeb
