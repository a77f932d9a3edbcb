// IFile: the framework's own operations of every file.
#include <zeb/IFile.h>

namespace zeb {

IFile::IFile() = default;
IFile::~IFile() = default;

bool IFile::Reopen(unsigned int) { return false; }

bool IFile::WriteBytes(const void* data, unsigned int size) {
  const unsigned char* bytes = static_cast<const unsigned char*>(data);
  while (size > 0) {
    const unsigned int n = Write(bytes, size);
    if (n == 0 || n > size) return false;  // no progress, or a broken Write
    bytes += n;
    size -= n;
  }
  return true;
}

bool IFile::ReadBytes(void* data, unsigned int size) {
  unsigned char* bytes = static_cast<unsigned char*>(data);
  while (size > 0) {
    const unsigned int n = Read(bytes, size);
    if (n == 0 || n > size) return false;
    bytes += n;
    size -= n;
  }
  return true;
}

long IFile::SeekToBegin() { return Seek(0, kSeekBegin); }

}  // namespace zeb
