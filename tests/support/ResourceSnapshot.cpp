#include "tests/support/ResourceSnapshot.h"

#include <dirent.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

namespace testsupport {

namespace {

std::set<std::string> DirectoryNames(const char* path) {
  std::set<std::string> names;
  DIR* dir = opendir(path);
  if (dir == nullptr) return names;
  while (dirent* e = readdir(dir)) {
    std::string name = e->d_name;
    if (name != "." && name != "..") names.insert(name);
  }
  closedir(dir);
  return names;
}

std::string DescriptorTarget(int fd) {
  char link[PATH_MAX + 1] = {};
  std::string path = "/proc/self/fd/" + std::to_string(fd);
  ssize_t n = readlink(path.c_str(), link, PATH_MAX);
  return n > 0 ? std::string(link, static_cast<size_t>(n)) : std::string("?");
}

// The ipc tests run beside the others (they need no service socket) and name
// their scratch segments "zebtrk-test-<pid>-<n>". Another process's scratch
// segment that comes and goes during a scenario is not this process's leak.
bool IsOtherTestProcessScratch(const std::string& name) {
  static const std::string kPrefix = "zebtrk-test-";
  if (name.rfind(kPrefix, 0) != 0) return false;
  return name.rfind(kPrefix + std::to_string(getpid()) + "-", 0) != 0;
}

}  // namespace

std::set<int> OpenDescriptors() {
  std::set<int> fds;
  // The directory stream itself holds a descriptor while it is read; it is
  // closed again before we return, so it never shows as a difference.
  for (const std::string& name : DirectoryNames("/proc/self/fd")) fds.insert(std::atoi(name.c_str()));
  return fds;
}

std::set<std::string> ShmEntries() { return DirectoryNames("/dev/shm"); }

size_t ThreadCount() { return DirectoryNames("/proc/self/task").size(); }

ResourceSnapshot::ResourceSnapshot() : m_fds(OpenDescriptors()), m_shm(ShmEntries()) {}

std::string ResourceSnapshot::Leaks() const {
  std::string text;
  std::set<int> fds = OpenDescriptors();
  for (int fd : fds) {
    if (m_fds.count(fd) == 0) text += "fd " + std::to_string(fd) + " -> " + DescriptorTarget(fd) + "\n";
  }
  for (const std::string& name : ShmEntries()) {
    if (m_shm.count(name) == 0 && !IsOtherTestProcessScratch(name)) text += "/dev/shm/" + name + "\n";
  }
  return text;
}

}  // namespace testsupport
