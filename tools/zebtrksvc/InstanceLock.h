// InstanceLock: makes sure that only one zebtrksvc serves /tmp/zebtrksvc.
//
// Acquire takes an exclusive lock on "/tmp/zebtrksvc.lock" (held until the
// object is destroyed or the process ends, so a crashed service never blocks
// the next one) and then checks that nothing answers on /tmp/zebtrksvc, so a
// service started some other way is not robbed of its socket either. Two
// services started at the same moment cannot both pass: the second finds the
// lock taken. A socket file with nobody listening is stale and may be
// replaced.
//
// Threads: one thread (main).
#pragma once

#include <string>

#include "tools/zebtrksvc/UniqueFd.h"

namespace zebtrksvc {

class InstanceLock {
 public:
  static constexpr const char* kLockPath = "/tmp/zebtrksvc.lock";

  // Success: true; this process may create the socket. Failure: false with
  // `error` saying why (another instance runs, the lock file cannot be
  // opened).
  bool Acquire(std::string& error);

 private:
  UniqueFd m_lock;
};

}  // namespace zebtrksvc
