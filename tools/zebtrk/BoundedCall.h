// BoundedCall: runs calls that may block for ever (a plug-in call waiting on
// a silent service) on a worker thread, while the calling thread waits for
// the result against a time limit and a cancel descriptor (Ctrl-C).
//
// The plug-in has no timeouts of its own: its socket reads wait as long as
// the service is silent. A host that must stay responsive hands each such
// call to Run, which returns kDone once the call returned (an exception the
// call threw is thrown again on the caller's thread), kTimedOut when the
// limit passed first, kCancelled when the cancel descriptor became readable
// first and the call did not return within the grace period after it (a
// call that returns within it is kDone: the caller then sees the cancel
// itself and ends in good order). A call that did not finish is left running on its thread, which is
// then abandoned: the next Run starts a new worker. What the abandoned call
// refers to must therefore stay alive until the process ends: the command
// line tool ends the process at once (removing its partial files first); a
// long-lived host (a mount) gives the call shared ownership of its state and
// answers its own caller with an error.
//
// Usage:
//   BoundedCall bound(std::chrono::seconds(10), signals.fd());
//   if (bound.Run([&] { listing = fs->GetDirectoryListing("trk:///", ""); }) != BoundedCall::EOutcome::kDone) ...
//
// Threads: Run from one thread at a time; the work runs on the worker.
// Ownership: owns its worker thread; the destructor joins an idle worker and
// leaves an abandoned one behind (it holds the shared state it needs).
#pragma once

#include <chrono>
#include <functional>
#include <memory>

class BoundedCall {
 public:
  enum class EOutcome { kDone, kTimedOut, kCancelled };

  // `limit` bounds each Run; `cancelFd` (-1: none) ends a wait when readable
  // and the call has not returned within `grace` more.
  BoundedCall(std::chrono::milliseconds limit, int cancelFd,
              std::chrono::milliseconds grace = std::chrono::milliseconds(0));
  ~BoundedCall();
  BoundedCall(const BoundedCall&) = delete;
  BoundedCall& operator=(const BoundedCall&) = delete;

  // Runs `work` on the worker and waits (see above). Called from the worker
  // itself (a bounded call inside a bounded call), runs `work` directly under
  // the outer bound. Failure to start a worker thread: std::system_error.
  EOutcome Run(std::function<void()> work);

  std::chrono::milliseconds limit() const { return m_limit; }
  // Calls given up so far (their threads may still be inside them).
  unsigned long abandoned() const { return m_abandoned; }

 private:
  struct SShared;
  std::chrono::milliseconds m_limit;
  int m_cancelFd;
  std::chrono::milliseconds m_grace;
  std::shared_ptr<SShared> m_shared;
  unsigned long m_abandoned = 0;
};
