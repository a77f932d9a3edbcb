// CTrkInterface: the "trk:" file system of the plug-in. Its root "/" holds one
// file per movie on the recorder's drive, named "%lu-%s" from the movie's
// number and name.
//
// One instance per process, made on first use by zeb::trk::instance() and
// living until exit. Construction connects to the movie service, fills the
// movie cache, starts the monitoring thread (which refreshes the cache and
// calls the files-changed handlers when the service reports a change) and
// registers the object with the framework's URI handler for "trk:". With
// ZEBTRK_ENABLE_EMULATOR set to a non-empty value it contacts no service and
// serves the "*.dat" raw imager files of the cache directory instead.
//
// Ownership: the object owns its private record (STrkInterfaceData), which
// owns the connections, the thread, the cache and the registered handlers.
// Returned listings and entries are the caller's.
//
// Threads: every operation may be called from any thread, including from a
// files-changed handler running in the refreshing thread. The cache and the
// handler list are guarded by one recursive lock; the working directory is
// not guarded (set it before use or from one thread).
#pragma once

#include <zeb/CString.h>
#include <zeb/IFileSystem.h>
#include <zeb/TSharedPtr.h>
#include <zeb/delegate.h>

namespace zeb {
namespace trk {

struct STrkInterfaceData;

class CTrkInterface : public zeb::IFileSystem {
 public:
  // Builds the file system (see above). Failures along the way only leave
  // features out (no cache, no monitoring); nothing is reported.
  CTrkInterface();
  // Stops monitoring (bounded even when the service does not answer),
  // disconnects and frees the record. The "trk:" registration stays.
  ~CTrkInterface() override;
  CTrkInterface(const CTrkInterface&) = delete;
  CTrkInterface& operator=(const CTrkInterface&) = delete;

  // The movie file at `path`, or its information file for a path ending in
  // ":info"; empty when nothing can be opened. Defined with the movie files.
  zeb::TSharedPtr<zeb::IFile> OpenFile(const zeb::CString& path, unsigned int mode) override;

  // The root listing: one entry per cached movie whose own name matches the
  // wildcard `filter` (empty: all), in cache order; in emulator mode one per
  // usable "*.dat" file of the cache directory (`filter` unused). Any path
  // other than the root gives an empty listing whose `path` is the full path.
  // Never throws but std::system_error for a failed mutex.
  CDirectoryListing GetDirectoryListing(const zeb::CString& path, const zeb::CString& filter) override;

  // The entry of the movie whose file name is the last component of `path`
  // (first match in cache order); `type` 0x80000000 when there is none.
  CDirectoryEntry GetInfo(const zeb::CString& path) override;

  // Deletes the movie at `path`; true when it was deleted. Defined with the
  // movie files.
  bool RemoveFile(const zeb::CString& path) override;

  // The file system has no directory but its root: both return false.
  bool MakeDir(const zeb::CString& path, bool recursive) override;
  bool RemoveDir(const zeb::CString& path, bool recursive) override;

  // Sets the working directory to a copy of `path` (unchecked); true.
  bool SetCurrentWorkingDirectory(const zeb::CString& path) override;
  // A copy of the working directory (empty at first).
  zeb::CString GetCurrentWorkingDirectory() override;
  // `path` without a leading "trk://", resolved against the working
  // directory with '/' as separator.
  zeb::CString GetFullPath(const zeb::CString& path) override;

  // True in emulator mode; otherwise the service's answer to a drive query,
  // asked anew on every call (false when the service cannot be asked).
  bool drivePresent();

  // Registers a handler called after every refresh of the movie cache. A
  // handler equal to one already registered (same three words) is ignored.
  // The const overload registers a clone; the rvalue overload moves the
  // argument in and leaves it empty (left as it was when ignored).
  // Raises the framework's out-of-memory exception when the list cannot grow
  // (the list is then unchanged).
  void AddFilesChangedHandler(const zeb::delegate<void()>& handler);
  void AddFilesChangedHandler(zeb::delegate<void()>&& handler);
  // Unregisters (and destroys) the first registered handler equal to
  // `handler`; the others keep their order. Nothing happens when none is.
  void RemoveFilesChangedHandler(const zeb::delegate<void()>& handler);

  // The private record, for the plug-in's own units (the movie files and the
  // C functions); its type is internal (trk/STrkInterfaceData.h).
  STrkInterfaceData* data() const { return m_data; }

 private:
  STrkInterfaceData* m_data;
};

// The process's single file system, constructed by the first call (in the
// calling thread; concurrent first callers wait for it) and destroyed at
// process exit. A constructor that throws (exhausted memory) leaves it
// unconstructed, and the next call tries again.
CTrkInterface* instance();

}  // namespace trk
}  // namespace zeb
