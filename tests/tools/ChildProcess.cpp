#include "tests/tools/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "tests/support/TempDir.h"

extern char** environ;

namespace tooltest {

const char* ToolPath() { return ZEBTRKSVC_PATH; }

ChildProcess::~ChildProcess() {
  if (m_pid == -1) return;
  kill(m_pid, SIGKILL);
  waitpid(m_pid, nullptr, 0);
}

bool ChildProcess::Start(const std::string& program, const std::vector<std::string>& args,
                         const std::string& stdoutPath, const std::string& stderrPath) {
  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  const int result = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (result != 0) return false;
  m_pid = pid;
  m_status = -1;
  return true;
}

void ChildProcess::Signal(int signal) {
  if (m_pid != -1) kill(m_pid, signal);
}

bool ChildProcess::Running() {
  if (m_pid == -1) return false;
  int status = 0;
  if (waitpid(m_pid, &status, WNOHANG) != m_pid) return true;
  m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  m_pid = -1;
  return false;
}

int ChildProcess::Wait(int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (Running()) {
    if (std::chrono::steady_clock::now() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return m_status;
}

ToolRun RunTool(const std::vector<std::string>& args, const std::string& scratch, int timeoutMs) {
  ToolRun run;
  const std::string outPath = scratch + "/tool.out";
  const std::string errPath = scratch + "/tool.err";
  ChildProcess child;
  if (!child.Start(ToolPath(), args, outPath, errPath)) return run;
  run.status = child.Wait(timeoutMs);
  run.out = testsupport::ReadFile(outPath);
  run.err = testsupport::ReadFile(errPath);
  return run;
}

}  // namespace tooltest
