#include "python/src/PluginHost.h"

#include <dlfcn.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include <zeb/CUriHandler.h>

#include "python/src/ModuleError.h"
#include "tools/zebtrk/CliError.h"
#include "tools/zebtrk/ServiceProbe.h"

namespace {

typedef ModuleError::EKind EKind;

// CheckService: how long a failure waits for a dying service to vanish.
// The service must answer its version check within this (a probe, not a
// plug-in call: the tools use the same bound).
constexpr int kProbeLimitMs = 10000;
constexpr int kProbeRetries = 10;
constexpr useconds_t kProbeRetryMicroseconds = 20000;

std::string Folder(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// The kind of a zebtrk tool error, for the errors of the borrowed classes.
EKind KindOf(const CliError& error) {
  switch (error.code()) {
    case kExitNoMovie:
      return EKind::kNoMovie;
    case kExitNoService:
      return EKind::kNoService;
    default:
      return EKind::kFailure;
  }
}

}  // namespace

PluginHost& PluginHost::Instance() {
  static PluginHost* host = new PluginHost();  // lives until exit (see header)
  return *host;
}

std::string PluginHost::PluginPath() {
  const char* overridden = getenv("ZEBTRK_PLUGIN");
  if (overridden && *overridden) return overridden;
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&zeb::CUriHandler::instance), &info) && info.dli_fname) {
    // The loader's name is as the run path spelled it ("$ORIGIN/../../..").
    std::string folder = Folder(info.dli_fname);
    if (char* resolved = realpath(folder.c_str(), nullptr)) {
      folder = resolved;
      free(resolved);
    }
    return folder + "/libzebtrk.so";
  }
  return "libzebtrk.so";
}

std::string PluginHost::CacheDir() {
  // The plug-in's rule: $HOME, else the password entry's home directory.
  std::string base;
  if (const char* home = getenv("HOME")) {
    base = home;
  } else if (const passwd* entry = getpwuid(getuid())) {
    base = entry->pw_dir ? entry->pw_dir : "";
  }
  if (!base.empty() && base.back() != '/') base += '/';
  return base + ".cache/Ostrel Systems/TRK";
}

bool PluginHost::EmulatorRequested() {
  const char* value = getenv("ZEBTRK_ENABLE_EMULATOR");
  return value && *value;
}

void PluginHost::Start() {
  std::lock_guard<std::mutex> hold(m_lock);
  const bool started = m_fileSystem.load() != nullptr;
  if (!(started ? m_emulator.load() : EmulatorRequested())) {
    std::string detail;
    const ServiceProbe::EState state = ServiceProbe::Probe(detail, kProbeLimitMs, -1);
    if (state != ServiceProbe::EState::kAnswers) {
      throw ModuleError(EKind::kNoService, ServiceProbe::Message(state, detail, kProbeLimitMs));
    }
  }
  if (started) return;
  try {
    if (!m_plugin) m_plugin = new PluginLoader(PluginPath());
    const bool emulator = EmulatorRequested();
    zeb::IFileSystem* fileSystem = m_plugin->Start();
    m_emulator = emulator;
    m_fileSystem = fileSystem;
  } catch (const CliError& error) {
    throw ModuleError(EKind::kFailure, error.what());
  }
}

zeb::IFileSystem* PluginHost::fileSystem() {
  zeb::IFileSystem* fileSystem = m_fileSystem.load();
  if (!fileSystem) throw ModuleError(EKind::kFailure, "the plug-in is not loaded (make a zebtrk.Drive first)");
  return fileSystem;
}

PluginLoader& PluginHost::loader() {
  fileSystem();
  return *m_plugin;
}

bool PluginHost::DrivePresent() { return loader().drivePresent(); }

std::vector<Movie> PluginHost::List() { return MovieCatalog(fileSystem()).List(); }

Movie PluginHost::Find(const std::string& query, bool allowNumber) {
  try {
    return MovieCatalog(fileSystem()).Find(query, allowNumber);
  } catch (const CliError& error) {
    // The borrowed catalog points at the command-line tool; here the list
    // is the drive itself.
    std::string message = error.what();
    const std::string command = "`zebtrk ls` lists";
    const size_t at = message.find(command);
    if (at != std::string::npos) message.replace(at, command.size(), "list(zebtrk.Drive()) gives");
    throw ModuleError(KindOf(error), message);
  }
}

void PluginHost::CheckService(const std::string& what) {
  if (m_emulator) return;
  // A service that was just killed may still accept connections for a few
  // milliseconds while the kernel closes its descriptors: a failure only
  // counts as "the service answers" when the probe says so for a while.
  std::string detail;
  ServiceProbe::EState state = ServiceProbe::Probe(detail, kProbeLimitMs, -1);
  for (int retry = 0; state == ServiceProbe::EState::kAnswers; ++retry) {
    if (retry == kProbeRetries) return;
    usleep(kProbeRetryMicroseconds);
    state = ServiceProbe::Probe(detail, kProbeLimitMs, -1);
  }
  throw ModuleError(EKind::kNoService, what + " failed: " + ServiceProbe::Message(state, detail, kProbeLimitMs) +
                                           "\nThe plug-in connects once per process: restart Python once the "
                                           "service runs again.");
}

void PluginHost::Remove(const std::string& query) {
  // Deleting needs the exact name: no number shortcut, so that a slip of the
  // finger cannot delete another movie.
  const Movie movie = Find(query, false);
  if (loader().removeFile(movie.uri().c_str())) return;
  const std::string what = "deleting " + movie.name;
  CheckService(what);
  // The plug-in reports only that it failed; say where to look.
  if (m_emulator) {
    const std::string folder = CacheDir();
    if (access(folder.c_str(), W_OK) != 0) {
      throw ModuleError(EKind::kPermission, what + " failed: the cache directory " + folder + " is not writable");
    }
    throw ModuleError(EKind::kFailure, what + " failed: its data file " + folder + "/" + movie.name +
                                           ".dat could not be removed");
  }
  throw ModuleError(EKind::kFailure, what + " failed: the movie service refused it (zebtrksvc --verbose logs why)");
}

std::string PluginHost::ReadInfo(const Movie& movie) {
  try {
    return MovieCatalog(fileSystem()).ReadInfo(movie);
  } catch (const CliError& error) {
    CheckService("opening " + movie.uri() + ":info");
    throw ModuleError(EKind::kFailure, error.what());
  }
}
