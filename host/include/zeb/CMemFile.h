// CMemFile: an in-memory IFile, readable, writable and growable.
//
// Made with Create(), held through TSharedPtr<CMemFile> (which converts to
// TSharedPtr<IFile>, sharing the counter). It owns its bytes. Writing past the
// end grows the file, filling any gap with zero bytes. Seeking below 0 stops
// at 0; seeking past the end is allowed (the next write extends the file).
// One object is used by one thread at a time. Close() keeps the contents; the
// file stays usable (a memory file has no resource to release).
#pragma once

#include <vector>

#include <zeb/IFile.h>
#include <zeb/TSharedPtr.h>

namespace zeb {

class ZEB_API CMemFile : public IFile {
 public:
  // An empty memory file. Raises CBadAllocException when out of memory.
  static TSharedPtr<CMemFile> Create();
  // A memory file holding a copy of `size` bytes of `data`, at position 0.
  static TSharedPtr<CMemFile> Create(const void* data, unsigned long size);

  CMemFile();
  ~CMemFile() override;

  CString filename() override;
  IFileSystem* fileSystem() override;
  // Returns `size`, or 0 when memory for the growth cannot be had.
  unsigned int Write(const void* data, unsigned int size) override;
  unsigned int Read(void* data, unsigned int size) override;
  long GetSize() override;
  long GetPosition() override;
  long Seek(long offset, unsigned int origin) override;
  // False for a negative size or when memory cannot be had.
  bool SetSize(long size) override;
  void Flush() override;
  bool Close() override;
  bool canRead() override;
  bool canWrite() override;

  // The name that filename() reports (empty by default).
  void SetFilename(const CString& name);
  // The contents (size GetSize()).
  const unsigned char* data() const { return m_bytes.data(); }

 private:
  std::vector<unsigned char> m_bytes;
  long m_position;
  CString m_filename;
};

}  // namespace zeb
