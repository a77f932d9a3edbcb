// CLocalFile: pread/pwrite at a position of our own.
#include "CLocalFile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zeb {
namespace {

bool Writable(unsigned int mode) { return (mode & IFile::kModeWrite) != 0; }

}  // namespace

int CLocalFile::OpenDescriptor(const CString& path, unsigned int mode) {
  if (path.empty()) return -1;
  int flags = O_CLOEXEC | O_NOCTTY;
  if (Writable(mode)) {
    flags |= O_RDWR;
    if (mode & kModeCreate) flags |= O_CREAT;
  } else {
    flags |= O_RDONLY | O_NONBLOCK;  // never hang on a FIFO; rejected below
  }
  int fd;
  do {
    fd = ::open(path.c_str(), flags, 0666);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return -1;
  struct stat info;
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    return -1;
  }
  if (!Writable(mode)) {
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  } else if ((mode & kModeTruncate) && ::ftruncate(fd, 0) != 0) {
    // Truncated only after the type check, so a directory or device is
    // never touched.
    ::close(fd);
    return -1;
  }
  return fd;
}

CLocalFile::CLocalFile(int fd, const CString& path, unsigned int mode, IFileSystem* fileSystem)
    : m_fd(fd), m_position(0), m_mode(mode), m_path(path), m_fileSystem(fileSystem) {}

CLocalFile::~CLocalFile() { Close(); }

CString CLocalFile::filename() { return m_path; }
IFileSystem* CLocalFile::fileSystem() { return m_fileSystem; }

unsigned int CLocalFile::Write(const void* data, unsigned int size) {
  if (m_fd < 0 || !Writable(m_mode)) return 0;
  const char* bytes = static_cast<const char*>(data);
  unsigned int done = 0;
  while (done < size) {
    const ssize_t n = ::pwrite(m_fd, bytes + done, size - done, m_position);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<unsigned int>(n);
    m_position += n;
  }
  return done;
}

unsigned int CLocalFile::Read(void* data, unsigned int size) {
  if (m_fd < 0) return 0;
  char* bytes = static_cast<char*>(data);
  unsigned int done = 0;
  while (done < size) {
    const ssize_t n = ::pread(m_fd, bytes + done, size - done, m_position);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // end of file or an error
    done += static_cast<unsigned int>(n);
    m_position += n;
  }
  return done;
}

long CLocalFile::GetSize() {
  struct stat info;
  if (m_fd < 0 || ::fstat(m_fd, &info) != 0) return -1;
  return static_cast<long>(info.st_size);
}

long CLocalFile::GetPosition() { return m_position; }

long CLocalFile::Seek(long offset, unsigned int origin) {
  long base;
  switch (origin) {
    case kSeekBegin: base = 0; break;
    case kSeekCurrent: base = m_position; break;
    case kSeekEnd:
      base = GetSize();
      if (base < 0) return m_position;
      break;
    default: return m_position;
  }
  long target;
  if (__builtin_add_overflow(base, offset, &target)) return m_position;
  m_position = target < 0 ? 0 : target;
  return m_position;
}

bool CLocalFile::SetSize(long size) {
  if (m_fd < 0 || !Writable(m_mode) || size < 0) return false;
  return ::ftruncate(m_fd, size) == 0;
}

void CLocalFile::Flush() {}

bool CLocalFile::Close() {
  if (m_fd < 0) return true;
  const int result = ::close(m_fd);
  m_fd = -1;
  return result == 0;
}

bool CLocalFile::canRead() { return m_fd >= 0; }
bool CLocalFile::canWrite() { return m_fd >= 0 && Writable(m_mode); }

bool CLocalFile::Reopen(unsigned int mode) {
  const int fd = OpenDescriptor(m_path, mode);
  if (fd < 0) return false;
  Close();
  m_fd = fd;
  m_mode = mode;
  return true;
}

}  // namespace zeb
