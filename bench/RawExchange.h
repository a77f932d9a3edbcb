// RawExchange: a forked server process and the parent as its client, joined by
// a Unix stream socket, replaying a WirePattern with plain send and recv and
// nothing else: the ceiling for one request of our client to the simulator.
//
// When given a frame job, the server copies the next frame of a movie-sized
// source buffer into a shared memory segment before it answers, as the
// simulator does for ReadFrame; the caller copies the frame out afterwards.
// Neither process is pinned to a CPU: they run where the scheduler puts them,
// as the plug-in and the simulator do.
//
// Ownership: owns the socket, the child process (ended and reaped by Stop or
// the destructor) and the segment. Threads: the thread that made it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <vector>

#include "bench/WirePattern.h"
#include "ipc/CSharedMemory.h"

class RawExchange {
 public:
  // Starts the server. `frameSize` 0: no frame job. Otherwise the segment
  // holds one frame and the source `frames` frames. Success: true; failure
  // (socketpair, fork or the segment): false, nothing left running.
  bool Start(const WirePattern& pattern, size_t frameSize = 0, size_t frames = 0);
  // One request and its response. False when the server has gone.
  bool Exchange();
  // The frame segment's contents (valid after Exchange returned true).
  const void* frame() const { return m_segment.data(); }
  // Closes the socket, which ends the server, and reaps it.
  void Stop();
  ~RawExchange() { Stop(); }

 private:
  [[noreturn]] void Serve(int fd, size_t frameSize, size_t frames);

  WirePattern m_pattern;
  CSharedMemory m_segment;
  std::vector<unsigned char> m_buffer;
  std::vector<unsigned char> m_source;  // the movie the server copies from
  int m_fd = -1;
  pid_t m_child = -1;
};
