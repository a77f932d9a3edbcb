#include "tools/zebtrksvc/StaleSegments.h"

#include <dirent.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

#include "tools/zebtrksvc/Log.h"

namespace zebtrksvc {

namespace {

const char kScheme[] = "zebtrksvc-";
const size_t kSchemeLength = sizeof(kScheme) - 1;

}  // namespace

std::string StaleSegments::OwnPrefix() { return kScheme + std::to_string(getpid()) + "-"; }

long StaleSegments::OwnerOf(const std::string& name) {
  if (name.compare(0, kSchemeLength, kScheme) != 0) return 0;
  const char* digits = name.c_str() + kSchemeLength;
  if (*digits < '1' || *digits > '9') return 0;
  char* end = nullptr;
  errno = 0;
  const long pid = std::strtol(digits, &end, 10);
  if (errno != 0 || pid <= 0 || *end != '-' || end[1] == '\0') return 0;
  return pid;
}

std::vector<std::string> StaleSegments::RemoveOrphans(const char* directory) {
  std::vector<std::string> removed;
  std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(directory), closedir);
  if (!dir) return removed;
  while (const dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    const long pid = OwnerOf(name);
    if (pid == 0 || pid != static_cast<pid_t>(pid)) continue;
    // Alive, or owned by another user (EPERM): not ours to remove.
    if (kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH) continue;
    if (shm_unlink(("/" + name).c_str()) != 0) continue;
    Logf("removed segment %s of the stopped process %ld", name.c_str(), pid);
    removed.push_back(name);
  }
  return removed;
}

}  // namespace zebtrksvc
