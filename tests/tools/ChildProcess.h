// Programs started by the tools tests (zebtrksvc, zebtrk, a shell): run to
// their end with their output captured, or kept running in the background
// with their output in a log file. No test path leaves a child behind: a
// ChildProcess still running when destroyed gets SIGTERM (so that a service
// removes its socket), then SIGKILL if it does not end, and is reaped.
//
// With them, waiting helpers for what the children make: a condition, a
// socket that accepts. One test thread at a time.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace tooltest {

// The result of running a program to its end.
struct ToolRun {
  int status = -1;  // exit code; 128 + the signal that ended it
  std::string out;
  std::string err;
};

// Runs `argv` (argv[0] is the program's path) with the environment changes
// `env` ("NAME=value" sets, "NAME" alone unsets), stdin /dev/null. A program
// still running after `limitSeconds` is killed (status 128 + SIGKILL), so a
// hung program fails the test instead of hanging it.
ToolRun Run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {}, int limitSeconds = 120);

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts `argv` as Run does, its stdout going to `outPath` and its stderr
  // to `errPath`, or to `outPath` as well when `errPath` is empty (files
  // created or truncated). True when the process was started.
  bool Start(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& outPath,
             const std::string& errPath = "");
  // Sends `signal` while the child has not been reaped.
  void Signal(int signal);
  // Waits up to `limitSeconds` for the child to end: its status as in
  // ToolRun, or -1 when it still runs.
  int Wait(int limitSeconds);
  // True while the child has not ended (reaps it when it has).
  bool Running();

 private:
  pid_t m_pid = -1;
  int m_status = -1;
};

// Polls `condition` every 10 ms; false when it is still false after
// `limitSeconds` (an upper bound for waiting, not a measurement).
bool WaitUntil(const std::function<bool()>& condition, int limitSeconds = 30);
// True when something accepts a connection on the socket at `path`.
bool SocketAccepts(const std::string& path);
// Leaves a socket file at `path` that nobody listens on, as a service that
// crashed leaves it. True when it was made.
bool LeaveStaleSocket(const std::string& path);

}  // namespace tooltest
