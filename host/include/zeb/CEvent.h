// CEvent: a signal that threads wait for.
//
// CEvent(manualReset, initialState): a manual-reset event stays set after
// Signal until Reset and releases every waiter; an auto-reset event releases
// one waiter per Signal and is cleared by the wait that consumes it.
// initialState true starts it set. Any thread may signal or wait; the object
// is neither copied nor moved and must outlive its waiters.
#pragma once

#include <condition_variable>
#include <mutex>

#include <zeb/Api.h>

namespace zeb {

class ZEB_API CEvent {
 public:
  // Wait time-out meaning "no time limit".
  static constexpr unsigned int kInfinite = 0xFFFFFFFFu;

  CEvent(bool manualReset, bool initialState);
  ~CEvent();
  CEvent(const CEvent&) = delete;
  CEvent& operator=(const CEvent&) = delete;

  // Sets the event and wakes a waiter (every waiter for a manual-reset event).
  void Signal();
  // Clears the event.
  void Reset();
  // Waits until the event is set, at most `timeoutMs` milliseconds
  // (kInfinite: no limit; 0: just test). True when it was set (an auto-reset
  // event is then cleared), false on time-out.
  bool Wait(unsigned int timeoutMs);

 private:
  std::mutex m_mutex;
  std::condition_variable m_condition;
  bool m_manualReset;
  bool m_set;
};

}  // namespace zeb
