// ChildProcess: a program started by a test (the zebtrksvc binary), with its
// standard output and error sent to files. The destructor kills (SIGKILL)
// and reaps a child that still runs, so no test path leaves one behind.
//
// One thread at a time.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tooltest {

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts `program` with `args` (argv[1..]); output to the two files
  // (created or truncated). True when the process was started.
  bool Start(const std::string& program, const std::vector<std::string>& args,
             const std::string& stdoutPath, const std::string& stderrPath);
  // Sends `signal` while the child has not been reaped.
  void Signal(int signal);
  // Waits up to `timeoutMs` for the child to end. Its exit code, 128 + the
  // signal that ended it, or -1 when it still runs after the time-out.
  int Wait(int timeoutMs);
  // True while the child has not ended (reaps it when it has).
  bool Running();

 private:
  pid_t m_pid = -1;
  int m_status = -1;
};

// The result of running a program to its end.
struct ToolRun {
  int status = -1;  // as ChildProcess::Wait
  std::string out;
  std::string err;
};

// Runs the zebtrksvc binary with `args` to its end (at most `timeoutMs`),
// with its output in files under `scratch`.
ToolRun RunTool(const std::vector<std::string>& args, const std::string& scratch, int timeoutMs = 120000);

// The path of the zebtrksvc binary under test.
const char* ToolPath();

}  // namespace tooltest
