// IFileSystem: the framework's abstract file system.
//
// Implementations: the local disk (zeb::fileSystem()) and plug-in file
// systems registered with CUriHandler. Paths are texts with '/' as separator;
// each file system resolves relative paths against its own working directory
// (GetFullPath). Thread-safety is the implementation's to state; the
// framework's own operations here (Copy, FileExists, IsFile, IsDirectory,
// GetCapabilities) only call the virtual operations.
//
// The virtual operations are declared in the framework's slot order; code
// compiled against the framework relies on it, so never reorder them.
#pragma once

#include <zeb/Api.h>
#include <zeb/CDateTime.h>
#include <zeb/CPropertyArray.h>
#include <zeb/CString.h>
#include <zeb/IFile.h>
#include <zeb/TArray.h>
#include <zeb/TSharedPtr.h>

namespace zeb {

class ZEB_API IFileSystem {
 public:
  // CDirectoryEntry::type values.
  static constexpr unsigned int kTypeDirectory = 1;
  static constexpr unsigned int kTypeFile = 2;
  static constexpr unsigned int kTypeOther = 4;           // device, pipe, socket
  static constexpr unsigned int kTypeNone = 0x80000000u;  // nothing there

  // GetCapabilities bits.
  enum ECapability : unsigned int {
    kCapRead = 0x01,         // files can be opened for reading
    kCapWrite = 0x02,        // files can be created and written
    kCapRemove = 0x04,       // RemoveFile works
    kCapDirectories = 0x08,  // MakeDir / RemoveDir work
  };

  // Progress of a copy: (bytes done, bytes in total or -1, context).
  typedef void (*ProgressFunction)(long done, long total, void* context);

  // One directory entry. A plain value.
  class ZEB_API CDirectoryEntry {
   public:
    CDirectoryEntry();
    CString name;              // the entry's file name
    CString path;              // its full path
    unsigned int type;         // kType* above
    unsigned long size;        // bytes (0 for a directory)
    CDateTime time;            // modification time
    CPropertyArray properties; // named text values
  };

  // A directory's entries. Movable and copyable.
  class ZEB_API CDirectoryListing {
   public:
    CDirectoryListing();
    IFileSystem* fileSystem;          // the file system that made it
    CString path;                     // the listed directory's full path
    TArray<CDirectoryEntry> entries;  // its entries
  };

  // Slot 1.
  virtual ~IFileSystem();
  // Slot 2: kCap* bits. The framework's default is kCapRead.
  virtual unsigned int GetCapabilities();
  // Slot 3: opens a file with a mode of IFile::EMode; empty on failure.
  virtual TSharedPtr<IFile> OpenFile(const CString& path, unsigned int mode) = 0;

  // Slots 4 to 9: copies, implemented with OpenFile, Read and Write. Each
  // returns true when every byte arrived. A destination that exists is
  // replaced only when `overwrite` is true. `progress` may be null. A failed
  // copy may leave a partial destination file.
  // 4: a file of this file system to another of this file system.
  virtual bool Copy(const CString& from, const CString& to, bool overwrite,
                    ProgressFunction progress, void* context);
  // 5: a file of this file system into an open file, from its position.
  virtual bool Copy(const CString& from, TSharedPtr<IFile> to, ProgressFunction progress,
                    void* context);
  // 6: an open file, from its position to its end, into a file of this one.
  virtual bool Copy(TSharedPtr<IFile> from, const CString& to, bool overwrite,
                    ProgressFunction progress, void* context);
  // 7: `size` bytes of an open file, from its position, into a file of this
  // one; fails when fewer than `size` bytes could be read.
  virtual bool Copy(TSharedPtr<IFile> from, const CString& to, long size, bool overwrite,
                    ProgressFunction progress, void* context);
  // 8: a file of this file system to `to` on `toFileSystem`.
  virtual bool Copy(const CString& from, IFileSystem* toFileSystem, const CString& to,
                    bool overwrite, ProgressFunction progress, void* context);
  // 9: `from` on `fromFileSystem` to a file of this file system.
  virtual bool Copy(IFileSystem* fromFileSystem, const CString& from, const CString& to,
                    bool overwrite, ProgressFunction progress, void* context);

  // Slot 10: the entries of a directory whose names match the wildcard
  // `filter` (zeb::path::WildcardMatch; an empty filter matches every name).
  virtual CDirectoryListing GetDirectoryListing(const CString& path, const CString& filter) = 0;
  // Slot 11: one entry; type kTypeNone when nothing is there.
  virtual CDirectoryEntry GetInfo(const CString& path) = 0;
  // Slot 12.
  virtual bool RemoveFile(const CString& path) = 0;
  // Slots 13, 14: the flag asks for parents to be made / contents removed.
  virtual bool MakeDir(const CString& path, bool recursive) = 0;
  virtual bool RemoveDir(const CString& path, bool recursive) = 0;
  // Slot 15.
  virtual bool SetCurrentWorkingDirectory(const CString& path) = 0;
  // Slots 16 to 18: from GetInfo. FileExists: a type other than 0 without
  // the sign bit; IsFile: kTypeFile; IsDirectory: kTypeDirectory.
  virtual bool FileExists(const CString& path);
  virtual bool IsFile(const CString& path);
  virtual bool IsDirectory(const CString& path);
  // Slot 19.
  virtual CString GetCurrentWorkingDirectory() = 0;
  // Slot 20: the path resolved against the working directory.
  virtual CString GetFullPath(const CString& path) = 0;

 protected:
  IFileSystem() = default;
  IFileSystem(const IFileSystem&) = default;
  IFileSystem& operator=(const IFileSystem&) = default;
};

}  // namespace zeb
