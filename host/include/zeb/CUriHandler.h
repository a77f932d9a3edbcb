// CUriHandler: routes paths with a URI scheme ("trk:") to the file system
// registered for it.
//
// instance() gives the process's handler (constructed on first use, lives
// until exit). File systems are not owned: a registered file system must
// outlive its registration. Schemes match case-sensitively as a prefix of the
// path ("trk:" matches "trk:///12-Run"); the longest registered scheme wins.
// Thread-safe: every operation may be called from any thread.
#pragma once

#include <mutex>
#include <vector>

#include <zeb/Api.h>
#include <zeb/CString.h>
#include <zeb/IFileSystem.h>

namespace zeb {

class ZEB_API CUriHandler {
 public:
  static CUriHandler* instance();

  // Sends paths of `scheme` to `fileSystem`, replacing an earlier
  // registration of the same scheme. False for an empty scheme or a null
  // file system.
  bool RegisterHandler(CString scheme, IFileSystem* fileSystem);
  // Withdraws a scheme; false when it was not registered.
  bool UnregisterHandler(const CString& scheme);
  // The file system registered for the path's scheme, or null when no
  // registered scheme is a prefix of `path` (local paths are the caller's:
  // use zeb::fileSystem()).
  IFileSystem* FileSystemForPath(const CString& path);

  CUriHandler();
  ~CUriHandler();
  CUriHandler(const CUriHandler&) = delete;
  CUriHandler& operator=(const CUriHandler&) = delete;

 private:
  struct SHandler {
    CString scheme;
    IFileSystem* fileSystem;
  };

  std::mutex m_lock;  // guards m_handlers
  std::vector<SHandler> m_handlers;
};

}  // namespace zeb
