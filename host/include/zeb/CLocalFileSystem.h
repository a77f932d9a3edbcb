// CLocalFileSystem: the local disk as an IFileSystem; zeb::fileSystem()
// gives the process's instance.
//
// Paths are local paths with '/'; a leading "file://" is stripped. Relative
// paths resolve against the file system's own working directory, which
// starts as the process's current directory at construction and is changed
// only by SetCurrentWorkingDirectory (the process's directory is never
// changed).
//
// OpenFile modes are IFile::EMode bits: 0 or kModeRead (any of the sharing
// bits, e.g. 0x12) opens an existing file read-only; kModeWrite read-write;
// kModeCreate creates a missing file (with kModeWrite); kModeTruncate empties
// it; kModeCreateWrite does all three. Only regular files open. Files are
// read and written with 64-bit positions (pread/pwrite).
//
// GetDirectoryListing lists regular files (type kTypeFile) and directories
// (kTypeDirectory), following symbolic links; other kinds and "." / ".." are
// left out. Entries come sorted by name. GetInfo gives kTypeFile,
// kTypeDirectory, kTypeOther, or kTypeNone with name and path filled in when
// nothing is there; times are modification times.
//
// Thread-safe: every operation may be called from any thread (the working
// directory is guarded). Files it opens are used by one thread at a time.
#pragma once

#include <mutex>

#include <zeb/Api.h>
#include <zeb/IFileSystem.h>

namespace zeb {

class ZEB_API CLocalFileSystem : public IFileSystem {
 public:
  CLocalFileSystem();
  ~CLocalFileSystem() override;

  // kCapRead | kCapWrite | kCapRemove | kCapDirectories.
  unsigned int GetCapabilities() override;
  TSharedPtr<IFile> OpenFile(const CString& path, unsigned int mode) override;
  // An unreadable or missing directory gives an empty listing (its path set).
  CDirectoryListing GetDirectoryListing(const CString& path, const CString& filter) override;
  CDirectoryEntry GetInfo(const CString& path) override;
  // Removes a file (not a directory); true when it was removed.
  bool RemoveFile(const CString& path) override;
  // Makes a directory (and its missing parents when `recursive`); true when
  // the directory exists afterwards.
  bool MakeDir(const CString& path, bool recursive) override;
  // Removes an empty directory, or with `recursive` everything in it
  // (symbolic links are removed, never followed). True when it is gone.
  bool RemoveDir(const CString& path, bool recursive) override;
  // False (and no change) when `path` is not a directory.
  bool SetCurrentWorkingDirectory(const CString& path) override;
  CString GetCurrentWorkingDirectory() override;
  CString GetFullPath(const CString& path) override;

 private:
  std::mutex m_lock;  // guards m_cwd
  CString m_cwd;
};

// The local disk file system of the process (constructed on first use,
// lives until exit).
ZEB_API IFileSystem* fileSystem();

}  // namespace zeb
