// zebtrk_bench_mount: sequential read() of NAME.raw through a `zebtrk mount`
// folder against IFile::Read of the same movie through the plug-in in this
// process, both in the same run, for 640x512 and 1280x1024 frames.
//
//   zebtrk_bench_mount MOUNTPOINT MOUNT_PID
//
// Each repetition reads the whole movie once each way, frame-sized reads in
// both (read(2) of one frame; IFile::Read of one frame), alternating, until
// ZEBTRK_BENCH_MIN_TIME seconds per side have passed; the rows show the
// medians of ZEBTRK_BENCH_REPETITIONS repetitions. Every mount pass opens the
// file again, and the mount drops a file's page cache at each open, so every
// pass goes through the mount process. The CPU columns say where the time of
// one frame goes: this process, the mount process (MOUNT_PID) and the
// simulator (ZEBTRK_BENCH_SERVICE_PID).
//
// Prints the rows itself (bench/run shows them under the main table).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <zeb/IFile.h>
#include <zeb/IFileSystem.h>
#include <zeb/TSharedPtr.h>

#include "bench/BenchConfig.h"
#include "bench/ProcessCpu.h"
#include "trk/CTrkInterface.h"

namespace {

using bench::FrameSize;
using Clock = std::chrono::steady_clock;

// One pass's figures per frame.
struct SPass {
  double seconds = 0;
  double frames = 0;
  double ownCpu = 0, mountCpu = 0, serviceCpu = 0;  // seconds
};

struct SSide {
  std::vector<double> fps, ownUs, mountUs, serviceUs;
  void Add(const SPass& pass) {
    fps.push_back(pass.frames / pass.seconds);
    ownUs.push_back(pass.ownCpu * 1e6 / pass.frames);
    mountUs.push_back(pass.mountCpu * 1e6 / pass.frames);
    serviceUs.push_back(pass.serviceCpu * 1e6 / pass.frames);
  }
};

double Median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

double EnvNumber(const char* name, double fallback) {
  const char* text = std::getenv(name);
  return text && *text ? std::atof(text) : fallback;
}

// The name of the first listed movie of `size`; empty when there is none.
std::string FindMovie(FrameSize size) {
  zeb::IFileSystem::CDirectoryListing listing = zeb::trk::instance()->GetDirectoryListing("/", "");
  for (unsigned i = 0; i < listing.entries.size(); ++i) {
    const zeb::IFileSystem::CDirectoryEntry& entry = listing.entries[i];
    if (std::to_string(size.width) == entry.properties.GetValue("width").c_str() &&
        std::to_string(size.height) == entry.properties.GetValue("height").c_str()) {
      return entry.name.c_str();
    }
  }
  return std::string();
}

// Reads with `readFrame` until it returns false, for at least `minSeconds`.
template <typename Open, typename ReadFrame>
bool Pass(double minSeconds, const ProcessCpu& mount, const ProcessCpu& service, Open open, ReadFrame readFrame,
          SPass& pass) {
  pass = SPass();
  const double own0 = ProcessCpu::OwnSeconds(), mount0 = mount.Seconds(), service0 = service.Seconds();
  const Clock::time_point start = Clock::now();
  do {
    if (!open()) return false;
    unsigned long frames = 0;
    while (readFrame()) ++frames;
    if (frames == 0) return false;
    pass.frames += double(frames);
    pass.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  } while (pass.seconds < minSeconds);
  pass.ownCpu = ProcessCpu::OwnSeconds() - own0;
  pass.mountCpu = mount.Seconds() - mount0;
  pass.serviceCpu = service.Seconds() - service0;
  return true;
}

void PrintRow(const FrameSize& size, const SSide& mount, const SSide& direct) {
  const double ratio = Median(mount.fps) / Median(direct.fps);
  std::printf("%-44s %-24s %-34s %-22s %.2f\n", ("read() of NAME.raw through the mount " + size.label()).c_str(),
              (std::to_string(long(Median(mount.fps))) + " frames/s").c_str(), "IFile::Read in-process, same movie",
              (std::to_string(long(Median(direct.fps))) + " frames/s").c_str(), ratio);
  std::printf("  CPU per frame, mount: reader %.0f us, mount process %.0f us, simulator %.0f us;"
              " direct: plug-in %.0f us, simulator %.0f us\n",
              Median(mount.ownUs), Median(mount.mountUs), Median(mount.serviceUs), Median(direct.ownUs),
              Median(direct.serviceUs));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: zebtrk_bench_mount MOUNTPOINT MOUNT_PID\n");
    return 2;
  }
  const std::string mountPoint = argv[1];
  const ProcessCpu mountCpu(static_cast<pid_t>(std::atol(argv[2])));
  const ProcessCpu serviceCpu = ProcessCpu::Service();
  const double minSeconds = EnvNumber("ZEBTRK_BENCH_MIN_TIME", 0.2);
  const int repetitions = std::max(1, int(EnvNumber("ZEBTRK_BENCH_REPETITIONS", 5)));

  std::printf("\n%-44s %-24s %-34s %-22s %s\n", "Mount (zebtrk mount)", "value", "reference", "reference value",
              "ratio");
  int failures = 0;
  for (const FrameSize size : {FrameSize{640, 512}, FrameSize{1280, 1024}}) {
    const std::string name = FindMovie(size);
    const std::string label = "read() of NAME.raw through the mount " + size.label();
    if (name.empty()) {
      std::printf("%-44s no movie of this size on the drive\n", label.c_str());
      ++failures;
      continue;
    }
    std::vector<char> buffer(size.bytes());
    SSide mount, direct;
    bool ok = true;
    for (int r = 0; r < repetitions && ok; ++r) {
      SPass pass;
      zeb::TSharedPtr<zeb::IFile> file;
      ok = Pass(
          minSeconds, mountCpu, serviceCpu,
          [&] {
            file = zeb::trk::instance()->OpenFile(("/" + name).c_str(), zeb::IFile::kModeRead);
            return file && file->GetSize() > 0;
          },
          [&] { return file->Read(buffer.data(), unsigned(buffer.size())) == buffer.size(); }, pass);
      file = zeb::TSharedPtr<zeb::IFile>();
      if (!ok) break;
      direct.Add(pass);

      int fd = -1;
      ok = Pass(
          minSeconds, mountCpu, serviceCpu,
          [&] {
            if (fd >= 0) close(fd);
            fd = open((mountPoint + "/" + name + ".raw").c_str(), O_RDONLY | O_CLOEXEC);
            return fd >= 0;
          },
          [&] {
            size_t got = 0;
            while (got < buffer.size()) {
              const ssize_t n = read(fd, buffer.data() + got, buffer.size() - got);
              if (n <= 0) return false;
              got += size_t(n);
            }
            return true;
          },
          pass);
      if (fd >= 0) close(fd);
      if (ok) mount.Add(pass);
    }
    if (!ok) {
      std::printf("%-44s a read failed\n", label.c_str());
      ++failures;
      continue;
    }
    PrintRow(size, mount, direct);
  }
  return failures == 0 ? 0 : 1;
}
