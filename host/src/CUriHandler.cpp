// CUriHandler: a short list of schemes under a mutex.
#include <zeb/CUriHandler.h>

namespace zeb {

CUriHandler* CUriHandler::instance() {
  static CUriHandler handler;
  return &handler;
}

CUriHandler::CUriHandler() = default;
CUriHandler::~CUriHandler() = default;

bool CUriHandler::RegisterHandler(CString scheme, IFileSystem* fileSystem) {
  if (scheme.empty() || !fileSystem) return false;
  std::lock_guard<std::mutex> hold(m_lock);
  for (SHandler& handler : m_handlers) {
    if (handler.scheme.Equals(scheme)) {
      handler.fileSystem = fileSystem;
      return true;
    }
  }
  m_handlers.push_back(SHandler{scheme, fileSystem});
  return true;
}

bool CUriHandler::UnregisterHandler(const CString& scheme) {
  std::lock_guard<std::mutex> hold(m_lock);
  for (auto it = m_handlers.begin(); it != m_handlers.end(); ++it) {
    if (it->scheme.Equals(scheme)) {
      m_handlers.erase(it);
      return true;
    }
  }
  return false;
}

IFileSystem* CUriHandler::FileSystemForPath(const CString& path) {
  std::lock_guard<std::mutex> hold(m_lock);
  IFileSystem* best = nullptr;
  unsigned long bestLength = 0;
  for (const SHandler& handler : m_handlers) {
    const unsigned long n = handler.scheme.length();
    if (n > bestLength && path.StartsWith(handler.scheme.c_str())) {
      best = handler.fileSystem;
      bestLength = n;
    }
  }
  return best;
}

}  // namespace zeb
