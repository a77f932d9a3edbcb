#include "tools/zebtrksvc/DriveWatcher.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>

#include "ipc/strprintf.h"
#include "tools/zebtrksvc/Log.h"

namespace zebtrksvc {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kDriveEvents =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE | IN_DELETE_SELF | IN_MOVE_SELF;
constexpr uint32_t kParentEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;

int MillisecondsUntil(Clock::time_point when) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(when - Clock::now()).count();
  return left < 0 ? 0 : static_cast<int>(left);
}

}  // namespace

DriveWatcher::DriveWatcher(MovieCatalog& catalog) : m_catalog(catalog) {
  const std::string& drive = catalog.drivePath();
  const size_t slash = drive.rfind('/');
  if (slash == std::string::npos) {
    m_leaf = drive;
  } else {
    m_parent = slash == 0 ? "/" : drive.substr(0, slash);
    m_leaf = drive.substr(slash + 1);
  }
}

DriveWatcher::~DriveWatcher() { Stop(); }

bool DriveWatcher::Start(std::string& error) {
  m_inotify.reset(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  m_wake.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!m_inotify.valid() || !m_wake.valid()) {
    error = strprintf("cannot watch the drive folder: %s", std::strerror(errno));
    return false;
  }
  // Watches first, then the scan: a movie arriving in between is seen by both
  // at worst, never by neither.
  Rewatch();
  Rescan();
  try {
    m_thread = std::thread(&DriveWatcher::Run, this);
  } catch (const std::system_error& failure) {
    error = strprintf("cannot start the watching thread: %s", failure.what());
    return false;
  }
  return true;
}

void DriveWatcher::Stop() {
  if (m_thread.joinable()) {
    const uint64_t one = 1;
    if (write(m_wake.get(), &one, sizeof(one)) != sizeof(one)) {
      // An eventfd only refuses at 2^64-2 pending: the thread is woken anyway.
    }
    m_thread.join();
  }
}

bool DriveWatcher::Rewatch() {
  bool changed = false;
  if (m_parentWatch == -1 && !m_parent.empty()) {
    m_parentWatch = inotify_add_watch(m_inotify.get(), m_parent.c_str(), kParentEvents);
    changed = m_parentWatch != -1;
  }
  struct stat status;
  const bool present = stat(m_catalog.drivePath().c_str(), &status) == 0 && S_ISDIR(status.st_mode);
  const bool same = present && m_driveWatch != -1 && status.st_dev == m_driveDevice &&
                    status.st_ino == m_driveInode;
  if (m_driveWatch != -1 && !same) {
    // Gone or replaced (a watch follows a folder that was moved away).
    inotify_rm_watch(m_inotify.get(), m_driveWatch);
    m_driveWatch = -1;
    changed = true;
  }
  if (present && m_driveWatch == -1) {
    m_driveWatch = inotify_add_watch(m_inotify.get(), m_catalog.drivePath().c_str(), kDriveEvents);
    if (m_driveWatch != -1) {
      m_driveDevice = status.st_dev;
      m_driveInode = status.st_ino;
      changed = true;
    }
  }
  return changed;
}

bool DriveWatcher::Drain() {
  alignas(inotify_event) char buffer[16384];
  bool relevant = false;
  for (;;) {
    const ssize_t n = read(m_inotify.get(), buffer, sizeof(buffer));
    if (n == -1 && errno == EINTR) continue;
    if (n <= 0) return relevant;  // EAGAIN: nothing more for now
    for (ssize_t offset = 0; offset < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + offset);
      offset += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      if (event->mask & IN_Q_OVERFLOW) {
        relevant = true;  // events were lost: rescan to be sure
      } else if (event->wd == m_parentWatch) {
        if (event->mask & IN_IGNORED) m_parentWatch = -1;  // the parent went away
        // Only the drive folder's own name matters in its parent.
        if (event->len > 0 && m_leaf == event->name) relevant = true;
        if (event->mask & IN_IGNORED) relevant = true;
      } else if (event->wd == m_driveWatch) {
        if (event->mask & IN_IGNORED) m_driveWatch = -1;
        relevant = true;
      }
    }
  }
}

void DriveWatcher::Rescan() {
  try {
    m_catalog.Refresh();
  } catch (const std::exception& failure) {
    // Out of memory, say: the next change tries again.
    Logf("rescanning the drive failed: %s", failure.what());
  }
}

void DriveWatcher::Run() {
  bool pending = false;
  Clock::time_point quietAt;
  Clock::time_point deadline;
  for (;;) {
    int timeout = -1;
    if (pending) {
      timeout = std::min(MillisecondsUntil(quietAt), MillisecondsUntil(deadline));
    } else if (m_parentWatch == -1 && !m_parent.empty()) {
      timeout = kParentRetryMs;
    }
    pollfd watched[2] = {{m_inotify.get(), POLLIN, 0}, {m_wake.get(), POLLIN, 0}};
    const int ready = poll(watched, 2, timeout);
    if (ready == -1 && errno != EINTR) {
      Logf("watching the drive failed: %s", std::strerror(errno));
      return;
    }
    if (ready > 0 && (watched[1].revents & POLLIN)) return;  // Stop()
    const auto now = Clock::now();
    if (ready > 0 && (watched[0].revents & POLLIN) && Drain()) {
      if (!pending) deadline = now + std::chrono::milliseconds(kMaxDelayMs);
      pending = true;
      quietAt = now + std::chrono::milliseconds(kQuietMs);
      continue;
    }
    if (!pending && m_parentWatch == -1 && !m_parent.empty()) {
      // Waiting for the parent folder to exist.
      if (Rewatch()) Rescan();
      continue;
    }
    if (!pending || (now < quietAt && now < deadline)) continue;
    pending = false;
    Rewatch();
    Rescan();
  }
}

}  // namespace zebtrksvc
