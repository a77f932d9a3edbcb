// Commands: the zebtrk commands (status, ls, info, export, rm, watch), their
// help texts and the way they reach the plug-in.
//
// Every command but `help` loads the plug-in (PluginLoader), checks in
// normal mode that the movie service answers the protocol's version check
// (ServiceProbe) and, for the commands that need movies, that a drive is
// present, before it touches the "trk:" file system. Errors end the command
// with a CliError, which Run prints as "zebtrk: <message>" on the error
// stream and turns into the exit code (see Usage()).
//
// Never hang: every call into the plug-in runs through a BoundedCall (the
// plug-in waits for ever on a silent service). When a call does not return
// within the limit (--timeout, 10 s by default), or Ctrl-C/SIGTERM arrives
// while it runs, GiveUp removes the unfinished output files, says why and
// ends the process at once with its exit code (8, or 130): a thread stuck in
// the plug-in cannot be unwound, and the plug-in cannot be unloaded under it.
//
// Ownership: owns the plug-in while a command runs; every object obtained
// from the plug-in is released before it is unloaded. Output goes to the two
// streams given, which the object borrows. One thread (the plug-in calls its
// handlers on its own threads; see ChangeWatcher).
#pragma once

#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include <zeb/IFileSystem.h>

#include "tools/zebtrk/BoundedCall.h"
#include "tools/zebtrk/MovieCatalog.h"

class ArgumentList;
class PluginLoader;
class SignalMonitor;

class Commands {
 public:
  Commands(std::ostream& out, std::ostream& err);
  ~Commands();
  Commands(const Commands&) = delete;
  Commands& operator=(const Commands&) = delete;

  // Runs the command line `args` (without the program name) and returns the
  // exit code.
  int Run(const std::vector<std::string>& args);

  // The general help text (commands, frame ranges, environment, exit codes).
  static std::string Usage();
  // "zebtrk 0.1.0".
  static std::string Version();

 private:
  int Status(const std::vector<std::string>& args);
  int List(const std::vector<std::string>& args);
  int Info(const std::vector<std::string>& args);
  int Export(const std::vector<std::string>& args);
  int Remove(const std::vector<std::string>& args);
  int Watch(const std::vector<std::string>& args);

  int Dispatch(const std::string& command, const std::vector<std::string>& rest);
  // Loads the plug-in, checks the service (normal mode), builds the file
  // system and, with `requireDrive`, checks for a drive. CliError on failure.
  void Connect(bool requireDrive);
  // Checks that the service answers the version check in time; CliError
  // kExitNoService (or GiveUp on Ctrl-C) otherwise.
  void CheckService();
  // Runs `work` (a call into the plug-in) bounded in time and by signals;
  // GiveUp when it does not return in time. When it returned after a
  // signal, and `stopWhenInterrupted`, StopWhenInterrupted.
  void Bounded(const std::function<void()>& work, bool stopWhenInterrupted = true);
  // CliError kExitInterrupted once a signal has arrived.
  void StopWhenInterrupted();
  // Removes unfinished output files, prints why and ends the process now.
  [[noreturn]] void GiveUp(BoundedCall::EOutcome outcome);
  // The movies of the listing (as MovieCatalog::List), each with its timing
  // read from its information file.
  std::vector<Movie> ListWithTiming(const std::string& filter);
  // Prints the movies as a table (ls).
  void PrintTable(const std::vector<Movie>& movies);
  // Prints a movie list with a heading (watch, rm).
  void PrintList(const std::string& heading, const std::vector<Movie>& movies);
  // "removed A, B; added C" between two lists; empty when the names agree.
  static std::string Difference(const std::vector<Movie>& before, const std::vector<Movie>& after);
  // True when ZEBTRK_ENABLE_EMULATOR holds a non-empty value.
  static bool EmulatorMode();
  // The plug-in's cache directory ($HOME/.cache/Ostrel Systems/TRK).
  static std::string CacheDir();

  std::ostream& m_out;
  std::ostream& m_err;
  int m_timeoutMs = 10000;
  std::unique_ptr<SignalMonitor> m_signals;
  std::unique_ptr<BoundedCall> m_bound;
  std::unique_ptr<PluginLoader> m_plugin;
  zeb::IFileSystem* m_fileSystem = nullptr;
};
