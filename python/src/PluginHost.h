// PluginHost: the zebtrk plug-in inside a Python process. Like the zebtrk
// command, it dlopens libzebtrk.so and reaches movies only through the
// framework: the "trk:" file system from the URI handler, its files, and the
// plug-in's C functions for the drive state, removal and change handlers.
//
// One per process (Instance()), never destroyed: the plug-in is a process-wide
// singleton that lives until exit, and tearing it down from the extension's
// static destructors could run after the framework's own. Its monitoring
// thread ends with the plug-in's destructor at exit; the module removes its
// Python handlers before the interpreter finalises (ChangeHandlers).
//
// The plug-in is looked for at $ZEBTRK_PLUGIN when set, otherwise beside the
// framework library libzeb.so that this extension loaded (the plug-in lives in
// the same library folder, in the build tree and in an installed tree).
//
// Threads: any thread, WITHOUT the GIL: the plug-in calls Python handlers from
// its monitoring thread while it holds its cache lock, so a thread that held
// the GIL while waiting for that lock would deadlock. Start is serialised by
// an internal mutex; the other calls only read what Start published (atomics)
// and never take that mutex, which a handler running under the plug-in's
// lock would otherwise take in the opposite order. Failures throw ModuleError.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "tools/zebtrk/MovieCatalog.h"
#include "tools/zebtrk/PluginLoader.h"

class PluginHost {
 public:
  static PluginHost& Instance();

  // Where the plug-in is looked for (see above).
  static std::string PluginPath();
  // The emulator's cache directory ($HOME/.cache/Ostrel Systems/TRK).
  static std::string CacheDir();
  // Whether ZEBTRK_ENABLE_EMULATOR holds a non-empty value.
  static bool EmulatorRequested();

  // Loads and starts the plug-in on the first successful call. In normal
  // mode every call first checks that the service answers (kNoService with
  // how to start the simulator). The plug-in reads the mode once, when it
  // starts: emulator() tells which mode it runs in.
  void Start();
  bool emulator() const { return m_emulator.load(); }

  bool DrivePresent();
  std::vector<Movie> List();
  // kNoMovie naming `query` and the names that come close.
  Movie Find(const std::string& query, bool allowNumber);
  // Deletes the movie; kNoMovie, kNoService, kPermission or kFailure.
  void Remove(const std::string& query);
  // The movie's information file (NAME:info) as text.
  std::string ReadInfo(const Movie& movie);
  // kNoService when, in normal mode, the service no longer answers; `what`
  // says what failed ("reading frame 3 of 1-Run").
  void CheckService(const std::string& what);

  zeb::IFileSystem* fileSystem();
  PluginLoader& loader();

 private:
  PluginHost() = default;
  std::mutex m_lock;  // serialises Start
  PluginLoader* m_plugin = nullptr;  // written by Start only; never deleted (see above)
  std::atomic<bool> m_emulator{false};
  // Set last by a successful Start: m_plugin and m_emulator are valid then.
  std::atomic<zeb::IFileSystem*> m_fileSystem{nullptr};
};
