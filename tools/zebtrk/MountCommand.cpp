#include "tools/zebtrk/MountCommand.h"

#define FUSE_USE_VERSION 312
#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <sstream>
#include <memory>
#include <mutex>
#include <ostream>

#include "tools/zebtrk/ArgumentList.h"
#include "tools/zebtrk/BoundedWorker.h"
#include "tools/zebtrk/CliError.h"
#include "tools/zebtrk/ListingFollower.h"
#include "tools/zebtrk/MountFileSystem.h"
#include "tools/zebtrk/PluginLoader.h"
#include "tools/zebtrk/ServiceProbe.h"

namespace {

const char* const kUsage =
    "zebtrk mount MOUNTPOINT [--foreground] [--allow-delete] [--timeout S]\n"
    "  Shows the movies as files in the folder MOUNTPOINT (FUSE), for any program\n"
    "  to open, with no export step. For each movie NAME:\n"
    "    NAME.raw   the frame data (16-bit little-endian pixels, frame after frame)\n"
    "    NAME.info  its raw imager information file (NAME.raw + NAME.info is a raw\n"
    "               imager file)\n"
    "    NAME.npy   a NumPy .npy file of shape (frames, height, width), uint16:\n"
    "               numpy.load(PATH, mmap_mode=\"r\") maps it without copying\n"
    "    NAME.tif   a multi-page 16-bit TIFF, a page per frame (movies up to 4 GiB;\n"
    "               ImageJ opens it as a virtual stack)\n"
    "  Reads fetch only the frames they touch. The listing follows the movies\n"
    "  recorded and deleted; listing sends nothing to the service. Read-only:\n"
    "  writing, creating and renaming fail with EROFS; with --allow-delete,\n"
    "  `rm MOUNTPOINT/NAME.raw` deletes the movie from the drive. A read that the\n"
    "  service does not answer within S seconds (default 10) fails with EIO; the\n"
    "  mount stays. Without --foreground the command returns once the folder is\n"
    "  mounted; unmount with `fusermount3 -u MOUNTPOINT` (or Ctrl-C with\n"
    "  --foreground).\n";

const double kMaxTimeoutSeconds = 86400;

bool EmulatorMode() {
  const char* value = getenv("ZEBTRK_ENABLE_EMULATOR");
  return value && *value;
}

std::string CacheDir() {
  const char* home = getenv("HOME");
  std::string base = home ? home : "";
  if (!base.empty() && base.back() != '/') base += '/';
  return base + ".cache/Ostrel Systems/TRK";
}

// Fails with the reason when this machine cannot mount FUSE file systems.
void RequireFuse() {
  const int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    throw CliError(kExitFailure, std::string("cannot mount: FUSE is not available here (/dev/fuse: ") +
                                     strerror(errno) + ")");
  }
  close(fd);
}

// The kernel reads ahead in windows of its default 128 KiB on a FUSE mount,
// so a program's sequential reads reach the mount as 128 KiB requests. A
// window of 1 MiB (the largest request that libfuse accepts) makes a request
// cover one or more frames of most movies, eight times fewer round trips
// through the kernel. The setting belongs to the mount's own device and goes
// with it; only root may change it, so failure is ignored. Found through
// /proc/self/mountinfo, since a stat of the mount point would wait for the
// not yet running file system.
void RaiseReadAhead(const std::string& mountPoint) {
  std::string escaped;
  for (char c : mountPoint) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\\') {
      char octal[5];
      snprintf(octal, sizeof(octal), "\\%03o", static_cast<unsigned char>(c));
      escaped += octal;
    } else {
      escaped += c;
    }
  }
  std::ifstream mounts("/proc/self/mountinfo");
  std::string line;
  std::string device;
  while (std::getline(mounts, line)) {
    std::istringstream fields(line);
    std::string id, parent, numbers, root, point;
    if (fields >> id >> parent >> numbers >> root >> point && point == escaped) device = numbers;
  }
  if (device.empty()) return;
  std::ofstream window("/sys/class/bdi/" + device + "/read_ahead_kb");
  window << "1024\n";
}

// Owns the libfuse objects of one mount: made, mounted, looped, unmounted.
struct SFuse {
  fuse* handle = nullptr;
  bool mounted = false;
  bool signals = false;
  ~SFuse() {
    if (signals) fuse_remove_signal_handlers(fuse_get_session(handle));
    if (mounted) fuse_unmount(handle);
    if (handle) fuse_destroy(handle);
  }
};

}  // namespace

const char* MountCommand::Usage() { return kUsage; }

MountCommand::SSettings MountCommand::Parse(const std::vector<std::string>& args, std::chrono::milliseconds timeout) {
  const ArgumentList arguments("mount", args, {"--foreground", "--allow-delete"}, {"--timeout"});
  arguments.ExpectPositional(1, 1, "zebtrk mount MOUNTPOINT [--foreground] [--allow-delete] [--timeout S]");
  SSettings settings;
  settings.timeout = timeout;
  settings.foreground = arguments.Has("--foreground");
  settings.allowDelete = arguments.Has("--allow-delete");
  if (arguments.Has("--timeout")) {
    const std::string text = arguments.Value("--timeout");
    char* end = nullptr;
    const double seconds = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(seconds >= 0.001) || seconds > kMaxTimeoutSeconds) {
      throw CliError(kExitUsage, "mount: --timeout needs seconds between 0.001 and 86400, not \"" + text + "\"");
    }
    settings.timeout = std::chrono::milliseconds(static_cast<long>(seconds * 1000));
  }
  char resolved[PATH_MAX];
  struct stat st;
  const std::string& given = arguments.positional()[0];
  if (!realpath(given.c_str(), resolved) || stat(resolved, &st) != 0 || !S_ISDIR(st.st_mode)) {
    throw CliError(kExitOutput, "mount: the mount point \"" + given + "\" is not an existing folder");
  }
  settings.mountPoint = resolved;
  return settings;
}

int MountCommand::Run(const std::vector<std::string>& args) {
  for (const std::string& arg : args) {
    if (arg == "--help" || arg == "-h") {
      m_out << kUsage;
      return kExitOk;
    }
    if (arg == "--") break;
  }
  const SSettings settings = Parse(args, m_timeout);
  RequireFuse();
  if (!settings.foreground) {
    const int parentCode = Detach();
    if (parentCode >= 0) return parentCode;
  }
  return Serve(settings);
}

int MountCommand::Detach() {
  int ready[2];
  if (pipe2(ready, O_CLOEXEC) != 0) throw CliError(kExitFailure, "mount: cannot create a pipe");
  m_out.flush();
  m_err.flush();
  const pid_t child = fork();
  if (child < 0) {
    close(ready[0]);
    close(ready[1]);
    throw CliError(kExitFailure, "mount: cannot start the background process");
  }
  if (child == 0) {
    close(ready[0]);
    m_readyFd = ready[1];
    setsid();  // the terminal's Ctrl-C is no longer for the mount
    return -1;
  }
  close(ready[1]);
  char word = 0;
  ssize_t n;
  do {
    n = read(ready[0], &word, 1);
  } while (n < 0 && errno == EINTR);
  close(ready[0]);
  if (n == 1) return kExitOk;  // mounted; the child serves on
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : kExitFailure;
}

int MountCommand::Serve(const SSettings& settings) {
  std::mutex printing;
  const MountFileSystem::Notice notice = [this, &printing](const std::string& message) {
    std::lock_guard<std::mutex> hold(printing);
    m_err << "zebtrk mount: " << message << std::endl;
  };

  auto plugin = std::make_unique<PluginLoader>(PluginLoader::DefaultPath());
  const bool emulator = EmulatorMode();
  if (!emulator) {
    std::string detail;
    const int limitMs = static_cast<int>(settings.timeout.count());
    const ServiceProbe::EState state = ServiceProbe::Probe(detail, limitMs, -1);
    if (state != ServiceProbe::EState::kAnswers) {
      throw CliError(state == ServiceProbe::EState::kSilent ? kExitTimeout : kExitNoService,
                     ServiceProbe::Message(state, detail, limitMs));
    }
  }
  MountFileSystem::SOptions options;
  options.allowDelete = settings.allowDelete;
  options.emulator = emulator;
  options.timeout = settings.timeout;
  std::unique_ptr<MountFileSystem> files;
  std::unique_ptr<ListingFollower> follower;
  // Building the plug-in's file system asks the service for the movie list;
  // a service that accepts but does not answer is bounded like every read.
  // (The references stay valid: past the bound the process leaves at once.)
  std::exception_ptr failure;
  bool drive = false;
  BoundedWorker start(settings.timeout);
  const BoundedWorker::EResult started = start.Run([&] {
    try {
      zeb::IFileSystem* fileSystem = plugin->Start();
      drive = plugin->drivePresent();
      files = std::make_unique<MountFileSystem>(*plugin, fileSystem, options, notice);
      follower = std::make_unique<ListingFollower>(
          *plugin, fileSystem, emulator, CacheDir(),
          [&files](const std::vector<Movie>& movies) { files->SetMovies(movies); }, notice);
    } catch (...) {
      failure = std::current_exception();
    }
  });
  if (started != BoundedWorker::EResult::kDone) {
    m_err << "zebtrk: the movie service accepts connections but did not answer within "
          << BoundedWorker::LimitText(settings.timeout) << std::endl;
    _exit(kExitNoService);
  }
  if (failure) std::rethrow_exception(failure);
  if (!drive) notice("no drive is present: the folder stays empty until one is");

  std::string mountOptions = "fsname=zebtrk,subtype=zebtrk";
  if (!settings.allowDelete) mountOptions += ",ro";
  const char* argv[] = {"zebtrk", "-o", mountOptions.c_str()};
  fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(argv));
  int code = kExitOk;
  {
    SFuse mount;
    mount.handle = fuse_new(&args, MountFileSystem::Operations(), sizeof(fuse_operations), files.get());
    fuse_opt_free_args(&args);  // fuse_new copies what it keeps
    if (!mount.handle) throw CliError(kExitFailure, "mount: libfuse refused the mount options");
    if (fuse_mount(mount.handle, settings.mountPoint.c_str()) != 0) {
      throw CliError(kExitFailure, "cannot mount at " + settings.mountPoint +
                                       ": FUSE is not available here or refused the mount (libfuse's reason above)");
    }
    mount.mounted = true;
    RaiseReadAhead(settings.mountPoint);
    if (fuse_set_signal_handlers(fuse_get_session(mount.handle)) != 0) {
      throw CliError(kExitFailure, "mount: cannot install the signal handlers");
    }
    mount.signals = true;

    const size_t movies = files->views()->movies();
    m_out << "mounted " << movies << (movies == 1 ? " movie" : " movies") << " at " << settings.mountPoint
          << (settings.allowDelete ? " (deleting allowed)" : " (read-only)") << "; unmount with fusermount3 -u "
          << settings.mountPoint << (settings.foreground ? " or Ctrl-C" : "") << std::endl;
    if (m_readyFd >= 0) {
      const char word = 1;
      ssize_t ignored = write(m_readyFd, &word, 1);
      (void)ignored;
      close(m_readyFd);
      m_readyFd = -1;
      const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
      if (null >= 0) {
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
        close(null);
      }
      if (chdir("/") != 0) notice("cannot leave the working folder");
    }

    fuse_loop_config* loop = fuse_loop_cfg_create();
    // A positive result is the signal that ended the loop: a normal end.
    if (fuse_loop_mt(mount.handle, loop) < 0) code = kExitFailure;
    fuse_loop_cfg_destroy(loop);
  }
  m_out << "unmounted " << settings.mountPoint << std::endl;
  // Closing the movies, unregistering the handler and unloading the plug-in
  // all may wait for the service. Bounded: past the timeout, or with a call
  // still stuck from before, the process leaves at once (the references in
  // the call stay valid because this function never returns then).
  BoundedWorker teardown(settings.timeout);
  const BoundedWorker::EResult ended = teardown.Run([&] {
    follower.reset();  // first: its thread hands lists to `files`
    files.reset();
    if (BoundedWorker::Abandoned() > 0) return;
    plugin.reset();
  });
  if (ended != BoundedWorker::EResult::kDone || BoundedWorker::Abandoned() > 0) {
    notice("the movie service does not answer: leaving without closing the plug-in");
    m_out.flush();
    m_err.flush();
    _exit(kExitFailure);
  }
  return code;
}
