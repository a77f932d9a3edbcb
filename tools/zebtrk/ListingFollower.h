// ListingFollower: keeps the mount's listing in step with the plug-in. It
// hands the movie list to a listener at start and again at every
// files-changed report of the plug-in (ChangeWatcher). In emulator mode,
// where the plug-in reports only deletions made through it, it also reads
// the list again whenever movie files of the cache directory change; in
// normal mode it watches the service's socket and tells the user once when
// the service goes away (the plug-in then reports nothing more).
//
// Ownership: borrows the plug-in and its file system, which must outlive the
// follower; owns its thread, stopped and joined by the destructor. The
// listener and the notice run on that thread (the first listing on the
// constructing one).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <zeb/IFileSystem.h>

#include "tools/zebtrk/ChangeWatcher.h"
#include "tools/zebtrk/DirectoryWatcher.h"
#include "tools/zebtrk/MovieCatalog.h"
#include "tools/zebtrk/PluginLoader.h"

class ListingFollower {
 public:
  typedef std::function<void(const std::vector<Movie>& movies)> Listener;
  typedef std::function<void(const std::string& message)> Notice;

  // `cacheDir` is watched in emulator mode (when it exists). Failure to set
  // up the descriptors: CliError kExitFailure.
  ListingFollower(PluginLoader& plugin, zeb::IFileSystem* fileSystem, bool emulator, const std::string& cacheDir,
                  Listener listener, Notice notice);
  ~ListingFollower();
  ListingFollower(const ListingFollower&) = delete;
  ListingFollower& operator=(const ListingFollower&) = delete;

 private:
  void Follow();

  zeb::IFileSystem* m_fileSystem;
  bool m_emulator;
  Listener m_listener;
  Notice m_notice;
  ChangeWatcher m_watcher;
  std::unique_ptr<DirectoryWatcher> m_folder;
  int m_stop = -1;  // eventfd: readable once the destructor runs
  std::thread m_thread;
};
