// TrkProtocol: the constants that both ends of the movie service protocol must
// agree on: the service's socket name, the protocol version of the version
// check, and the command ordinals ("ord"). The client (CTrkClient) and the
// simulator (zebtrksvc) both include this header, so that the two sides cannot
// drift apart. Constants only; safe from any thread.
#pragma once

#include <cstdint>

namespace trkprotocol {

// The service's name; LocalSocket turns it into the path "/tmp/zebtrksvc".
constexpr const char* kServiceName = "zebtrksvc";

// The protocol version sent by the client and answered by the service.
constexpr uint64_t kVersion = 0;

// Command ordinals ("ord").
enum EOrdinal : unsigned int {
  kDetectDrive = 0,
  kListMovies = 1,
  kGetMovieInfo = 2,
  kGetMovieIndex = 3,
  kOpenMovie = 4,
  kCloseMovie = 5,
  kReadFrame = 6,
  kDeleteMovie = 7,
  kDeleteAllMovies = 8,
  kReadInfoFile = 9,
  kCreateEventQueue = 10,
  kDestroyEventQueue = 11,
  kReadEventQueue = 12,
};

}  // namespace trkprotocol
