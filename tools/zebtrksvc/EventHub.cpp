#include "tools/zebtrksvc/EventHub.h"

#include <algorithm>
#include <chrono>

namespace zebtrksvc {

uint32_t EventHub::Create(const void* owner) {
  std::lock_guard<std::mutex> hold(m_lock);
  // Skip ids in use (after a wrap) and the plug-in's "no queue" value.
  while (m_nextId == 0 || m_nextId == 0xFFFFFFFFu || m_queues.count(m_nextId) != 0) ++m_nextId;
  const uint32_t id = m_nextId++;
  auto queue = std::make_shared<Queue>();
  queue->owner = owner;
  m_queues.emplace(id, std::move(queue));
  return id;
}

void EventHub::CloseLocked(uint32_t id, Queue& queue) {
  queue.closed = true;
  m_closedIds.push_back(id);
  if (m_closedIds.size() > kRememberedClosed) m_closedIds.pop_front();
}

bool EventHub::Destroy(uint32_t id) {
  std::lock_guard<std::mutex> hold(m_lock);
  auto found = m_queues.find(id);
  if (found == m_queues.end()) return false;
  CloseLocked(id, *found->second);
  m_queues.erase(found);
  m_changed.notify_all();
  return true;
}

void EventHub::DestroyOwnedBy(const void* owner) {
  std::lock_guard<std::mutex> hold(m_lock);
  for (auto it = m_queues.begin(); it != m_queues.end();) {
    if (it->second->owner != owner) {
      ++it;
      continue;
    }
    CloseLocked(it->first, *it->second);
    it = m_queues.erase(it);
  }
  m_changed.notify_all();
}

EventHub::WaitResult EventHub::Wait(uint32_t id, uint32_t& type,
                                    const std::function<bool()>& abandoned) {
  std::unique_lock<std::mutex> hold(m_lock);
  auto found = m_queues.find(id);
  if (found == m_queues.end()) {
    const bool closed =
        m_shutdown || std::find(m_closedIds.begin(), m_closedIds.end(), id) != m_closedIds.end();
    return closed ? WaitResult::Closed : WaitResult::NoQueue;
  }
  // The queue stays alive for this reader even when Destroy removes it.
  std::shared_ptr<Queue> queue = found->second;
  ++m_waiting;
  struct Leave {
    size_t& count;
    ~Leave() { --count; }  // under the lock: every return holds it
  } leave{m_waiting};
  const auto interval = std::chrono::milliseconds(kAbandonCheckMs);
  auto nextCheck = std::chrono::steady_clock::now() + interval;
  for (;;) {
    if (queue->closed || m_shutdown) return WaitResult::Closed;
    if (!queue->events.empty()) {
      type = queue->events.front();
      queue->events.pop_front();
      return WaitResult::Event;
    }
    // Woken by other queues' events too: the check runs on its own clock.
    m_changed.wait_until(hold, nextCheck);
    if (!abandoned || std::chrono::steady_clock::now() < nextCheck) continue;
    nextCheck = std::chrono::steady_clock::now() + interval;
    // The test may look at a socket: not under the hub's lock.
    hold.unlock();
    const bool gone = abandoned();
    hold.lock();
    if (gone) return WaitResult::Abandoned;
  }
}

void EventHub::PostAll(uint32_t type) {
  std::lock_guard<std::mutex> hold(m_lock);
  for (auto& entry : m_queues) entry.second->events.push_back(type);
  m_changed.notify_all();
}

void EventHub::Shutdown() {
  std::lock_guard<std::mutex> hold(m_lock);
  m_shutdown = true;
  for (auto& entry : m_queues) entry.second->closed = true;
  m_changed.notify_all();
}

size_t EventHub::queueCount() const {
  std::lock_guard<std::mutex> hold(m_lock);
  return m_queues.size();
}

size_t EventHub::waiting() const {
  std::lock_guard<std::mutex> hold(m_lock);
  return m_waiting;
}

}  // namespace zebtrksvc
