// Shared pieces of the hardening tests: the resource accounting around a
// scenario and the bounded destruction of a file system. The movie drive that
// the scenarios play on the fake service is tests/support/FakeDrive.h.
//
// Threads: Scenario and DestroyWithin belong to the test's main thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/FakeDrive.h"
#include "tests/support/FakeService.h"
#include "tests/support/ResourceSnapshot.h"
#include "trk/CTrkInterface.h"

namespace hardening {

using Reply = FakeService::Reply;
using Request = FakeService::Request;
using namespace testsupport;  // FakeDrive, its ordinals, PatternByte, kPatience

// How long destroying a file system may take before the test calls it a hang.
// The file system gives a silent service a grace period of a few seconds.
constexpr std::chrono::seconds kExitLimit(10);

// What a scenario must give back: descriptors, /dev/shm entries and threads
// as they were when the object was made. Make it before the fake starts and
// call Leaks() after the file system and the fake are gone.
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

// Reads the movie file at `path` whole, in pieces of 1000 bytes, and counts
// the bytes that differ from the drive's pattern of movie `fileId` (frames of
// `frameBytes`); one more when the file does not open, is not `size` bytes
// long (any size but 0 when `size` is 0) or ends early.
long WrongBytes(zeb::trk::CTrkInterface& fs, const std::string& path, unsigned int fileId, size_t frameBytes,
                size_t size = 0);

// The names of a listing, in order.
std::vector<std::string> Names(const zeb::IFileSystem::CDirectoryListing& listing);

}  // namespace hardening
