// DriveWatcher: notices changes of the drive folder made by anyone (movies
// copied in, deleted, renamed, written to the end; the folder itself
// appearing or disappearing) and has the catalogue rescan, which announces
// the change to every event queue.
//
// It watches the folder (IN_CREATE, IN_DELETE, IN_MOVED_FROM, IN_MOVED_TO,
// IN_CLOSE_WRITE) and its parent (for the folder's own name) with inotify.
// Bursts are coalesced: a rescan runs once the folder has been quiet for
// kQuietMs, or kMaxDelayMs after the first change of a burst at the latest;
// a change during a rescan is followed by another rescan, so the final state
// is always scanned. While the parent folder does not exist it is looked for
// again every second.
//
// Threads: Start and Stop are called by one thread (main); the watcher runs
// its own thread in between and calls MovieCatalog::Refresh on it.
#pragma once

#include <sys/types.h>

#include <string>
#include <thread>

#include "tools/zebtrksvc/MovieCatalog.h"
#include "tools/zebtrksvc/UniqueFd.h"

namespace zebtrksvc {

class DriveWatcher {
 public:
  static constexpr int kQuietMs = 40;
  static constexpr int kMaxDelayMs = 400;
  static constexpr int kParentRetryMs = 1000;

  explicit DriveWatcher(MovieCatalog& catalog);
  // Stop().
  ~DriveWatcher();
  DriveWatcher(const DriveWatcher&) = delete;
  DriveWatcher& operator=(const DriveWatcher&) = delete;

  // Sets up the watches, scans the drive once (on the calling thread) and
  // starts watching. Success: true. Failure (inotify or the thread cannot be
  // had): false with `error` set, nothing running.
  bool Start(std::string& error);
  // Ends the watching thread; harmless when not started.
  void Stop();

 private:
  void Run();
  // Brings the watches in line with what exists now. True when a watch was
  // added or dropped (the folder came or went, the parent appeared).
  bool Rewatch();
  // Reads the pending inotify events; true when one of them matters.
  bool Drain();
  // Refresh, a failure logged rather than ending the thread.
  void Rescan();

  MovieCatalog& m_catalog;
  std::string m_parent;     // folder holding the drive folder
  std::string m_leaf;       // the drive folder's own name
  UniqueFd m_inotify;
  UniqueFd m_wake;          // eventfd: Stop() wakes the thread
  int m_parentWatch = -1;
  int m_driveWatch = -1;
  dev_t m_driveDevice = 0;  // identity of the watched drive folder
  ino_t m_driveInode = 0;
  std::thread m_thread;
};

}  // namespace zebtrksvc
