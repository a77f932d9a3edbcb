#include "tools/zebtrk/ListingFollower.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "tools/zebtrk/CliError.h"
#include "tools/zebtrk/ServiceProbe.h"

ListingFollower::ListingFollower(PluginLoader& plugin, zeb::IFileSystem* fileSystem, bool emulator,
                                 const std::string& cacheDir, Listener listener, Notice notice)
    : m_fileSystem(fileSystem),
      m_emulator(emulator),
      m_listener(std::move(listener)),
      m_notice(std::move(notice)),
      m_watcher(plugin) {
  if (!emulator) {
    m_folder = std::make_unique<DirectoryWatcher>(
        "/tmp", [](const char* name) { return std::string("/tmp/") + name == ServiceProbe::kSocketPath; });
  } else if (access(cacheDir.c_str(), F_OK) == 0) {
    m_folder = std::make_unique<DirectoryWatcher>(cacheDir, &DirectoryWatcher::IsMovieFile);
  }
  m_stop = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_stop < 0) throw CliError(kExitFailure, "cannot create an event descriptor");
  // Registered before the first listing: no change falls between the two.
  m_listener(MovieCatalog(m_fileSystem).List());
  m_thread = std::thread(&ListingFollower::Follow, this);
}

ListingFollower::~ListingFollower() {
  const uint64_t one = 1;
  ssize_t ignored = write(m_stop, &one, sizeof(one));
  (void)ignored;
  m_thread.join();
  close(m_stop);
}

namespace {

const int kProbeMs = 2000;

}  // namespace

void ListingFollower::Follow() {
  bool serviceGone = false;
  for (;;) {
    pollfd fds[3] = {{m_stop, POLLIN, 0}, {m_watcher.fd(), POLLIN, 0}, {m_folder ? m_folder->fd() : -1, POLLIN, 0}};
    if (poll(fds, 3, -1) < 0) {
      if (errno == EINTR) continue;
      m_notice("cannot follow the movie list any more (poll failed)");
      return;
    }
    if (fds[0].revents) return;
    std::vector<Movie> movies;
    bool changed = false;
    while (m_watcher.Pop(movies)) changed = true;  // the newest list counts
    if (fds[2].revents & POLLIN && m_folder->Drain()) {
      if (m_emulator) {
        movies = MovieCatalog(m_fileSystem).List();
        changed = true;
      } else {
        std::string detail;
        // The socket folder changed: a service that does not answer its
        // version check within a moment is taken for gone.
        const ServiceProbe::EState state = ServiceProbe::Probe(detail, kProbeMs, m_stop);
        if (state == ServiceProbe::EState::kCancelled) return;  // the mount ends
        const bool answers = state == ServiceProbe::EState::kAnswers;
        if (!answers && !serviceGone) {
          m_notice("the movie service stopped: the folder keeps its last listing, reads fail with EIO; unmount "
                   "and mount again once the service runs");
        }
        serviceGone = !answers;
      }
    }
    if (changed) m_listener(movies);
  }
}
