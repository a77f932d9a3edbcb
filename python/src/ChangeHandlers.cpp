#include "python/src/ChangeHandlers.h"

#include <cxxabi.h>

#include "python/src/ModuleError.h"
#include "python/src/PluginHost.h"

namespace py = pybind11;

std::atomic<bool> ChangeHandlers::s_closed{false};

ChangeHandlers& ChangeHandlers::Instance() {
  static ChangeHandlers* handlers = new ChangeHandlers();  // lives until exit
  return *handlers;
}

long ChangeHandlers::Add(py::object callback) {
  if (s_closed) throw ModuleError(ModuleError::EKind::kFailure, "the interpreter is shutting down");
  if (!PyCallable_Check(callback.ptr())) throw py::type_error("on_change needs a callable");
  PluginLoader& plugin = PluginHost::Instance().loader();
  auto handler = std::make_unique<Handler>();
  handler->callback = std::move(callback);
  {
    py::gil_scoped_release unlocked;
    handler->handle = plugin.addFilesChangedHandler(&ChangeHandlers::Trampoline, handler.get());
  }
  std::lock_guard<std::mutex> hold(m_lock);
  const long id = m_nextId++;
  m_handlers[id] = std::move(handler);
  return id;
}

bool ChangeHandlers::Remove(long id) {
  std::unique_ptr<Handler> handler;
  {
    std::lock_guard<std::mutex> hold(m_lock);
    auto found = m_handlers.find(id);
    if (found == m_handlers.end()) return false;
    handler = std::move(found->second);
    m_handlers.erase(found);
  }
  Drop(std::move(handler));
  return true;
}

void ChangeHandlers::Shutdown() {
  s_closed = true;
  std::map<long, std::unique_ptr<Handler>> handlers;
  {
    std::lock_guard<std::mutex> hold(m_lock);
    handlers.swap(m_handlers);
  }
  for (auto& entry : handlers) Drop(std::move(entry.second));
}

void ChangeHandlers::Drop(std::unique_ptr<Handler> handler) {
  {
    // The plug-in takes its cache lock, so a call in progress (waiting for
    // the GIL that this thread gives up here) finishes first.
    py::gil_scoped_release unlocked;
    PluginHost::Instance().loader().removeFilesChangedHandler(handler->handle);
  }
  handler.reset();  // drops the callable with the GIL held
}

void ChangeHandlers::Trampoline(void* user) {
  // Called by the plug-in's C++ code through a C function pointer: nothing
  // may escape. After Shutdown (or once the interpreter finalises) Python is
  // left alone.
  if (s_closed || !Py_IsInitialized() || _Py_IsFinalizing()) return;
  Handler* handler = static_cast<Handler*>(user);
  try {
    py::gil_scoped_acquire gil;
    // A callback may remove its own handler, which frees `handler`: only
    // this reference of our own is used from here on.
    py::object callback = handler->callback;
    try {
      callback();
    } catch (py::error_already_set& error) {
      error.discard_as_unraisable(callback);
    }
  } catch (abi::__forced_unwind&) {
    throw;  // thread cancellation must go on unwinding
  } catch (...) {
  }
}
