// The plug-in against the simulator: frame reads through the "trk:" file
// system and the DetectDrive round trip, each registered right next to its
// ceilings (Ceilings.h) so that both run under the same conditions.
//
//  Trk/FrameRead/Whole/WxH      one IFile::Read of a whole frame per
//                               iteration, sequentially through the movie.
//  Trk/FrameRead/Piece64K/WxH   one 64 KiB IFile::Read per iteration.
//  Trk/DetectDrive              one CTrkClient::DetectDrive round trip.
//
// The movies are those bench/run generates: one per frame size, found in the
// root listing by their "width" and "height" properties. Counters: "bytes" is
// the bytes of one iteration, "frame_bytes" the frame size; "service_cpu_ns"
// and "plugin_cpu_ns" are the CPU time per frame of the simulator (from
// /proc/<pid>/stat, pid in ZEBTRK_BENCH_SERVICE_PID) and of this process.
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <zeb/IFile.h>
#include <zeb/IFileSystem.h>
#include <zeb/TSharedPtr.h>

#include "bench/BenchConfig.h"
#include "bench/Ceilings.h"
#include "bench/ProcessCpu.h"
#include "client/CTrkClient.h"
#include "trk/CTrkInterface.h"

namespace {

using bench::FrameSize;

// The path of the first listed movie of `size`; empty when there is none.
zeb::CString FindMovie(FrameSize size) {
  zeb::trk::CTrkInterface* fs = zeb::trk::instance();
  zeb::IFileSystem::CDirectoryListing listing = fs->GetDirectoryListing("/", "");
  std::string width = std::to_string(size.width), height = std::to_string(size.height);
  for (unsigned i = 0; i < listing.entries.size(); ++i) {
    const zeb::IFileSystem::CDirectoryEntry& entry = listing.entries[i];
    if (width == entry.properties.GetValue("width").c_str() && height == entry.properties.GetValue("height").c_str()) {
      return entry.path;
    }
  }
  return zeb::CString();
}

// Reads the movie at `path` sequentially, `piece` bytes per iteration,
// rewinding at its end.
void FrameRead(benchmark::State& state, FrameSize size, size_t piece) {
  zeb::CString path = FindMovie(size);
  if (path.empty()) {
    state.SkipWithError("no movie of this frame size on the drive (is the simulator of bench/run running?)");
    return;
  }
  zeb::TSharedPtr<zeb::IFile> file = zeb::trk::instance()->OpenFile(path, zeb::IFile::kModeRead);
  if (!file || file->GetSize() <= 0) {
    state.SkipWithError("the movie does not open");
    return;
  }
  std::vector<unsigned char> buffer(piece);
  ProcessCpu service = ProcessCpu::Service();
  double serviceBefore = service.Seconds(), ownBefore = ProcessCpu::OwnSeconds();
  size_t total = 0;
  for (auto _ : state) {
    unsigned n = file->Read(buffer.data(), unsigned(piece));
    if (n < piece) {
      // The end of the movie: rewind (not counted as a frame of its own).
      file->Seek(0, zeb::IFile::kSeekBegin);
      if (n == 0) n = file->Read(buffer.data(), unsigned(piece));
      if (n == 0) {
        state.SkipWithError("a read failed");
        break;
      }
    }
    total += n;
    benchmark::DoNotOptimize(buffer.data());
  }
  double frames = double(total) / double(size.bytes());
  double serviceAfter = service.Seconds(), ownAfter = ProcessCpu::OwnSeconds();
  state.SetBytesProcessed(int64_t(total));
  state.counters["bytes"] = double(piece);
  state.counters["frame_bytes"] = double(size.bytes());
  if (frames > 0 && serviceBefore >= 0 && serviceAfter >= 0) {
    state.counters["service_cpu_ns"] = (serviceAfter - serviceBefore) * 1e9 / frames;
  }
  if (frames > 0) state.counters["plugin_cpu_ns"] = (ownAfter - ownBefore) * 1e9 / frames;
}

void DetectDrive(benchmark::State& state) {
  CTrkClient client;
  if (!client.Connect() || !client.DetectDrive()) {
    state.SkipWithError("the simulator does not answer, or reports no drive");
    return;
  }
  for (auto _ : state) {
    if (!client.DetectDrive()) {
      state.SkipWithError("DetectDrive failed");
      break;
    }
  }
}

void Register() {
  for (FrameSize size : bench::kFrameSizes) {
    benchmark::RegisterBenchmark(("Ceiling/ShmFrameCopy/" + size.label()).c_str(), bench::ShmFrameCopy, size);
    benchmark::RegisterBenchmark(("Ceiling/RawFrameExchange/" + size.label()).c_str(), bench::RawFrameExchange, size)
        ->UseRealTime();
    for (size_t piece : {size.bytes(), size_t(65536)}) {
      std::string name = std::string("Trk/FrameRead/") + (piece == 65536 ? "Piece64K/" : "Whole/") + size.label();
      benchmark::internal::Benchmark* b = benchmark::RegisterBenchmark(name.c_str(), FrameRead, size, piece);
      b->UseRealTime();
      if (bench::FixedIterations() != 0) b->Iterations(bench::FixedIterations());
    }
  }
  benchmark::RegisterBenchmark("Ceiling/PingPong1Byte", bench::RawPattern, WirePattern::PingPong())->UseRealTime();
  benchmark::RegisterBenchmark("Ceiling/RawDetectDrive", bench::RawPattern, bench::DetectDrivePattern())
      ->UseRealTime();
  benchmark::RegisterBenchmark("Trk/DetectDrive", DetectDrive)->UseRealTime();
}

const bool registered = (Register(), true);

}  // namespace
