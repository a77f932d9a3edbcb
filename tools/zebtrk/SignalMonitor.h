// SignalMonitor: turns SIGINT and SIGTERM into a readable descriptor and a
// flag, so that `watch` can end cleanly and an export can stop between two
// frames and remove its partial file.
//
// While an object lives, the first SIGINT/SIGTERM only records the signal
// (the handler writes one byte to a pipe, which is async-signal-safe). Every
// command ends within a second of it (Commands bounds every wait), removing
// its unfinished files, so a second signal, which users send when nothing
// seems to happen, is absorbed rather than killing the program half-way and
// leaving a ".part" behind; a third restores the default action and re-raises
// it, so a user can still force the program to stop. The destructor puts the
// previous dispositions back and closes the pipe.
//
// Ownership: at most one object per process (the handler's state is
// process-wide); create it on the main thread. Signals may arrive on any
// thread, the plug-in's included (the handler is installed with SA_RESTART,
// so their system calls go on).
#pragma once

#include <signal.h>

class SignalMonitor {
 public:
  SignalMonitor();
  ~SignalMonitor();
  SignalMonitor(const SignalMonitor&) = delete;
  SignalMonitor& operator=(const SignalMonitor&) = delete;

  // Readable once a signal has arrived (for poll).
  int fd() const;
  // The first signal that arrived, or 0.
  int signal() const;
  bool interrupted() const { return signal() != 0; }

 private:
  struct sigaction m_previousInt;
  struct sigaction m_previousTerm;
};
