// DirectoryWatcher: notices, with inotify, that files of a folder were
// finished, renamed or deleted, for the names a predicate selects.
//
// `watch` uses two: in emulator mode the plug-in runs no monitoring thread
// and reports a change only when this process removes a movie, so a watcher
// on the cache directory (names ending in ".dat" or ".info"; not the ".meta"
// stores that listing writes) sees movies that other processes add or
// remove; in normal mode a watcher on /tmp sees the service's socket go away
// (after which the plug-in can report nothing more).
//
// Ownership: owns the inotify descriptor. One thread.
#pragma once

#include <functional>
#include <string>

class DirectoryWatcher {
 public:
  typedef std::function<bool(const char* name)> Predicate;

  // Watches `folder` for names that `relevant` accepts. Failure (missing
  // folder, no inotify): CliError kExitFailure with the reason.
  DirectoryWatcher(const std::string& folder, Predicate relevant);
  ~DirectoryWatcher();
  DirectoryWatcher(const DirectoryWatcher&) = delete;
  DirectoryWatcher& operator=(const DirectoryWatcher&) = delete;

  // Readable when events are pending (for poll).
  int fd() const { return m_fd; }
  // Reads the pending events; true when one of them concerns a relevant
  // name (or events were lost).
  bool Drain();

  // Names ending in ".dat" or ".info".
  static bool IsMovieFile(const char* name);

 private:
  int m_fd = -1;
  Predicate m_relevant;
};
