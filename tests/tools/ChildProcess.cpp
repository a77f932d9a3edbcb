#include "tests/tools/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <algorithm>
#include <thread>

#include "tests/support/TempDir.h"

extern char** environ;

namespace tooltest {
namespace {

// This process's environment with the changes applied.
std::vector<std::string> Environment(const std::vector<std::string>& changes) {
  std::vector<std::string> result;
  for (char** entry = environ; *entry; ++entry) result.push_back(*entry);
  for (const std::string& change : changes) {
    const std::string name = change.substr(0, change.find('=')) + "=";
    result.erase(std::remove_if(result.begin(), result.end(),
                                [&](const std::string& entry) { return entry.rfind(name, 0) == 0; }),
                 result.end());
    if (change.find('=') != std::string::npos) result.push_back(change);
  }
  return result;
}

std::vector<char*> Pointers(std::vector<std::string>& words) {
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  return pointers;
}

int Status(int raw) { return WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw); }

sockaddr_un Address(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  snprintf(address.sun_path, sizeof(address.sun_path), "%s", path.c_str());
  return address;
}

}  // namespace

ToolRun Run(const std::vector<std::string>& argv, const std::vector<std::string>& env, int limitSeconds) {
  ToolRun run;
  testsupport::TempDir scratch;
  ChildProcess child;
  if (!child.Start(argv, env, scratch / "out", scratch / "err")) return run;
  run.status = child.Wait(limitSeconds);
  if (run.status == -1) {
    child.Signal(SIGKILL);
    run.status = child.Wait(limitSeconds);
  }
  run.out = testsupport::ReadFile(scratch / "out");
  run.err = testsupport::ReadFile(scratch / "err");
  return run;
}

ChildProcess::~ChildProcess() {
  if (m_pid == -1) return;
  Signal(SIGTERM);
  if (Wait(20) != -1) return;
  Signal(SIGKILL);
  Wait(20);
}

bool ChildProcess::Start(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                         const std::string& outPath, const std::string& errPath) {
  std::vector<std::string> args = argv;
  std::vector<std::string> environment = Environment(env);
  std::vector<char*> argp = Pointers(args);
  std::vector<char*> envp = Pointers(environment);
  const int flags = O_WRONLY | O_CREAT | O_TRUNC;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), flags, 0644);
  if (errPath.empty()) {
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
  } else {
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), flags, 0644);
  }
  if (posix_spawn(&m_pid, argp[0], &actions, nullptr, argp.data(), envp.data()) != 0) m_pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  m_status = -1;
  return m_pid != -1;
}

void ChildProcess::Signal(int signal) {
  if (m_pid != -1) kill(m_pid, signal);
}

bool ChildProcess::Running() {
  if (m_pid == -1) return false;
  int raw = 0;
  if (waitpid(m_pid, &raw, WNOHANG) != m_pid) return true;
  m_status = Status(raw);
  m_pid = -1;
  return false;
}

int ChildProcess::Wait(int limitSeconds) {
  WaitUntil([&] { return !Running(); }, limitSeconds);
  return Running() ? -1 : m_status;
}

bool WaitUntil(const std::function<bool()>& condition, int limitSeconds) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limitSeconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

bool SocketAccepts(const std::string& path) {
  const sockaddr_un address = Address(path);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool accepted = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return accepted;
}

bool LeaveStaleSocket(const std::string& path) {
  const sockaddr_un address = Address(path);
  unlink(path.c_str());
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool bound = bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  close(fd);
  return bound;
}

}  // namespace tooltest
