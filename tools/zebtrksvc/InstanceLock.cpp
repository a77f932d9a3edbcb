#include "tools/zebtrksvc/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <cstring>

#include "client/TrkProtocol.h"
#include "ipc/LocalSocket.h"
#include "ipc/strprintf.h"

namespace zebtrksvc {

bool InstanceLock::Acquire(std::string& error) {
  m_lock.reset(open(kLockPath, O_RDWR | O_CREAT | O_CLOEXEC, 0644));
  // Another user's lock file can still be locked through a read-only open.
  if (!m_lock.valid()) m_lock.reset(open(kLockPath, O_RDONLY | O_CLOEXEC));
  if (!m_lock.valid()) {
    error = strprintf("cannot open %s: %s", kLockPath, std::strerror(errno));
    return false;
  }
  if (flock(m_lock.get(), LOCK_EX | LOCK_NB) != 0) {
    error = errno == EWOULDBLOCK
                ? strprintf("another zebtrksvc is running (it holds %s)", kLockPath)
                : strprintf("cannot lock %s: %s", kLockPath, std::strerror(errno));
    m_lock.reset();
    return false;
  }
  LocalSocket probe;
  if (probe.Connect(trkprotocol::kServiceName)) {
    error = "a service already answers on /tmp/zebtrksvc";
    m_lock.reset();
    return false;
  }
  return true;
}

}  // namespace zebtrksvc
