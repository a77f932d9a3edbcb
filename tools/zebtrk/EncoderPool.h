// EncoderPool: encodes frames on a few threads and hands the results back in
// the order the frames were submitted, so that an export writes its files in
// frame order while every core compresses.
//
// Memory is bounded: at most `capacity` jobs (their frames and results) are
// held at a time; the caller takes the oldest result before submitting more
// (full()). A job's exception (a CliError) is thrown again by Take, on the
// caller's thread.
//
// Ownership: owns its threads; the destructor discards the jobs not started,
// waits for the running ones and joins. Submit and Take from one thread.
#pragma once

#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class EncoderPool {
 public:
  // A job: the encoded files of one frame, in a fixed order.
  typedef std::function<std::vector<std::string>()> Job;

  // `threads` 0: one per core. `capacity` 0: twice the threads.
  explicit EncoderPool(unsigned int threads = 0, size_t capacity = 0);
  ~EncoderPool();
  EncoderPool(const EncoderPool&) = delete;
  EncoderPool& operator=(const EncoderPool&) = delete;

  void Submit(Job job);
  // True when `capacity` jobs are held: Take before the next Submit.
  bool full() const;
  // True when no job is held.
  bool empty() const;
  // True when the oldest job has finished.
  bool ready() const;
  // Waits for the oldest job and returns its result (or throws its error).
  std::vector<std::string> Take();

  unsigned int threads() const { return static_cast<unsigned int>(m_threads.size()); }

 private:
  struct SSlot {
    Job job;
    bool started = false;
    bool done = false;
    std::vector<std::string> result;
    std::exception_ptr failure;
  };

  void Loop();
  // Ends the threads (jobs not started are dropped) and joins them.
  void Stop();

  size_t m_capacity;
  mutable std::mutex m_lock;  // guards m_slots, m_quit
  std::condition_variable m_work;
  std::condition_variable m_finished;
  std::deque<SSlot> m_slots;  // oldest first; deque keeps references stable on push_back/pop_front
  bool m_quit = false;
  std::vector<std::thread> m_threads;
};
