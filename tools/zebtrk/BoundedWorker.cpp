#include "tools/zebtrk/BoundedWorker.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <sstream>

namespace {

std::atomic<unsigned long> g_abandoned{0};

}  // namespace

// What the caller and the worker share; it outlives both sides' use of it.
struct BoundedWorker::SState {
  std::mutex lock;  // guards the fields below
  std::condition_variable changed;
  bool turnTaken = false;      // a caller is handing over a call or waiting for it
  std::function<void()> call;  // the call handed over, empty while none waits
  unsigned long started = 0;   // calls taken by the worker
  unsigned long finished = 0;  // calls the worker ended
  bool abandoned = false;      // the running call's caller gave up on it
  bool stop = false;
};

BoundedWorker::BoundedWorker(std::chrono::milliseconds limit)
    : m_limit(limit), m_state(std::make_shared<SState>()), m_worker(&BoundedWorker::Work, m_state) {}

BoundedWorker::~BoundedWorker() {
  bool busy = false;
  {
    std::lock_guard<std::mutex> hold(m_state->lock);
    m_state->stop = true;
    busy = m_state->started != m_state->finished;
  }
  m_state->changed.notify_all();
  if (busy) {
    m_worker.detach();
  } else {
    m_worker.join();
  }
}

std::string BoundedWorker::LimitText(std::chrono::milliseconds limit) {
  std::ostringstream text;
  text << static_cast<double>(limit.count()) / 1000.0 << " s";
  return text.str();
}

unsigned long BoundedWorker::Abandoned() { return g_abandoned.load(); }

BoundedWorker::EResult BoundedWorker::Run(std::function<void()> call) {
  const auto deadline = std::chrono::steady_clock::now() + m_limit;
  std::unique_lock<std::mutex> hold(m_state->lock);
  // One caller at a time hands over a call; the others queue within their
  // own bound.
  const bool turn = m_state->changed.wait_until(hold, deadline, [&] { return !m_state->turnTaken || m_state->abandoned; });
  if (m_state->abandoned) return EResult::kBusy;
  if (!turn) return EResult::kTimedOut;
  m_state->turnTaken = true;
  m_state->call = std::move(call);
  const unsigned long mine = m_state->started + 1;
  m_state->changed.notify_all();
  const bool done = m_state->changed.wait_until(hold, deadline, [&] { return m_state->finished >= mine; });
  m_state->turnTaken = false;
  m_state->changed.notify_all();
  if (done) return EResult::kDone;
  // The worker may not even have taken the call yet: then it never runs (and
  // what it owns goes after the lock is released). Whatever the worker is
  // busy with, this one's or a posted call, is abandoned.
  std::function<void()> dropped = std::move(m_state->call);
  m_state->call = nullptr;
  if (m_state->started != m_state->finished) {
    m_state->abandoned = true;
    ++g_abandoned;
  }
  hold.unlock();
  return EResult::kTimedOut;
}

bool BoundedWorker::Post(std::function<void()> call) {
  std::function<void()> dropped;
  std::lock_guard<std::mutex> hold(m_state->lock);
  if (m_state->abandoned || m_state->turnTaken || m_state->call || m_state->started != m_state->finished) {
    dropped = std::move(call);  // goes after the lock is released
    return false;
  }
  m_state->call = std::move(call);
  m_state->changed.notify_all();
  return true;
}

void BoundedWorker::Work(std::shared_ptr<SState> state) {
  std::unique_lock<std::mutex> hold(state->lock);
  for (;;) {
    state->changed.wait(hold, [&] { return state->stop || state->call; });
    if (!state->call) return;  // stopped with nothing to do
    std::function<void()> call = std::move(state->call);
    state->call = nullptr;
    ++state->started;
    hold.unlock();
    try {
      call();
      call = nullptr;  // what the call owns goes in this thread, still unbounded
    } catch (...) {  // calls report through what they own; nothing escapes
      call = nullptr;
    }
    hold.lock();
    ++state->finished;
    if (state->abandoned) {
      state->abandoned = false;
      --g_abandoned;
    }
    state->changed.notify_all();
  }
}
