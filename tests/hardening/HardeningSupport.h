// Shared pieces of the hardening tests: a movie drive played on the fake
// service (movie list, event queue, shared memory frames) whose answers a test
// can replace by faults, the resource accounting around a scenario, and the
// bounded destruction of a file system.
//
// Ownership: FakeDrive owns the segments it made for OpenMovie and removes
// them when it is destroyed; it borrows the FakeService, which it stops first
// (its handler runs on the fake's threads). Scenario borrows nothing.
//
// Threads: FakeDrive's operations may be called from any thread; its handler
// runs on the fake's connection threads. Scenario and DestroyWithin belong to
// the test's main thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ipc/CSharedMemory.h"
#include "tests/support/FakeService.h"
#include "tests/support/ResourceSnapshot.h"
#include "tests/support/ScopedEnv.h"
#include "trk/CTrkInterface.h"

namespace hardening {

using Reply = FakeService::Reply;
using Request = FakeService::Request;

// Limit of every wait for something a test expects to happen; reaching it
// fails the test instead of hanging it (never a claim about speed).
constexpr std::chrono::seconds kPatience(20);
// How long destroying a file system may take before the test calls it a hang.
// The file system gives a silent service a grace period of a few seconds.
constexpr std::chrono::seconds kExitLimit(10);

// Command ordinals.
enum EOrd : long long {
  kDetect = 0,
  kList = 1,
  kInfo = 2,
  kIndex = 3,
  kOpen = 4,
  kClose = 5,
  kFrame = 6,
  kDelete = 7,
  kReadInfo = 9,
  kCreateQueue = 10,
  kDestroyQueue = 11,
  kReadQueue = 12,
};

// The queue id the drive hands out.
constexpr unsigned int kQueueId = 7;

// Byte `offset` of frame `frame` of movie `fileId`, as the drive writes it.
unsigned char PatternByte(unsigned int fileId, unsigned long frame, size_t offset);

// A movie drive behind a FakeService. Answers the drive query, the movie
// list and descriptions, OpenMovie (a new one-frame segment per opening),
// ReadFrame (the frame written into every opening of the movie), CloseMovie
// (the oldest opening), the event queue (a read waits for a posted event, the
// queue's destruction, answered type 0, or Close) and DeleteMovie. Faults
// replace the answer to one ordinal, once or for good.
class FakeDrive {
 public:
  struct Movie {
    unsigned long number;
    std::string name;
    unsigned short width;
    unsigned short height;
    unsigned long frames;
    size_t segmentBytes = 0;  // 0: one frame
  };

  explicit FakeDrive(FakeService& fake);
  // Close(), stops the fake, removes every segment the drive made.
  ~FakeDrive();
  FakeDrive(const FakeDrive&) = delete;
  FakeDrive& operator=(const FakeDrive&) = delete;

  void SetMovies(std::vector<Movie> movies);
  void SetDrive(bool present);
  // When false, ReadFrame answers without writing the frame.
  void SetWriteFrames(bool write);

  // The next request of ordinal `ord` gets `reply` instead of its answer
  // (faults queue up in order).
  void FaultOnce(long long ord, Reply reply);
  // Every request of ordinal `ord` gets `reply`; nullopt ends that.
  void FaultAlways(long long ord, std::optional<Reply> reply);

  // Delivers `count` events of `type` to the pending and following reads.
  void Post(unsigned int type, unsigned int count = 1);
  // The service going away: every pending and later event read closes its
  // connection instead of answering.
  void Close();

  // Segments that the drive made and has not yet released.
  size_t OpenSegments() const;
  // Requests of ordinal `ord` received so far.
  long Count(long long ord) const;
  // Waits until `n` requests of ordinal `ord` have arrived.
  bool WaitFor(long long ord, long n) const;

  // "/<number>-<name>" of movie `i`.
  std::string Path(size_t i) const;

 private:
  Reply Answer(const Request& request);
  Reply OpenMovie(unsigned int fileId);
  Reply ReadFrame(unsigned int fileId, unsigned long frame);
  Reply CloseMovie(unsigned int fileId);
  Reply ReadEvent(std::unique_lock<std::mutex>& guard);
  static TinyMsgPackObject Info(const Movie& movie);

  FakeService& m_fake;
  mutable std::mutex m_mutex;
  std::condition_variable m_changed;
  std::vector<Movie> m_movies;
  bool m_drive = true;
  bool m_writeFrames = true;
  std::map<long long, std::deque<Reply>> m_once;
  std::map<long long, Reply> m_always;
  std::deque<unsigned int> m_events;
  bool m_destroyed = false;
  bool m_closed = false;
  struct Opening {
    unsigned int fileId;
    CSharedMemory segment;
  };
  std::vector<std::unique_ptr<Opening>> m_openings;
};

// What a scenario must give back: descriptors, /dev/shm entries and threads
// as they were when the object was made. Make it before the fake starts and
// call Check() after the file system and the fake are gone.
class Scenario {
 public:
  Scenario();
  // Empty when everything was given back; otherwise what was not.
  std::string Leaks() const;

 private:
  testsupport::ResourceSnapshot m_resources;
  size_t m_threads;
};

// Builds a file system in normal mode (ZEBTRK_ENABLE_EMULATOR unset for the
// construction).
std::unique_ptr<zeb::trk::CTrkInterface> MakeFileSystem();

// Destroys `fs` on a helper thread and waits for it at most `limit`. A
// destructor that does not return is a hang the test program cannot recover
// from (the thread holds the object): the test is failed and the program
// ends at once with status 1, instead of waiting for the suite's time-out.
void DestroyWithin(std::unique_ptr<zeb::trk::CTrkInterface>& fs, std::chrono::seconds limit = kExitLimit);

// Waits until the monitoring thread of `fs` has ended (it may still be
// joinable); false when it runs on past the test's patience.
bool MonitoringEnded(zeb::trk::CTrkInterface& fs);

// The names of a listing, in order.
std::vector<std::string> Names(const zeb::IFileSystem::CDirectoryListing& listing);

}  // namespace hardening
