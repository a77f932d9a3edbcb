#include "tools/zebtrksvc/FileMapping.h"

#include <setjmp.h>
#include <signal.h>
#include <sys/mman.h>

#include <cstring>
#include <mutex>
#include <utility>

namespace zebtrksvc {
namespace {

const char* const kShorter = "the data file is shorter than the movie";

// Where a copy that faults jumps back to; set only around a copy, per thread.
// Volatile: the compiler must not drop the store before the memcpy as dead
// (memcpy does not read it; only the signal handler does).
thread_local sigjmp_buf* volatile t_copyJump = nullptr;

void OnBusError(int signal, siginfo_t*, void*) {
  if (sigjmp_buf* jump = t_copyJump) siglongjmp(*jump, 1);
  // Not a guarded copy: the default action, as without this handler.
  ::signal(signal, SIG_DFL);
  raise(signal);
}

void InstallHandlerOnce() {
  static std::once_flag once;
  std::call_once(once, [] {
    struct sigaction action {};
    action.sa_sigaction = OnBusError;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaction(SIGBUS, &action, nullptr);
  });
}

// memcpy that returns false instead of dying when the source pages lie past
// the end of their file. sigsetjmp saves the signal mask, so SIGBUS (blocked
// while its handler runs) is unblocked again after the jump.
bool GuardedCopy(void* into, const void* from, size_t size) {
  sigjmp_buf jump;
  if (sigsetjmp(jump, 1) != 0) {
    t_copyJump = nullptr;
    return false;
  }
  t_copyJump = &jump;
  std::memcpy(into, from, size);
  t_copyJump = nullptr;
  return true;
}

}  // namespace

FileMapping::FileMapping(FileMapping&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)), m_size(std::exchange(other.m_size, 0)) {}

FileMapping& FileMapping::operator=(FileMapping&& other) noexcept {
  if (this != &other) {
    Reset();
    m_data = std::exchange(other.m_data, nullptr);
    m_size = std::exchange(other.m_size, 0);
  }
  return *this;
}

bool FileMapping::Map(int fd, uint64_t size) {
  Reset();
  if (size == 0 || size > SIZE_MAX) return false;
  void* data = mmap(nullptr, size_t(size), PROT_READ, MAP_SHARED, fd, 0);
  if (data == MAP_FAILED) return false;
  InstallHandlerOnce();
  m_data = data;
  m_size = size;
  return true;
}

std::string FileMapping::CopyOut(void* into, uint64_t size, uint64_t offset) const {
  if (offset > m_size || size > m_size - offset) return kShorter;
  if (!GuardedCopy(into, static_cast<const unsigned char*>(m_data) + offset, size_t(size))) return kShorter;
  return std::string();
}

void FileMapping::Reset() {
  if (m_data != nullptr) munmap(m_data, size_t(m_size));
  m_data = nullptr;
  m_size = 0;
}

}  // namespace zebtrksvc
