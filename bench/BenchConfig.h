// BenchConfig: what the benchmark programs and bench/run agree on: the three
// frame sizes measured and the number of frames in each benchmark movie.
//
// bench/run generates one movie per size with ZEBTRK_BENCH_MOVIE_FRAMES frames
// (the same default as here when it is unset) and tells the programs the
// simulator's process id in ZEBTRK_BENCH_SERVICE_PID and the number of movies
// on a listing drive in ZEBTRK_BENCH_MOVIES.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <string>

namespace bench {

struct FrameSize {
  unsigned width;
  unsigned height;
  size_t bytes() const { return size_t(width) * height * 2; }
  std::string label() const { return std::to_string(width) + "x" + std::to_string(height); }
};

constexpr FrameSize kFrameSizes[] = {{320, 240}, {640, 512}, {1280, 1024}};

// Frames per benchmark movie: the ceilings copy from a source of the same size,
// so that both sides see the same cache behaviour.
inline size_t MovieFrames() {
  const char* text = std::getenv("ZEBTRK_BENCH_MOVIE_FRAMES");
  long n = text != nullptr ? std::atol(text) : 0;
  return n > 0 ? size_t(n) : 64;
}

// ZEBTRK_BENCH_ITERATIONS: a fixed iteration count for the plug-in's frame
// reads (bench/run --syscalls traces exactly that many); 0 when unset.
inline long FixedIterations() {
  const char* text = std::getenv("ZEBTRK_BENCH_ITERATIONS");
  long n = text != nullptr ? std::atol(text) : 0;
  return n > 0 ? n : 0;
}

}  // namespace bench
