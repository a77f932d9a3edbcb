// CLocalFile: an IFile over a descriptor of the local disk (private to
// libzeb; made by CLocalFileSystem::OpenFile).
//
// Owns the descriptor (closed by Close or the destructor). Reads and writes
// use pread/pwrite at its own 64-bit position, so files above 4 GiB work.
// Seeking below 0 stops at 0; seeking past the end is allowed. One object is
// used by one thread at a time.
#pragma once

#include <zeb/IFile.h>

namespace zeb {

class CLocalFile : public IFile {
 public:
  // Takes ownership of `fd`, opened with `mode` on `path`.
  CLocalFile(int fd, const CString& path, unsigned int mode, IFileSystem* fileSystem);
  ~CLocalFile() override;

  CString filename() override;
  IFileSystem* fileSystem() override;
  unsigned int Write(const void* data, unsigned int size) override;
  unsigned int Read(void* data, unsigned int size) override;
  long GetSize() override;
  long GetPosition() override;
  long Seek(long offset, unsigned int origin) override;
  bool SetSize(long size) override;
  // Nothing is buffered in the object: writes already reached the kernel.
  void Flush() override;
  bool Close() override;
  bool canRead() override;
  bool canWrite() override;
  // Opens the same path again with `mode` (IFile::EMode), keeping the
  // position. False, with the file as it was, when that open fails.
  bool Reopen(unsigned int mode) override;

  // Opens `path` with an IFile::EMode value; the descriptor of a regular
  // file, or -1.
  static int OpenDescriptor(const CString& path, unsigned int mode);

 private:
  int m_fd;
  long m_position;
  unsigned int m_mode;
  CString m_path;
  IFileSystem* m_fileSystem;
};

}  // namespace zeb
