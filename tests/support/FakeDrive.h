// FakeDrive: a movie drive played on a FakeService (drive query, movie list
// and descriptions, shared memory frames, the event queue, removal), whose
// answers a test can replace by faults. Used by the file system, movie file
// and hardening tests.
//
// Unlike zebtrksvc, which shares one segment between the openings of a movie
// on a connection, the fake gives every OpenMovie a segment of its own and
// writes each ReadFrame into every opening of the movie: files of one movie
// then see each other's frame requests, as they must be prepared to.
//
// Ownership: the drive owns the segments it made for OpenMovie and removes
// them when it is destroyed; it borrows the FakeService, which its
// destructor stops (the drive's handler runs on the fake's threads).
//
// Threads: every operation may be called from any thread; the handler runs
// on the fake's connection threads.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ipc/CSharedMemory.h"
#include "tests/support/FakeService.h"

namespace testsupport {

// Limit of every wait for something a test expects to happen; reaching it
// fails the test instead of hanging it (never a claim about speed).
constexpr std::chrono::seconds kPatience(20);

// Command ordinals.
enum EOrd : long long {
  kDetect = 0, kList = 1, kInfo = 2, kIndex = 3, kOpen = 4, kClose = 5, kFrame = 6, kDelete = 7, kReadInfo = 9,
  kCreateQueue = 10, kDestroyQueue = 11, kReadQueue = 12,
};

// The queue id the drive hands out.
constexpr unsigned int kQueueId = 7;

// Byte `offset` of frame `frame` of movie `fileId`, as the drive writes it.
unsigned char PatternByte(unsigned int fileId, unsigned long frame, size_t offset);

// Answers: the drive query ("detected" as set), the movie list and
// descriptions (an error past the list), OpenMovie (a new segment per
// opening), ReadFrame (an error for a frame past the movie), CloseMovie (the
// oldest opening of the movie), ReadInfoFile ("w=4"), DeleteMovie (the movie
// leaves the list), the event queue (a read waits for a posted event, the
// queue's destruction, answered type 0, or Close). Faults replace the answer
// to one ordinal, once or for good.
class FakeDrive {
 public:
  using Reply = FakeService::Reply;
  using Request = FakeService::Request;

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
  // The `key` parameter of every request of ordinal `ord` so far, in order.
  std::vector<long long> Sent(long long ord, const char* key = "fileId") const;
  // The ordinals of every command so far, in order.
  std::vector<long long> Ords() const;
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

}  // namespace testsupport
