// zebtrksvc: the movie service simulator. Parses the arguments, then either
// writes demo movies or serves a drive folder until SIGINT or SIGTERM.
//
// Serving: the signals are blocked in every thread and read from a signalfd
// by the main thread, so no handler runs in the middle of anything; the
// service, the drive watcher and the connections run on their own threads.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <string>

#include "tools/zebtrksvc/CommandLine.h"
#include "tools/zebtrksvc/DemoDrive.h"
#include "tools/zebtrksvc/DriveWatcher.h"
#include "tools/zebtrksvc/EventHub.h"
#include "tools/zebtrksvc/InstanceLock.h"
#include "tools/zebtrksvc/Log.h"
#include "tools/zebtrksvc/MovieCatalog.h"
#include "tools/zebtrksvc/Service.h"
#include "tools/zebtrksvc/StaleSegments.h"
#include "tools/zebtrksvc/UniqueFd.h"

namespace {

using namespace zebtrksvc;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

int Fail(const std::string& message) {
  std::fprintf(stderr, "zebtrksvc: %s\n", message.c_str());
  return kExitFailure;
}

// An absolute path without trailing slashes (the folder need not exist, so
// realpath cannot be used).
std::string AbsoluteFolder(const std::string& folder) {
  std::string path = folder;
  if (path[0] != '/') {
    char cwd[4096];
    if (getcwd(cwd, sizeof(cwd)) == nullptr) return path;
    path = std::string(cwd) + "/" + path;
  }
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

void PrintMovie(const std::string& folder, const MovieSpec& spec) {
  std::printf("%s/%s.dat  %ux%u, %u frames%s\n", folder.c_str(), spec.stem().c_str(), spec.width,
              spec.height, spec.frames, spec.sparse ? " (sparse)" : "");
}

int MakeDemo(const Options& options) {
  for (const MovieSpec& spec : DemoDrive::Plan(options.movies, options.seed, options.frames)) {
    std::string error;
    if (!DemoDrive::WriteMovie(options.folder, spec, error)) return Fail(error);
    PrintMovie(options.folder, spec);
  }
  return 0;
}

int MakeMovie(const Options& options) {
  std::string error;
  if (!DemoDrive::WriteMovie(options.folder, options.movie, error)) return Fail(error);
  PrintMovie(options.folder, options.movie);
  return 0;
}

int Serve(const Options& options) {
  SetVerbose(options.verbose);
  // Blocked before any thread exists, so every thread inherits the mask and
  // the signals wait in the signalfd for the main thread.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  if (pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr) != 0) return Fail("cannot block signals");
  UniqueFd signals(signalfd(-1, &stopSignals, SFD_CLOEXEC));
  if (!signals.valid()) return Fail(std::string("cannot read signals: ") + std::strerror(errno));
  // Writes to a client that left fail with EPIPE (sockets send with
  // MSG_NOSIGNAL already; this covers anything else).
  signal(SIGPIPE, SIG_IGN);
  // Segment names come from rand(): different services get different names.
  std::srand(static_cast<unsigned>(getpid()) ^ static_cast<unsigned>(std::time(nullptr)));

  std::string error;
  InstanceLock instance;
  if (!instance.Acquire(error)) return Fail(error);
  StaleSegments::RemoveOrphans();

  MovieCatalog catalog(AbsoluteFolder(options.drive));
  EventHub hub;
  catalog.SetListener([&hub] { hub.PostAll(1); });
  DriveWatcher watcher(catalog);
  if (!watcher.Start(error)) return Fail(error);
  Service service(catalog, hub);
  if (!service.Start(error)) return Fail(error);
  Logf("serving %s on /tmp/%s", catalog.drivePath().c_str(), Service::kName);

  signalfd_siginfo received;
  for (;;) {
    const ssize_t n = read(signals.get(), &received, sizeof(received));
    if (n == sizeof(received)) break;
    if (n == -1 && errno == EINTR) continue;
    service.Stop();
    watcher.Stop();
    return Fail(std::string("cannot read signals: ") + std::strerror(errno));
  }
  Logf("stopping on %s", strsignal(static_cast<int>(received.ssi_signo)));
  service.Stop();
  watcher.Stop();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string error;
  if (!CommandLine::Parse(argc, argv, options, error)) {
    std::fprintf(stderr, "zebtrksvc: %s (zebtrksvc --help shows the usage)\n", error.c_str());
    return kExitUsage;
  }
  try {
    switch (options.mode) {
      case Options::Mode::Help:
        std::fputs(CommandLine::Usage(), stdout);
        return 0;
      case Options::Mode::Version:
        std::printf("zebtrksvc %s\n", ZEBTRK_VERSION);
        return 0;
      case Options::Mode::MakeDemo:
        return MakeDemo(options);
      case Options::Mode::MakeMovie:
        return MakeMovie(options);
      case Options::Mode::Serve:
        break;
    }
    return Serve(options);
  } catch (const std::exception& failure) {
    // Out of memory or threads: everything made so far is undone on the way.
    return Fail(failure.what());
  }
}
