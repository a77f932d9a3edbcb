// Ceilings: what this machine can do at best for the operations that the
// plug-in performs. The benchmark programs register these next to the figures
// they bound, so both are measured in the same run.
//
//  ShmFrameCopy      (a) memcpy of one frame out of a mapped shared memory
//                    segment, one process.
//  RawFrameExchange  (b) two processes replaying one ReadFrame exchange with
//                    its exact send/recv pattern; the server copies the next
//                    frame of a movie-sized source into the segment before it
//                    answers, the client copies it out.
//  RawPattern        any WirePattern replayed with no work at all: the
//                    DetectDrive exchange, the 1-byte ping-pong.
//
// Every iteration is one frame or one exchange; the frame benchmarks set the
// counters "bytes" and "frame_bytes" to the frame size.
#pragma once

#include <benchmark/benchmark.h>

#include "bench/BenchConfig.h"
#include "bench/WirePattern.h"

namespace bench {

void ShmFrameCopy(benchmark::State& state, FrameSize size);
void RawFrameExchange(benchmark::State& state, FrameSize size);
void RawPattern(benchmark::State& state, const WirePattern& pattern);

// ReadFrame(0, 17) answered {"result": {}}, as the client and the simulator
// exchange it.
WirePattern ReadFramePattern();
// DetectDrive answered {"result": {"detected": true}}.
WirePattern DetectDrivePattern();
// GetMovieInfo(500) answered as for movie 500 of a listing drive.
WirePattern GetMovieInfoPattern();

}  // namespace bench
