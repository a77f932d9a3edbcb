#include "tools/zebtrk/BoundedCall.h"

#include <errno.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <algorithm>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

// The state one worker shares with the caller. The worker holds its own
// reference, so an abandoned worker finds it alive whenever it returns.
struct BoundedCall::SShared {
  std::mutex lock;  // guards work, pending, quit, failure
  std::condition_variable wake;
  std::function<void()> work;
  bool pending = false;
  bool quit = false;
  std::exception_ptr failure;
  int doneFd = -1;  // eventfd: one count per finished call
  std::thread thread;

  ~SShared() {
    if (doneFd >= 0) close(doneFd);
  }

  static void Loop(std::shared_ptr<SShared> self) {
    std::unique_lock<std::mutex> guard(self->lock);
    for (;;) {
      self->wake.wait(guard, [&] { return self->pending || self->quit; });
      if (self->quit) return;
      std::function<void()> work = std::move(self->work);
      guard.unlock();
      std::exception_ptr failure;
      try {
        work();
      } catch (...) {
        failure = std::current_exception();
      }
      guard.lock();
      self->failure = failure;
      self->pending = false;
      const uint64_t one = 1;
      ssize_t ignored = write(self->doneFd, &one, sizeof(one));
      (void)ignored;
    }
  }
};

namespace {

// Waits until `doneFd` is readable, or `limit` passed, or `cancelFd` is
// readable and `grace` passed since.
BoundedCall::EOutcome Wait(int doneFd, int cancelFd, std::chrono::milliseconds limit,
                           std::chrono::milliseconds grace) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  bool cancelled = false;
  for (;;) {
    pollfd fds[2] = {{doneFd, POLLIN, 0}, {cancelFd, POLLIN, 0}};
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return cancelled ? BoundedCall::EOutcome::kCancelled : BoundedCall::EOutcome::kTimedOut;
    const int ready = poll(fds, cancelFd >= 0 && !cancelled ? 2 : 1, static_cast<int>(left.count()) + 1);
    if (ready < 0 && errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
    if (ready <= 0) continue;
    if (fds[0].revents & POLLIN) return BoundedCall::EOutcome::kDone;
    if (cancelFd >= 0 && !cancelled && fds[1].revents) {
      cancelled = true;
      deadline = std::min(deadline, std::chrono::steady_clock::now() + grace);
    }
  }
}

}  // namespace

BoundedCall::BoundedCall(std::chrono::milliseconds limit, int cancelFd, std::chrono::milliseconds grace)
    : m_limit(limit), m_cancelFd(cancelFd), m_grace(grace) {}

BoundedCall::~BoundedCall() {
  if (!m_shared) return;
  {
    std::lock_guard<std::mutex> guard(m_shared->lock);
    m_shared->quit = true;
  }
  m_shared->wake.notify_one();
  m_shared->thread.join();
}

BoundedCall::EOutcome BoundedCall::Run(std::function<void()> work) {
  if (m_shared && m_shared->thread.get_id() == std::this_thread::get_id()) {
    // A bounded call from inside a bounded call: the outer bound holds.
    work();
    return EOutcome::kDone;
  }
  if (!m_shared) {
    auto shared = std::make_shared<SShared>();
    shared->doneFd = eventfd(0, EFD_CLOEXEC);
    if (shared->doneFd < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
    shared->thread = std::thread(&SShared::Loop, shared);
    m_shared = std::move(shared);
  }
  {
    std::lock_guard<std::mutex> guard(m_shared->lock);
    m_shared->work = std::move(work);
    m_shared->pending = true;
  }
  m_shared->wake.notify_one();
  const EOutcome outcome = Wait(m_shared->doneFd, m_cancelFd, m_limit, m_grace);
  if (outcome != EOutcome::kDone) {
    // Leave the worker inside the call; it ends with the process, or finishes
    // the call and waits for a quit that the shared state's last owner gives.
    {
      std::lock_guard<std::mutex> guard(m_shared->lock);
      m_shared->quit = true;
    }
    m_shared->thread.detach();
    m_shared.reset();
    ++m_abandoned;
    return outcome;
  }
  uint64_t count = 0;
  ssize_t ignored = read(m_shared->doneFd, &count, sizeof(count));
  (void)ignored;
  std::exception_ptr failure;
  {
    std::lock_guard<std::mutex> guard(m_shared->lock);
    failure = m_shared->failure;
    m_shared->failure = nullptr;
  }
  if (failure) std::rethrow_exception(failure);
  return EOutcome::kDone;
}
