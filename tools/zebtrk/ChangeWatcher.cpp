#include "tools/zebtrk/ChangeWatcher.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <memory>

#include "tools/zebtrk/CliError.h"

ChangeWatcher::ChangeWatcher(PluginLoader& plugin) : m_plugin(plugin) {
  m_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (m_fd < 0) throw CliError(kExitFailure, "cannot create an event descriptor");
  try {
    m_handle = m_plugin.addFilesChangedHandler(&ChangeWatcher::OnFilesChanged, this);
  } catch (...) {
    close(m_fd);
    throw;
  }
}

ChangeWatcher::~ChangeWatcher() {
  // Takes the plug-in's cache lock: a handler call in progress ends first.
  m_plugin.removeFilesChangedHandler(m_handle);
  close(m_fd);
}

void ChangeWatcher::OnFilesChanged(void* self) {
  // Called from the plug-in's C++ code through a C function pointer: nothing
  // may escape.
  try {
    static_cast<ChangeWatcher*>(self)->Record();
  } catch (...) {
  }
}

void ChangeWatcher::Record() {
  std::unique_ptr<zeb::IFileSystem::CDirectoryListing> listing(m_plugin.getDirectoryListing("trk:///", ""));
  std::vector<Movie> movies;
  if (listing) {
    for (const zeb::IFileSystem::CDirectoryEntry& entry : listing->entries) {
      movies.push_back(MovieCatalog::FromEntry(entry));
    }
  }
  {
    std::lock_guard<std::mutex> hold(m_lock);
    m_queue.push_back(std::move(movies));
    ++m_reports;
  }
  const uint64_t one = 1;
  ssize_t ignored = write(m_fd, &one, sizeof(one));
  (void)ignored;
}

bool ChangeWatcher::Pop(std::vector<Movie>& movies) {
  std::lock_guard<std::mutex> hold(m_lock);
  if (m_queue.empty()) {
    uint64_t drained;
    ssize_t ignored = read(m_fd, &drained, sizeof(drained));
    (void)ignored;
    return false;
  }
  movies = std::move(m_queue.front());
  m_queue.pop_front();
  return true;
}

unsigned long ChangeWatcher::reports() const {
  std::lock_guard<std::mutex> hold(m_lock);
  return m_reports;
}
