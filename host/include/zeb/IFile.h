// IFile: the framework's abstract file, a byte sequence with a position.
//
// Implementations: the local disk's files (zeb::fileSystem()), CMemFile, and
// the files of plug-in file systems. Files are held through TSharedPtr<IFile>
// and released through the virtual destructor. One file object is used by
// one thread at a time unless an implementation says otherwise.
//
// The virtual operations are declared in the framework's slot order; code
// compiled against the framework relies on it, so never reorder them.
#pragma once

#include <zeb/Api.h>
#include <zeb/CString.h>

namespace zeb {

class IFileSystem;

class ZEB_API IFile {
 public:
  // Seek origins.
  enum ESeekOrigin : unsigned int {
    kSeekBegin = 1,    // offset from the start
    kSeekCurrent = 2,  // offset from the current position
    kSeekEnd = 3,      // offset from the end
  };

  // Open modes of IFileSystem::OpenFile and Reopen (bits).
  //   0 or kModeRead            read an existing file
  //   kModeWrite                read and write an existing file
  //   kModeWrite | kModeCreate  ... creating it when missing
  //   kModeCreateWrite          create or truncate, read and write
  // kModeShareRead / kModeShareWrite are sharing hints that a file system may
  // ignore (the local disk does). Bits not listed here are ignored. The value
  // 0x12 (kModeRead | kModeShareRead) is a read-only open of an existing file.
  enum EMode : unsigned int {
    kModeWrite = 0x01,
    kModeShareRead = 0x02,
    kModeCreate = 0x04,     // with kModeWrite: create a missing file
    kModeTruncate = 0x08,   // with kModeWrite: cut an existing file to 0 bytes
    kModeRead = 0x10,
    kModeShareWrite = 0x20,
    kModeCreateWrite = kModeWrite | kModeCreate | kModeTruncate,
  };

  IFile();
  // Slot 1.
  virtual ~IFile();
  // Slot 2: the file's name or path as its file system knows it.
  virtual CString filename() = 0;
  // Slot 3: the file system that opened the file; null for free-standing
  // files such as CMemFile.
  virtual IFileSystem* fileSystem() = 0;
  // Slot 4: writes at the position and advances it; returns the bytes
  // written (0 for a read-only or closed file).
  virtual unsigned int Write(const void* data, unsigned int size) = 0;
  // Slot 5: reads at the position and advances it; returns the bytes read
  // (fewer than `size` only at the end of the file or on an error).
  virtual unsigned int Read(void* data, unsigned int size) = 0;
  // Slot 6: length in bytes; -1 when it cannot be known.
  virtual long GetSize() = 0;
  // Slot 7.
  virtual long GetPosition() = 0;
  // Slot 8: moves the position (origins above) and returns the new one. An
  // unknown origin leaves the position unchanged and returns it.
  virtual long Seek(long offset, unsigned int origin) = 0;
  // Slot 9: truncates or extends; false when the file cannot be resized.
  virtual bool SetSize(long size) = 0;
  // Slot 10: hands buffered data to the storage.
  virtual void Flush() = 0;
  // Slot 11: releases the underlying resource; true on success.
  virtual bool Close() = 0;
  // Slots 12, 13.
  virtual bool canRead() = 0;
  virtual bool canWrite() = 0;
  // Slot 14: reopens the same file with another mode. The framework's default
  // cannot reopen anything and returns false.
  virtual bool Reopen(unsigned int mode);

  // Writes all `size` bytes at the position (Write in a loop). False when
  // the file accepted fewer; 0 bytes is a success.
  bool WriteBytes(const void* data, unsigned int size);
  // Reads exactly `size` bytes (Read in a loop); false on a short read.
  bool ReadBytes(void* data, unsigned int size);
  // Sets the position to 0; returns the new position.
  long SeekToBegin();

  IFile(const IFile&) = delete;
  IFile& operator=(const IFile&) = delete;
};

}  // namespace zeb
