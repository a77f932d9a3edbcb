// Shared pieces of the ipc tests: unique names, a fixture that fails a test
// which leaves a descriptor, a socket file or a segment of its own behind,
// connected socket pairs, scoped process-wide settings (umask, signal
// dispositions) and a helper that interrupts a blocked thread with signals.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ipc/LocalSocket.h"
#include "ipc/LocalSocketServer.h"
#include "tests/support/ResourceSnapshot.h"

namespace ipctest {

// "zebtrk-test-<pid>-": every name a test of this process makes starts so.
inline std::string Tag() { return "zebtrk-test-" + std::to_string(getpid()) + "-"; }

inline bool PathExists(const std::string& path) {
  struct stat status;
  return lstat(path.c_str(), &status) == 0;
}

inline mode_t PathMode(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? (status.st_mode & 07777) : 0;
}

// Leak check around every test. Other programs may create segments in
// /dev/shm meanwhile, so only segments carrying this process's tag count.
class IpcTest : public ::testing::Test {
 protected:
  // A fresh name "zebtrk-test-<pid>-<n>"; TearDown checks that neither
  // /tmp/<name> nor /dev/shm/<name> is left.
  std::string Name() {
    static int counter = 0;
    m_names.push_back(Tag() + std::to_string(++counter));
    return m_names.back();
  }

  void TearDown() override {
    EXPECT_EQ(OwnLeaks(), "");
    for (const std::string& name : m_names) {
      EXPECT_FALSE(PathExists("/tmp/" + name)) << name;
      EXPECT_FALSE(PathExists("/dev/shm/" + name)) << name;
    }
  }

  // Descriptors opened since the test began, in this process.
  std::vector<int> NewDescriptors() const {
    std::vector<int> fds;
    for (int fd : testsupport::OpenDescriptors())
      if (m_fds.count(fd) == 0) fds.push_back(fd);
    return fds;
  }

 private:
  std::string OwnLeaks() const {
    std::istringstream lines(m_before.Leaks());
    std::string line, own;
    while (std::getline(lines, line)) {
      if (line.rfind("fd ", 0) == 0 || line.find(Tag()) != std::string::npos) own += line + "\n";
    }
    return own;
  }

  testsupport::ResourceSnapshot m_before;
  std::set<int> m_fds = testsupport::OpenDescriptors();
  std::vector<std::string> m_names;
};

// A connected pair made through a server of a unique name: `client` connected
// with Connect, `peer` handed out by Accept.
struct Pair {
  LocalSocketServer server;
  LocalSocket client;
  LocalSocket peer;
};

inline void Open(Pair& pair, const std::string& name) {
  ASSERT_TRUE(pair.server.Create(name.c_str()));
  ASSERT_TRUE(pair.client.Connect(name.c_str()));
  pair.peer = pair.server.Accept();
  ASSERT_TRUE(pair.peer.connected());
}

// Sends `text` from `from` and reads it back on `to`: true when it arrived whole.
inline bool RoundTrip(LocalSocket& from, LocalSocket& to, const std::string& text) {
  if (from.Write(text.data(), text.size()) != text.size()) return false;
  std::string got(text.size(), '\0');
  return to.Read(&got[0], got.size()) == text.size() && got == text;
}

// Leaves a stale socket file at /tmp/<name>: bound, never listened on, closed
// (what an earlier run that ended without cleaning up leaves).
inline void BindStale(const std::string& name) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::snprintf(address.sun_path, sizeof(address.sun_path), "/tmp/%s", name.c_str());
  EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  close(fd);
}

// Sets the file-mode creation mask for one scope.
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : m_saved(umask(mask)) {}
  ~ScopedUmask() { umask(m_saved); }
  static mode_t Current() {
    mode_t mask = umask(0);
    umask(mask);
    return mask;
  }

 private:
  mode_t m_saved;
};

// Installs `handler` (nullptr: SIG_DFL) for `signal` without SA_RESTART, so
// that blocking calls of an interrupted thread fail with EINTR; restores the
// previous disposition at the end of the scope.
class ScopedSignal {
 public:
  ScopedSignal(int signal, void (*handler)(int)) : m_signal(signal) {
    struct sigaction action = {};
    action.sa_handler = handler != nullptr ? handler : SIG_DFL;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    sigaction(signal, &action, &m_saved);
  }
  ~ScopedSignal() { sigaction(m_signal, &m_saved, nullptr); }

 private:
  int m_signal;
  struct sigaction m_saved;
};

inline std::atomic<int> g_signals{0};
inline void CountSignal(int) { g_signals.fetch_add(1); }

// Sends SIGUSR1 to `thread` `count` times, 20 ms apart, so that most arrive
// while it is blocked. Returns how many the handler has seen (a thread that has
// already ended sees none).
inline int Interrupt(std::thread& thread, int count) {
  int before = g_signals.load();
  for (int i = 0; i < count; ++i) {
    pthread_kill(thread.native_handle(), SIGUSR1);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return g_signals.load() - before;
}

}  // namespace ipctest
