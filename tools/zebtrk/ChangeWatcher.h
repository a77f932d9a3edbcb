// ChangeWatcher: registers a files-changed handler with the plug-in (through
// its C interface) and queues, for every report, the movie list as it stood
// when the plug-in reported the change.
//
// The handler runs in the thread that refreshed the plug-in's movie cache
// (its monitoring thread, or the thread that removed a movie) while the
// plug-in's cache lock is held; it takes the list there, so each report
// carries a consistent list, queues it under the watcher's own mutex and
// makes fd() readable. The consuming thread never calls the plug-in while it
// holds that mutex, so the lock order is always the plug-in's lock first.
//
// Ownership: borrows the PluginLoader, which must outlive the watcher. The
// destructor unregisters the handler; once it returns the handler is not
// running and will not run again. Consume from one thread.
#pragma once

#include <deque>
#include <mutex>
#include <vector>

#include "tools/zebtrk/MovieCatalog.h"
#include "tools/zebtrk/PluginLoader.h"

class ChangeWatcher {
 public:
  // Registers the handler. Failure to make the notification descriptor:
  // CliError kExitFailure.
  explicit ChangeWatcher(PluginLoader& plugin);
  ~ChangeWatcher();
  ChangeWatcher(const ChangeWatcher&) = delete;
  ChangeWatcher& operator=(const ChangeWatcher&) = delete;

  // Readable while reports are queued (an eventfd).
  int fd() const { return m_fd; }
  // Takes the oldest queued report into `movies`; false when none is queued.
  bool Pop(std::vector<Movie>& movies);
  // Reports received so far.
  unsigned long reports() const;

 private:
  static void OnFilesChanged(void* self);
  void Record();

  PluginLoader& m_plugin;
  int m_fd = -1;
  zebDelegate m_handle{};
  mutable std::mutex m_lock;  // guards m_queue, m_reports
  std::deque<std::vector<Movie>> m_queue;
  unsigned long m_reports = 0;
};
