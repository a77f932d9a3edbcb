#include "tools/zebtrk/PluginLoader.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include <zeb/CUriHandler.h>
#include <zeb/file/CImagerFileFactory.h>

#include "tools/zebtrk/CliError.h"

// Relative path from the program's folder to the library folder, fixed at
// configure time from the install layout ("../lib" normally).
#ifndef ZEBTRK_BIN_TO_LIB
#define ZEBTRK_BIN_TO_LIB "../lib"
#endif

namespace {

std::string ProgramFolder() {
  std::vector<char> buffer(4096);
  const ssize_t n = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  if (n <= 0) return ".";
  std::string self(buffer.data(), static_cast<size_t>(n));
  const size_t slash = self.rfind('/');
  return slash == std::string::npos ? "." : self.substr(0, slash);
}

bool Exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

}  // namespace

std::string PluginLoader::DefaultPath() {
  const char* overridden = getenv("ZEBTRK_PLUGIN");
  if (overridden && *overridden) return overridden;
  const std::string folder = ProgramFolder();
  // The configured layout first; the plain "../lib" of the build tree when
  // the install layout differs (a multiarch library folder).
  const std::string configured = folder + "/" ZEBTRK_BIN_TO_LIB "/libzebtrk.so";
  const std::string plain = folder + "/../lib/libzebtrk.so";
  if (!Exists(configured) && Exists(plain)) return plain;
  return configured;
}

PluginLoader::PluginLoader(const std::string& path) : m_path(path) {
  // RTLD_LOCAL: the plug-in's own symbols stay its own; it finds the
  // framework libraries (already loaded by this program) by its RUNPATH.
  m_handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!m_handle) {
    const char* reason = dlerror();
    throw CliError(kExitPlugin, "cannot load the plug-in library " + path + ": " +
                                    (reason ? reason : "unknown reason") +
                                    "\n(set ZEBTRK_PLUGIN to the path of libzebtrk.so)");
  }
  try {
    m_load = reinterpret_cast<LoadFunction>(Symbol("zebtrk_Load"));
    drivePresent = reinterpret_cast<DrivePresentFunction>(Symbol("zebtrk_drivePresent"));
    addFilesChangedHandler = reinterpret_cast<AddHandlerFunction>(Symbol("zebtrk_AddFilesChangedHandler"));
    removeFilesChangedHandler = reinterpret_cast<RemoveHandlerFunction>(Symbol("zebtrk_RemoveFilesChangedHandler"));
    getDirectoryListing = reinterpret_cast<GetDirectoryListingFunction>(Symbol("zebtrk_GetDirectoryListing"));
    getInfo = reinterpret_cast<GetInfoFunction>(Symbol("zebtrk_GetInfo"));
    removeFile = reinterpret_cast<RemoveFileFunction>(Symbol("zebtrk_RemoveFile"));
  } catch (...) {
    dlclose(m_handle);
    throw;
  }
}

PluginLoader::~PluginLoader() {
  // The framework keeps what the plug-in registered until exit; a host that
  // unloads the plug-in first takes back the scheme (only if it is still the
  // plug-in's) and the imager type, or they would point into unmapped code.
  zeb::CUriHandler* handler = zeb::CUriHandler::instance();
  if (m_fileSystem && handler->FileSystemForPath(kScheme) == m_fileSystem) {
    handler->UnregisterHandler(kScheme);
  }
  zeb::file::imagerFileFactory()->Unregister(kImagerType);
  dlclose(m_handle);
}

void* PluginLoader::Symbol(const char* name) {
  dlerror();
  void* address = dlsym(m_handle, name);
  if (!address) {
    throw CliError(kExitPlugin, "the library " + m_path + " is not the zebtrk plug-in: it has no " + name);
  }
  return address;
}

zeb::IFileSystem* PluginLoader::Start() {
  if (m_fileSystem) return m_fileSystem;
  m_load();
  m_fileSystem = zeb::CUriHandler::instance()->FileSystemForPath(kScheme);
  if (!m_fileSystem) {
    throw CliError(kExitPlugin, "the plug-in " + m_path + " registered no \"trk:\" file system");
  }
  return m_fileSystem;
}
