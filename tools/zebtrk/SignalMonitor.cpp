#include "tools/zebtrk/SignalMonitor.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>

namespace {

// Process-wide state of the one monitor: the handler may run on any thread.
int g_pipe[2] = {-1, -1};
std::atomic<int> g_signal{0};
std::atomic<int> g_count{0};

void OnSignal(int number) {
  int expected = 0;
  const int count = ++g_count;
  if (!g_signal.compare_exchange_strong(expected, number)) {
    if (count < 3) return;  // absorbed: the command is ending
    // Third signal: the user insists. Default action, delivered now.
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigaction(number, &action, nullptr);
    raise(number);
    return;
  }
  const int saved = errno;
  const char byte = static_cast<char>(number);
  ssize_t ignored = write(g_pipe[1], &byte, 1);
  (void)ignored;
  errno = saved;
}

}  // namespace

SignalMonitor::SignalMonitor() {
  if (pipe2(g_pipe, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("cannot create a pipe");
  g_signal = 0;
  g_count = 0;
  struct sigaction action {};
  action.sa_handler = OnSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, &m_previousInt);
  sigaction(SIGTERM, &action, &m_previousTerm);
}

SignalMonitor::~SignalMonitor() {
  sigaction(SIGINT, &m_previousInt, nullptr);
  sigaction(SIGTERM, &m_previousTerm, nullptr);
  close(g_pipe[0]);
  close(g_pipe[1]);
  g_pipe[0] = g_pipe[1] = -1;
}

int SignalMonitor::fd() const { return g_pipe[0]; }

int SignalMonitor::signal() const { return g_signal.load(); }
