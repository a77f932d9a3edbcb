// EventHub: the service's event queues. A client creates a queue, reads its
// events one at a time (a read waits until there is one) and destroys it.
//
// Event types: 1 the movie list changed (posted to every queue), 0 the queue
// is closed (answered to a read pending on a queue that is destroyed, and to
// every read once the service stops). Events are kept per queue in order and
// none is dropped; a queue holds them until they are read or the queue is
// destroyed. A queue belongs to the connection that created it and is
// destroyed with that connection, but any connection may read or destroy it
// by its id.
//
// Queue ids start at 1 and are never 0xFFFFFFFF, which the plug-in keeps for
// "no queue". The ids of the last kRememberedClosed destroyed queues are
// remembered: a read that reaches such a queue after it was destroyed (the
// plug-in destroys its queue from another connection, so the read may come
// second) is answered "closed" like a pending one; older ids are unknown.
//
// Threads: every operation may be called from any thread; Wait blocks only
// its caller.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

namespace zebtrksvc {

class EventHub {
 public:
  enum class WaitResult {
    Event,      // `type` holds the next event of the queue
    Closed,     // the queue was destroyed, or the service stops
    NoQueue,    // no queue has that id
    Abandoned,  // the caller's abandon test said so
  };

  // How often a waiting reader runs its abandon test.
  static constexpr int kAbandonCheckMs = 200;
  // How many destroyed queue ids still answer Closed.
  static constexpr size_t kRememberedClosed = 1024;

  EventHub() = default;
  EventHub(const EventHub&) = delete;
  EventHub& operator=(const EventHub&) = delete;

  // Makes a queue owned by `owner` and returns its id.
  uint32_t Create(const void* owner);
  // Destroys the queue: waiting readers get Closed. False when there is no
  // such queue.
  bool Destroy(uint32_t id);
  // Destroys every queue owned by `owner`.
  void DestroyOwnedBy(const void* owner);

  // Takes the queue's next event, waiting for one. Every kAbandonCheckMs the
  // wait calls `abandoned` (may be empty) and gives up with Abandoned when it
  // returns true. A destroyed queue ends the wait with Closed even when it
  // still held events, and a recently destroyed one answers Closed at once.
  WaitResult Wait(uint32_t id, uint32_t& type, const std::function<bool()>& abandoned);

  // Appends an event of `type` to every queue.
  void PostAll(uint32_t type);

  // Closes the hub for good: waits in progress and all later ones end with
  // Closed.
  void Shutdown();

  // Number of queues that exist, and of waits in progress (for diagnostics
  // and tests).
  size_t queueCount() const;
  size_t waiting() const;

 private:
  struct Queue {
    const void* owner = nullptr;
    std::deque<uint32_t> events;
    bool closed = false;
  };

  mutable std::mutex m_lock;
  std::condition_variable m_changed;  // any queue got an event or closed
  std::map<uint32_t, std::shared_ptr<Queue>> m_queues;
  // Marks `queue` (with id `id`) closed, forgets it and remembers its id.
  void CloseLocked(uint32_t id, Queue& queue);

  uint32_t m_nextId = 1;
  bool m_shutdown = false;
  size_t m_waiting = 0;
  std::deque<uint32_t> m_closedIds;  // most recently destroyed last
};

}  // namespace zebtrksvc
