// Helpers shared by the file system tests: movie records, raw imager files in
// an emulator cache directory or on a drive, a file system whose movie cache a
// test fills directly (no service involved), and zebtrksvc in a child process.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <zeb/CLocalFileSystem.h>
#include <zeb/file/CRawImagerWriter.h>

#include "client/CTrkClient.h"
#include "tests/support/ScopedEnv.h"
#include "tests/support/TempDir.h"
#include "trk/CTrkInterface.h"
#include "trk/STrkInterfaceData.h"

namespace trktest {

inline STrkMovieInfo Movie(std::uint64_t number, const char* name, std::uint16_t width = 640,
                           std::uint16_t height = 480, std::uint64_t numFrames = 100, std::uint32_t rtcTime = 0,
                           std::uint64_t startTime = 0, std::uint64_t endTime = 0) {
  STrkMovieInfo movie;
  std::memset(&movie, 0, sizeof movie);
  std::strncpy(movie.name, name, sizeof movie.name - 1);
  movie.width = width;
  movie.height = height;
  movie.numFrames = numFrames;
  movie.number = number;
  movie.rtcTime = rtcTime;
  movie.startTime = startTime;
  movie.endTime = endTime;
  return movie;
}

// Property `name` of an entry.
inline std::string Prop(const zeb::IFileSystem::CDirectoryEntry& entry, const char* name) {
  return entry.properties.GetValue(name).c_str();
}

inline std::vector<std::string> Names(const zeb::IFileSystem::CDirectoryListing& listing) {
  std::vector<std::string> names;
  for (const auto& entry : listing.entries) names.push_back(entry.name.c_str());
  return names;
}

// A file system built without any service (emulator mode during
// construction), then switched to normal mode with a cache the test sets.
class CachedFileSystem {
 public:
  explicit CachedFileSystem(const std::vector<STrkMovieInfo>& movies) {
    {
      testsupport::ScopedEnv emulator("ZEBTRK_ENABLE_EMULATOR", "1");
      m_fs.reset(new zeb::trk::CTrkInterface);
    }
    m_fs->data()->emulator = false;
    for (const STrkMovieInfo& movie : movies) m_fs->data()->movies.Add(movie);
  }
  zeb::trk::CTrkInterface* operator->() { return m_fs.get(); }
  zeb::trk::CTrkInterface& operator*() { return *m_fs; }

 private:
  std::unique_ptr<zeb::trk::CTrkInterface> m_fs;
};

// Writes the raw imager pair `dat`/".info" beside it with `frames` frames of
// width x height: pixels 7, or from a random generator seeded with `seed`;
// with `firstTicks` non-zero the frames carry time stamps `periodTicks` apart.
inline bool WriteRaw(const std::string& dat, unsigned int width, unsigned int height, unsigned int frames,
                     long firstTicks = 0, long periodTicks = 0, unsigned int seed = 0) {
  zeb::file::SRawImagerInfo layout;
  layout.width = width;
  layout.height = height;
  layout.hasTiming = firstTicks != 0;
  layout.firstFrameTicks = firstTicks;
  layout.framePeriodTicks = periodTicks;
  zeb::file::CRawImagerWriter writer;
  if (!writer.Create(zeb::fileSystem(), dat.c_str(), layout)) return false;
  std::mt19937 random(seed);
  std::vector<unsigned short> pixels(width * height, 7);
  for (unsigned int i = 0; i < frames; ++i) {
    if (seed) {
      for (unsigned short& pixel : pixels) pixel = static_cast<unsigned short>(random());
    }
    if (!writer.PutFrame(pixels.data())) return false;
  }
  return writer.Finish();
}

// HOME pointing at a fresh directory that holds the cache directory, and
// emulator mode on, for the life of the object.
class EmulatorHome {
 public:
  EmulatorHome()
      : m_home("HOME", m_dir.path()),
        m_emulator("ZEBTRK_ENABLE_EMULATOR", "1"),
        m_cache(m_dir.path() + "/.cache/Ostrel Systems/TRK") {
    zeb::fileSystem()->MakeDir(m_cache.c_str(), true);
  }
  // Path of `name` in the cache directory.
  std::string operator/(const std::string& name) const { return m_cache + "/" + name; }
  const std::string& cache() const { return m_cache; }

  // WriteRaw of "<base>.dat" in the cache directory.
  bool WriteRaw(const std::string& base, unsigned int width, unsigned int height, unsigned int frames,
                long firstTicks = 0, long periodTicks = 0) const {
    return trktest::WriteRaw(*this / (base + ".dat"), width, height, frames, firstTicks, periodTicks);
  }

 private:
  testsupport::TempDir m_dir;
  testsupport::ScopedEnv m_home;
  testsupport::ScopedEnv m_emulator;
  std::string m_cache;
};

// zebtrksvc (the program `binary`) serving `drive` in a child process, its
// output discarded, until destroyed.
class ServiceProcess {
 public:
  ServiceProcess(const char* binary, const std::string& drive) : m_pid(::fork()) {
    if (m_pid != 0) return;
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, 1);
    ::dup2(null, 2);
    ::execl(binary, "zebtrksvc", "--drive", drive.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ~ServiceProcess() { Stop(SIGTERM); }
  // Ends the service with `signal` and waits for it.
  void Stop(int signal) {
    if (m_pid <= 0) return;
    ::kill(m_pid, signal);
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    m_pid = 0;
  }
  ServiceProcess(const ServiceProcess&) = delete;
  ServiceProcess& operator=(const ServiceProcess&) = delete;

  // Waits until the service lists `count` movies; false after 20 s.
  bool WaitUntilServing(unsigned int count) const {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (m_pid > 0 && std::chrono::steady_clock::now() < limit) {
      CTrkClient probe;
      unsigned int listed = 0;
      if (probe.Connect() && probe.ListMovies(listed) && listed == count) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
  }

 private:
  pid_t m_pid;
};

}  // namespace trktest
