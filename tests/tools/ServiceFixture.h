// ServiceFixture: a real zebtrksvc started in a child process on a demo drive
// of three movies of twelve frames in a temporary folder, stopped with
// SIGTERM after the test (which must then exit with 0). Tests are skipped
// when another service already answers on /tmp/zebtrksvc.
//
// With it, helpers for looking at what the service leaves in /tmp and
// /dev/shm and for comparing frames. One test thread at a time.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "ipc/CSharedMemory.h"
#include "msgpack/TinyMsgPackObject.h"
#include "tests/support/TempDir.h"
#include "tests/tools/ChildProcess.h"
#include "tools/zebtrksvc/DemoDrive.h"

namespace tooltest {

enum : uint64_t {
  kDetectDrive, kListMovies, kGetMovieInfo, kGetMovieIndex, kOpenMovie, kCloseMovie, kReadFrame,
  kDeleteMovie, kDeleteAllMovies, kReadInfoFile, kCreateEventQueue, kDestroyEventQueue, kReadEventQueue,
};

constexpr unsigned kMovies = 3;
constexpr uint32_t kFrames = 12;
constexpr uint64_t kSeed = 7;

// Polls `condition` every 10 ms; false when it is still false after
// `timeoutMs` (an upper bound for waiting, not a measurement).
bool WaitUntil(const std::function<bool()>& condition, int timeoutMs = 20000);
// True when something accepts on /tmp/zebtrksvc.
bool ServiceAnswers();
// The service's segments in /dev/shm ("zebtrksvc-...").
std::set<std::string> Segments();
bool PathExists(const std::string& path);
// `size` bytes at `offset` of a file; empty when they cannot be read whole.
std::string FileBytes(const std::string& path, uint64_t offset, size_t size);
// The positive integer under `key` of a map.
uint64_t Field(const TinyMsgPackObject& map, const char* key);
// A segment starts with `expected`; a failure names the first differing
// offset (a whole-frame string diff would take minutes to print).
::testing::AssertionResult SegmentHolds(const CSharedMemory& segment, const std::string& expected);

class ServiceFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts a service on `drive` (output in the scratch folder under `name`)
  // and waits until it accepts. False when it ended instead.
  bool StartService(ChildProcess& child, const std::string& drive, const std::string& name = "service");
  // The data file of movie `index` of the demo drive.
  std::string DataPath(unsigned index) const;
  uint64_t FrameBytes(unsigned index) const;

  testsupport::TempDir m_scratch;
  std::string m_drive;
  std::vector<zebtrksvc::MovieSpec> m_plan;  // the demo drive's movies, in list order
  ChildProcess m_service;
  bool m_started = false;
};

}  // namespace tooltest
