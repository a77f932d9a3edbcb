// The machine's ceilings alone, without the plug-in or the simulator: a quick
// look at a machine (bench/run measures them next to the plug-in's figures in
// zebtrk_bench_trk instead).
#include <benchmark/benchmark.h>

#include "bench/BenchConfig.h"
#include "bench/Ceilings.h"

namespace {

void Register() {
  for (bench::FrameSize size : bench::kFrameSizes) {
    benchmark::RegisterBenchmark(("Ceiling/ShmFrameCopy/" + size.label()).c_str(), bench::ShmFrameCopy, size);
    benchmark::RegisterBenchmark(("Ceiling/RawFrameExchange/" + size.label()).c_str(), bench::RawFrameExchange, size)
        ->UseRealTime();
  }
  benchmark::RegisterBenchmark("Ceiling/PingPong1Byte", bench::RawPattern, WirePattern::PingPong())->UseRealTime();
  benchmark::RegisterBenchmark("Ceiling/RawDetectDrive", bench::RawPattern, bench::DetectDrivePattern())
      ->UseRealTime();
}

const bool registered = (Register(), true);

}  // namespace
