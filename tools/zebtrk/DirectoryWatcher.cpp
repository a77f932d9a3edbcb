#include "tools/zebtrk/DirectoryWatcher.h"

#include <errno.h>
#include <string.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "tools/zebtrk/CliError.h"

namespace {

bool EndsWith(const char* name, const char* suffix) {
  const size_t n = strlen(name);
  const size_t s = strlen(suffix);
  return n >= s && strcmp(name + n - s, suffix) == 0;
}

}  // namespace

bool DirectoryWatcher::IsMovieFile(const char* name) { return EndsWith(name, ".dat") || EndsWith(name, ".info"); }

DirectoryWatcher::DirectoryWatcher(const std::string& folder, Predicate relevant) : m_relevant(std::move(relevant)) {
  m_fd = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (m_fd < 0) throw CliError(kExitFailure, std::string("cannot watch folders: ") + strerror(errno));
  const uint32_t mask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ONLYDIR;
  if (inotify_add_watch(m_fd, folder.c_str(), mask) < 0) {
    const int error = errno;
    close(m_fd);
    throw CliError(kExitFailure, "cannot watch " + folder + ": " + strerror(error));
  }
}

DirectoryWatcher::~DirectoryWatcher() { close(m_fd); }

bool DirectoryWatcher::Drain() {
  bool relevant = false;
  alignas(inotify_event) char buffer[8192];
  for (;;) {
    const ssize_t n = read(m_fd, buffer, sizeof(buffer));
    if (n <= 0) return relevant;
    for (ssize_t offset = 0; offset < n;) {
      const inotify_event* event = reinterpret_cast<const inotify_event*>(buffer + offset);
      if (event->len > 0 && m_relevant(event->name)) relevant = true;
      if (event->mask & IN_Q_OVERFLOW) relevant = true;
      offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
}
