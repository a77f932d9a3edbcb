// MountCommand: `zebtrk mount MOUNTPOINT [--foreground] [--allow-delete]
// [--timeout S]`: the movies of the "trk:" file system as a folder that every
// program can open (MountFileSystem on libfuse 3).
//
// The command is a host of the plug-in like the other commands: it loads it
// (PluginLoader), lists through its cached listing (MovieCatalog) and follows
// its files-changed reports (ChangeWatcher) in a thread of its own, which
// replaces the mount's listing snapshot at each report. In emulator mode,
// where the plug-in reports only its own deletions, that thread watches the
// cache directory instead; in normal mode it also watches the service's
// socket and says on the terminal when the service goes away.
//
// Without --foreground the command forks before it loads anything (the
// plug-in starts threads, which a fork would lose) and the parent returns
// once the child has mounted, with the child's exit code if it failed. The
// child keeps the terminal's error stream for its messages.
//
// Ends: SIGINT, SIGTERM, SIGHUP or an unmount from outside (fusermount3 -u)
// end the loop; the folder is unmounted and every open movie closed. When a
// call into the plug-in is still stuck on a silent service at that point the
// process says so and exits at once without unloading the plug-in (which
// would wait for that call for ever).
//
// Ownership: owns the plug-in and everything built on it for the command's
// run. One thread calls Run.
#pragma once

#include <chrono>
#include <iosfwd>
#include <string>
#include <vector>

class MountCommand {
 public:
  // `timeout` bounds every wait on the service unless --timeout says
  // otherwise (the tool's own --timeout before the command name).
  MountCommand(std::ostream& out, std::ostream& err,
               std::chrono::milliseconds timeout = std::chrono::milliseconds(10000))
      : m_out(out), m_err(err), m_timeout(timeout) {}

  // Runs the command; CliError for failures before the folder is mounted.
  int Run(const std::vector<std::string>& args);

  static const char* Usage();

 private:
  struct SSettings {
    std::string mountPoint;
    bool foreground = false;
    bool allowDelete = false;
    std::chrono::milliseconds timeout{10000};
  };
  static SSettings Parse(const std::vector<std::string>& args, std::chrono::milliseconds timeout);
  // The forked parent's side: waits for the child's word. Returns the exit
  // code for the parent, or -1 in the child.
  int Detach();
  int Serve(const SSettings& settings);

  std::ostream& m_out;
  std::ostream& m_err;
  std::chrono::milliseconds m_timeout;
  int m_readyFd = -1;  // the child's end of the pipe to the parent
};
