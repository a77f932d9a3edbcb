#include "ipc/CSharedMemory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

// The object name of segment `name`: "/<name>" cut to fit 512 bytes.
struct ObjectName {
  explicit ObjectName(const char* name) { std::snprintf(text, sizeof(text), "/%s", name); }
  char text[512];
};

}  // namespace

CSharedMemory::CSharedMemory() : m_fd(-1), m_owner(false), m_data(nullptr), m_size(0) {}

CSharedMemory::CSharedMemory(CSharedMemory&& other) noexcept
    : m_name(std::move(other.m_name)),
      m_fd(other.m_fd),
      m_owner(other.m_owner),
      m_data(other.m_data),
      m_size(other.m_size) {
  other.m_name.clear();
  other.m_fd = -1;
  other.m_owner = false;
  other.m_data = nullptr;
  other.m_size = 0;
}

CSharedMemory& CSharedMemory::operator=(CSharedMemory&& other) noexcept {
  if (this == &other) return *this;
  Close();
  m_name = std::move(other.m_name);
  m_fd = other.m_fd;
  m_owner = other.m_owner;
  m_data = other.m_data;
  m_size = other.m_size;
  other.m_name.clear();
  other.m_fd = -1;
  other.m_owner = false;
  other.m_data = nullptr;
  other.m_size = 0;
  return *this;
}

CSharedMemory::~CSharedMemory() { Close(); }

bool CSharedMemory::Create(const char* name, size_t size, EFlags) {
  Close();
  if (name == nullptr) {
    errno = EINVAL;
    return false;
  }
  ObjectName object(name);
  m_owner = true;
  m_fd = shm_open(object.text, O_RDWR | O_CREAT | O_EXCL, 0666);
  if (m_fd == -1) return false;
  // The segment must be 0666 whatever the host's file-mode creation mask is.
  // fchmod sets the mode on our own new segment without touching the mask,
  // which is process-wide: clearing it, even briefly, would hand the cleared
  // mask to files that other threads of the host create meanwhile. Until the
  // fchmod the segment is narrower than 0666, but nobody has its name yet.
  if (fchmod(m_fd, 0666) == 0 && ftruncate(m_fd, static_cast<off_t>(size)) == 0) {
    void* data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (data != MAP_FAILED) {
      m_data = data;
      m_size = size;
      m_name = name;
      return true;
    }
  }
  int error = errno;
  close(m_fd);
  m_fd = -1;
  shm_unlink(object.text);  // the segment that this call made, nobody else's
  errno = error;
  return false;
}

bool CSharedMemory::CreateRandom(const char* prefix, size_t size, EFlags flags) {
  if (prefix == nullptr) {
    errno = EINVAL;
    return false;
  }
  for (int attempt = 0; attempt < 10000; ++attempt) {
    char name[512];
    std::snprintf(name, sizeof(name), "%s%X", prefix, static_cast<unsigned>(std::rand()) & 0xFFFFu);
    if (Create(name, size, flags)) return true;
  }
  return false;
}

bool CSharedMemory::Open(const char* name) {
  Close();
  if (name == nullptr) {
    errno = EINVAL;
    return false;
  }
  ObjectName object(name);
  m_owner = false;
  m_fd = shm_open(object.text, O_RDWR, 0);
  if (m_fd == -1) return false;
  struct stat status;
  if (fstat(m_fd, &status) == 0) {
    m_size = static_cast<size_t>(status.st_size);
    // A segment of size 0 cannot be mapped: mmap fails and so does Open.
    void* data = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd, 0);
    if (data != MAP_FAILED) {
      m_data = data;
      m_name = name;
      return true;
    }
  }
  int error = errno;
  close(m_fd);
  m_fd = -1;
  errno = error;
  return false;
}

void CSharedMemory::Close() {
  if (m_data != nullptr) {
    munmap(m_data, m_size);
    m_data = nullptr;
  }
  if (m_fd == -1) return;
  close(m_fd);
  m_fd = -1;
  if (m_owner) shm_unlink(ObjectName(m_name.c_str()).text);
}
