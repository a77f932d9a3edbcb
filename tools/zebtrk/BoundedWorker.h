// BoundedWorker: one worker thread, shared by many callers, for calls that
// may block without end (calls into the plug-in, which waits for its service
// without a time limit); each caller waits at most a fixed time. The mount
// gives one to each open view. (BoundedCall is the command line's
// one-caller form, which also waits on Ctrl-C.)
//
// A call that has not finished in time is abandoned, not cancelled: Run
// returns kTimedOut, the call goes on in the worker thread, and until it ends
// every further Run of the same object returns kBusy at once, so a silent
// service costs each caller at most one bound and later callers nothing.
// Callers that find the worker busy with a call still in time queue for it,
// within their own bound. A call therefore must own everything it touches
// (capture by value or through shared pointers), because it may outlive the
// Run that started it.
//
// Ownership: owns its worker thread. The destructor joins an idle worker;
// a worker still busy with an abandoned call is detached and ends once that
// call returns. Abandoned() counts, process-wide, the calls still running past
// their bound: a program must not unload the code such a call runs in.
//
// Threads: Run may be called from any number of threads at once.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

class BoundedWorker {
 public:
  enum class EResult {
    kDone,      // the call ran to its end within the bound
    kTimedOut,  // the bound passed first: the call was abandoned
    kBusy       // an earlier abandoned call still occupies the worker
  };

  explicit BoundedWorker(std::chrono::milliseconds limit);
  ~BoundedWorker();
  BoundedWorker(const BoundedWorker&) = delete;
  BoundedWorker& operator=(const BoundedWorker&) = delete;

  EResult Run(std::function<void()> call);
  // Hands `call` to the worker without waiting for it, only when the worker
  // is idle and nobody waits for it; false (the call dropped) otherwise. For
  // work that may be skipped, such as reading ahead. A Run that comes while
  // the posted call waits replaces it; one that comes while it runs waits
  // for it within its bound.
  bool Post(std::function<void()> call);

  std::chrono::milliseconds limit() const { return m_limit; }
  // The bound for messages: "10 s", "0.5 s".
  static std::string LimitText(std::chrono::milliseconds limit);

  // Calls of every object that are still running past their bound.
  static unsigned long Abandoned();

 private:
  struct SState;
  static void Work(std::shared_ptr<SState> state);

  std::chrono::milliseconds m_limit;
  std::shared_ptr<SState> m_state;
  std::thread m_worker;
};
