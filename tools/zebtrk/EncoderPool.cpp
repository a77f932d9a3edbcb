#include "tools/zebtrk/EncoderPool.h"

#include <algorithm>

EncoderPool::EncoderPool(unsigned int threads, size_t capacity) {
  if (threads == 0) threads = std::max(1u, std::min(16u, std::thread::hardware_concurrency()));
  m_capacity = capacity == 0 ? 2 * threads : capacity;
  try {
    for (unsigned int i = 0; i < threads; ++i) m_threads.emplace_back(&EncoderPool::Loop, this);
  } catch (...) {
    Stop();
    throw;
  }
}

EncoderPool::~EncoderPool() { Stop(); }

void EncoderPool::Stop() {
  {
    std::lock_guard<std::mutex> guard(m_lock);
    m_quit = true;
  }
  m_work.notify_all();
  for (std::thread& thread : m_threads) {
    if (thread.joinable()) thread.join();
  }
  m_threads.clear();
}

void EncoderPool::Loop() {
  std::unique_lock<std::mutex> guard(m_lock);
  for (;;) {
    auto next = m_slots.end();
    m_work.wait(guard, [&] {
      next = std::find_if(m_slots.begin(), m_slots.end(), [](const SSlot& slot) { return !slot.started; });
      return m_quit || next != m_slots.end();
    });
    if (m_quit) return;
    SSlot& slot = *next;
    slot.started = true;
    Job job = std::move(slot.job);
    guard.unlock();
    std::vector<std::string> result;
    std::exception_ptr failure;
    try {
      result = job();
    } catch (...) {
      failure = std::current_exception();
    }
    guard.lock();
    slot.result = std::move(result);
    slot.failure = failure;
    slot.done = true;
    m_finished.notify_all();
  }
}

void EncoderPool::Submit(Job job) {
  {
    std::lock_guard<std::mutex> guard(m_lock);
    m_slots.emplace_back();
    m_slots.back().job = std::move(job);
  }
  m_work.notify_one();
}

bool EncoderPool::full() const {
  std::lock_guard<std::mutex> guard(m_lock);
  return m_slots.size() >= m_capacity;
}

bool EncoderPool::empty() const {
  std::lock_guard<std::mutex> guard(m_lock);
  return m_slots.empty();
}

bool EncoderPool::ready() const {
  std::lock_guard<std::mutex> guard(m_lock);
  return !m_slots.empty() && m_slots.front().done;
}

std::vector<std::string> EncoderPool::Take() {
  std::unique_lock<std::mutex> guard(m_lock);
  m_finished.wait(guard, [&] { return m_slots.front().done; });
  SSlot slot = std::move(m_slots.front());
  m_slots.pop_front();
  guard.unlock();
  if (slot.failure) std::rethrow_exception(slot.failure);
  return std::move(slot.result);
}
