// ChangeHandlers: Python callables registered with the plug-in as
// files-changed handlers (through its C interface).
//
// The plug-in calls a handler from the thread that refreshed its movie list
// (its monitoring thread, or the thread that removed a movie) while holding
// its cache lock. The trampoline takes the GIL there and calls the Python
// callable; an exception it raises goes to sys.unraisablehook and later
// notifications still arrive. Because of that lock, every call into the
// plug-in from this class happens with the GIL released.
//
// Shutdown() (registered with atexit by the package) removes every handler
// before the interpreter finalises and refuses new ones: after it, the
// plug-in never calls into Python again. It is also safe to call twice.
//
// One per process (Instance()), never destroyed. Add, Remove and Shutdown are
// called WITH the GIL held; they release it around the plug-in's calls.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>

#include <pybind11/pybind11.h>

#include <zeb/zebDelegate.h>

class ChangeHandlers {
 public:
  static ChangeHandlers& Instance();

  // Registers `callback` (called with no arguments); returns its id.
  long Add(pybind11::object callback);
  // Unregisters the handler `id`; false when it is not registered. Once it
  // returns the callback is not running and will not run again.
  bool Remove(long id);
  void Shutdown();

 private:
  struct Handler {
    pybind11::object callback;
    zebDelegate handle{};
  };

  ChangeHandlers() = default;
  static void Trampoline(void* handler);
  // Unregisters a handler taken out of m_handlers and drops it (GIL held).
  static void Drop(std::unique_ptr<Handler> handler);

  std::mutex m_lock;  // guards m_handlers, m_nextId
  std::map<long, std::unique_ptr<Handler>> m_handlers;
  long m_nextId = 1;
  static std::atomic<bool> s_closed;
};
