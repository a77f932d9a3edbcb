// Ceilings: what this machine can do at best for the operations that the
// plug-in performs, measured in the same run as the plug-in itself.
//
//  Ceiling/ShmFrameCopy/WxH     (a) memcpy of one frame out of a mapped shared
//                               memory segment, one process.
//  Ceiling/RawFrameExchange/WxH (b) two processes replaying one ReadFrame
//                               exchange with its exact send/recv pattern; the
//                               server copies a frame into the segment before
//                               it answers, the client copies it out.
//  Ceiling/RawDetectDrive       the DetectDrive exchange's pattern, no work.
//  Ceiling/PingPong1Byte        one byte each way.
//
// Every iteration is one frame or one exchange; "bytes" is the frame size.
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/BenchConfig.h"
#include "bench/RawExchange.h"
#include "bench/WirePattern.h"
#include "ipc/CSharedMemory.h"

namespace {

using bench::FrameSize;

void SetFrameCounters(benchmark::State& state, size_t bytes) {
  state.counters["bytes"] = double(bytes);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
  state.SetItemsProcessed(int64_t(state.iterations()));
}

void ShmFrameCopy(benchmark::State& state, FrameSize size) {
  CSharedMemory segment;
  if (!segment.CreateRandom("zebtrk-bench-", size.bytes())) {
    state.SkipWithError("cannot create a shared memory segment");
    return;
  }
  std::memset(segment.data(), 0x5A, size.bytes());
  std::vector<unsigned char> frame(size.bytes());
  for (auto _ : state) {
    std::memcpy(frame.data(), segment.data(), size.bytes());
    benchmark::DoNotOptimize(frame.data());
    benchmark::ClobberMemory();
  }
  SetFrameCounters(state, size.bytes());
}

void RawFrameExchange(benchmark::State& state, FrameSize size) {
  WirePattern pattern = WirePattern::ForExchange(
      [](TinyMsgPackWriter& w) { WirePattern::WriteReadFrameRequest(w, 0, 17); }, WirePattern::EmptyResultResponse());
  RawExchange exchange;
  if (!exchange.Start(pattern, size.bytes(), bench::MovieFrames())) {
    state.SkipWithError("cannot start the raw exchange");
    return;
  }
  std::vector<unsigned char> frame(size.bytes());
  for (auto _ : state) {
    if (!exchange.Exchange()) {
      state.SkipWithError("the raw exchange broke off");
      break;
    }
    std::memcpy(frame.data(), exchange.frame(), size.bytes());
    benchmark::DoNotOptimize(frame.data());
    benchmark::ClobberMemory();
  }
  SetFrameCounters(state, size.bytes());
}

void RawPattern(benchmark::State& state, const WirePattern& pattern) {
  RawExchange exchange;
  if (!exchange.Start(pattern)) {
    state.SkipWithError("cannot start the raw exchange");
    return;
  }
  for (auto _ : state) {
    if (!exchange.Exchange()) {
      state.SkipWithError("the raw exchange broke off");
      break;
    }
  }
  state.counters["sends"] = double(pattern.clientSends.size() + pattern.serverSends.size());
  state.counters["recvs"] = double(pattern.clientRecvs.size() + pattern.serverRecvs.size());
}

void Register() {
  for (FrameSize size : bench::kFrameSizes) {
    benchmark::RegisterBenchmark(("Ceiling/ShmFrameCopy/" + size.label()).c_str(), ShmFrameCopy, size);
    benchmark::RegisterBenchmark(("Ceiling/RawFrameExchange/" + size.label()).c_str(), RawFrameExchange, size)
        ->UseRealTime();
  }
  benchmark::RegisterBenchmark("Ceiling/RawDetectDrive", RawPattern,
                               WirePattern::ForExchange(WirePattern::WriteDetectDriveRequest,
                                                        WirePattern::DetectDriveResponse()))
      ->UseRealTime();
  benchmark::RegisterBenchmark("Ceiling/PingPong1Byte", RawPattern, WirePattern::PingPong())->UseRealTime();
}

const bool registered = (Register(), true);

}  // namespace
