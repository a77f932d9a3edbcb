// CMemFile: bytes in a vector with a position.
#include <zeb/CMemFile.h>

#include <cstring>
#include <new>
#include <stdexcept>

#include <zeb/Memory.h>

namespace zeb {

TSharedPtr<CMemFile> CMemFile::Create() {
  CMemFile* file = new (std::nothrow) CMemFile();
  if (!file) ThrowBadAllocException();
  return TSharedPtr<CMemFile>(file);
}

TSharedPtr<CMemFile> CMemFile::Create(const void* data, unsigned long size) {
  TSharedPtr<CMemFile> file = Create();
  try {
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    if (size > 0) file->m_bytes.assign(bytes, bytes + size);
  } catch (const std::bad_alloc&) {
    ThrowBadAllocException();
  }
  return file;
}

CMemFile::CMemFile() : m_position(0) {}
CMemFile::~CMemFile() = default;

CString CMemFile::filename() { return m_filename; }
IFileSystem* CMemFile::fileSystem() { return nullptr; }

unsigned int CMemFile::Write(const void* data, unsigned int size) {
  if (size == 0) return 0;
  const unsigned long end = static_cast<unsigned long>(m_position) + size;
  try {
    if (end > m_bytes.size()) m_bytes.resize(end);  // zero-fills any gap
  } catch (const std::bad_alloc&) {
    return 0;
  } catch (const std::length_error&) {
    return 0;
  }
  std::memcpy(m_bytes.data() + m_position, data, size);
  m_position = static_cast<long>(end);
  return size;
}

unsigned int CMemFile::Read(void* data, unsigned int size) {
  const unsigned long position = static_cast<unsigned long>(m_position);
  if (position >= m_bytes.size() || size == 0) return 0;
  const unsigned long available = m_bytes.size() - position;
  const unsigned int n = available < size ? static_cast<unsigned int>(available) : size;
  std::memcpy(data, m_bytes.data() + position, n);
  m_position += n;
  return n;
}

long CMemFile::GetSize() { return static_cast<long>(m_bytes.size()); }
long CMemFile::GetPosition() { return m_position; }

long CMemFile::Seek(long offset, unsigned int origin) {
  long base;
  switch (origin) {
    case kSeekBegin: base = 0; break;
    case kSeekCurrent: base = m_position; break;
    case kSeekEnd: base = GetSize(); break;
    default: return m_position;
  }
  long target;
  if (__builtin_add_overflow(base, offset, &target)) target = offset < 0 ? 0 : m_position;
  m_position = target < 0 ? 0 : target;
  return m_position;
}

bool CMemFile::SetSize(long size) {
  if (size < 0) return false;
  try {
    m_bytes.resize(static_cast<unsigned long>(size));
  } catch (const std::bad_alloc&) {
    return false;
  } catch (const std::length_error&) {
    return false;
  }
  return true;
}

void CMemFile::Flush() {}
bool CMemFile::Close() { return true; }
bool CMemFile::canRead() { return true; }
bool CMemFile::canWrite() { return true; }

void CMemFile::SetFilename(const CString& name) { m_filename = name; }

}  // namespace zeb
