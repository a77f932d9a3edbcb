#include "bench/Ceilings.h"

#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench/RawExchange.h"
#include "bench/WirePattern.h"
#include "ipc/CSharedMemory.h"

namespace bench {

namespace {

void SetFrameCounters(benchmark::State& state, size_t bytes) {
  state.counters["bytes"] = double(bytes);
  state.counters["frame_bytes"] = double(bytes);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
  state.SetItemsProcessed(int64_t(state.iterations()));
}

}  // namespace

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
  RawExchange exchange;
  if (!exchange.Start(ReadFramePattern(), size.bytes(), MovieFrames())) {
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
  state.counters["client_sends"] = double(pattern.clientSends.size());
  state.counters["client_recvs"] = double(pattern.clientRecvs.size());
}

WirePattern ReadFramePattern() {
  return WirePattern::ForExchange([](TinyMsgPackWriter& w) { WirePattern::WriteReadFrameRequest(w, 0, 17); },
                                  WirePattern::EmptyResultResponse());
}

WirePattern DetectDrivePattern() {
  return WirePattern::ForExchange(WirePattern::WriteDetectDriveRequest, WirePattern::DetectDriveResponse());
}

WirePattern GetMovieInfoPattern() {
  return WirePattern::ForExchange([](TinyMsgPackWriter& w) { WirePattern::WriteGetMovieInfoRequest(w, 500); },
                                  WirePattern::GetMovieInfoResponse(500));
}

}  // namespace bench
