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
// Next to each row, the floor that FUSE itself sets on this machine: the same
// reads from a minimal FUSE file system that this program mounts and that
// serves the same number of bytes from memory (same mount settings: no page
// cache kept across opens, read-ahead window raised to 1 MiB where allowed).
//
// Prints the rows itself (bench/run shows them under the main table).
#define FUSE_USE_VERSION 312
#include <fcntl.h>
#include <fuse.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
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

// The floor's file system: one file, "/movie", of `g_floorBytes` bytes.
std::vector<char> g_floorData;

int FloorAttributes(const char* path, struct stat* st, fuse_file_info*) {
  memset(st, 0, sizeof(*st));
  if (std::string(path) == "/") {
    st->st_mode = S_IFDIR | 0555;
    st->st_nlink = 2;
    return 0;
  }
  if (std::string(path) != "/movie") return -ENOENT;
  st->st_mode = S_IFREG | 0444;
  st->st_nlink = 1;
  st->st_size = off_t(g_floorData.size());
  return 0;
}

int FloorRead(const char*, char* out, size_t size, off_t offset, fuse_file_info*) {
  if (size_t(offset) >= g_floorData.size()) return 0;
  const size_t n = std::min(size, g_floorData.size() - size_t(offset));
  std::memcpy(out, g_floorData.data() + offset, n);
  return int(n);
}

void* FloorInit(fuse_conn_info*, fuse_config* config) {
  config->entry_timeout = config->attr_timeout = config->negative_timeout = 0;
  config->kernel_cache = 0;
  return nullptr;
}

// As `zebtrk mount` does: the mount's read-ahead window to 1 MiB (root only).
void RaiseReadAhead(const std::string& mountPoint) {
  std::ifstream mounts("/proc/self/mountinfo");
  std::string line, id, parent, device, root, point;
  while (std::getline(mounts, line)) {
    std::istringstream fields(line);
    if (fields >> id >> parent >> device >> root >> point && point == mountPoint) {
      std::ofstream("/sys/class/bdi/" + device + "/read_ahead_kb") << "1024\n";
    }
  }
}

// A mounted floor file system for the life of the object.
class FloorMount {
 public:
  explicit FloorMount(size_t bytes) {
    g_floorData.assign(bytes, 0);
    for (size_t i = 0; i < bytes; ++i) g_floorData[i] = char(i * 7);
    char folder[] = "/tmp/zebtrk-bench-floor.XXXXXX";
    if (!mkdtemp(folder)) return;
    m_folder = folder;
    fuse_operations ops;
    std::memset(&ops, 0, sizeof(ops));
    ops.getattr = FloorAttributes;
    ops.read = FloorRead;
    ops.init = FloorInit;
    const char* argv[] = {"zebtrk-bench-floor", "-o", "ro,fsname=zebtrk-bench-floor"};
    fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(argv));
    m_fuse = fuse_new(&args, &ops, sizeof(ops), nullptr);
    fuse_opt_free_args(&args);
    if (!m_fuse || fuse_mount(m_fuse, m_folder.c_str()) != 0) return;
    m_mounted = true;
    RaiseReadAhead(m_folder);
    m_loop = std::thread([this] {
      fuse_loop_config* config = fuse_loop_cfg_create();
      fuse_loop_mt(m_fuse, config);
      fuse_loop_cfg_destroy(config);
    });
  }
  ~FloorMount() {
    if (m_mounted) {
      fuse_exit(m_fuse);
      fuse_unmount(m_fuse);
      m_loop.join();
    }
    if (m_fuse) fuse_destroy(m_fuse);
    if (!m_folder.empty()) rmdir(m_folder.c_str());
  }
  FloorMount(const FloorMount&) = delete;
  FloorMount& operator=(const FloorMount&) = delete;

  bool mounted() const { return m_mounted; }
  std::string file() const { return m_folder + "/movie"; }

 private:
  std::string m_folder;
  fuse* m_fuse = nullptr;
  bool m_mounted = false;
  std::thread m_loop;
};

// A pass of frame-sized read() calls through the file at `path`.
bool ReadPass(double minSeconds, const ProcessCpu& mount, const ProcessCpu& service, const std::string& path,
              std::vector<char>& buffer, SPass& pass) {
  int fd = -1;
  const bool ok = Pass(
      minSeconds, mount, service,
      [&] {
        if (fd >= 0) close(fd);
        fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
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
  return ok;
}

void PrintRow(const FrameSize& size, const SSide& mount, const SSide& direct, const SSide& floor) {
  const double ratio = Median(mount.fps) / Median(direct.fps);
  std::printf("%-44s %-24s %-34s %-22s %.2f\n", ("read() of NAME.raw through the mount " + size.label()).c_str(),
              (std::to_string(long(Median(mount.fps))) + " frames/s").c_str(), "IFile::Read in-process, same movie",
              (std::to_string(long(Median(direct.fps))) + " frames/s").c_str(), ratio);
  std::printf("  CPU per frame, mount: reader %.0f us, mount process %.0f us, simulator %.0f us;"
              " direct: plug-in %.0f us, simulator %.0f us\n",
              Median(mount.ownUs), Median(mount.mountUs), Median(mount.serviceUs), Median(direct.ownUs),
              Median(direct.serviceUs));
  if (!floor.fps.empty()) {
    std::printf("  FUSE floor (the same reads from a minimal FUSE file system serving memory): %ld frames/s, %.2f of"
                " direct; the mount reaches %.2f of the floor\n",
                long(Median(floor.fps)), Median(floor.fps) / Median(direct.fps), Median(mount.fps) / Median(floor.fps));
  }
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
    std::unique_ptr<FloorMount> floorMount = std::make_unique<FloorMount>(size.bytes() * bench::MovieFrames());
    SSide mount, direct, floor;
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

      ok = ReadPass(minSeconds, mountCpu, serviceCpu, mountPoint + "/" + name + ".raw", buffer, pass);
      if (ok) mount.Add(pass);
      if (ok && floorMount && floorMount->mounted() &&
          ReadPass(minSeconds, ProcessCpu(0), ProcessCpu(0), floorMount->file(), buffer, pass)) {
        floor.Add(pass);
      }
    }
    if (!ok) {
      std::printf("%-44s a read failed\n", label.c_str());
      ++failures;
      continue;
    }
    PrintRow(size, mount, direct, floor);
  }
  return failures == 0 ? 0 : 1;
}
