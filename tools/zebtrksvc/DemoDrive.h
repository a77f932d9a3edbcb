// DemoDrive: writes synthetic movies (ThermalScene frames with per-frame time
// stamps at a fixed frame period) as raw imager file pairs
// "<number>-<name>.dat" + ".info", through the framework's own writer, so
// that the service and the framework read them alike.
//
// Plan() gives the movies of a demo drive: numbered 1..N, names such as
// "Harbour Pass" or "Bridge Deck - North", sizes 320x240, 384x288 and 640x512,
// tens to a couple of hundred frames, 25 to 60 frames per second, recorded on
// 2024-05-02 from 08:00 UTC on. Everything follows from the seed.
//
// A sparse movie has real pixels in its first and last frame only; the
// frames between are a hole of the data file (zeros), so a movie of many
// gigabytes costs little disk and time (tests and benchmarks of large files).
//
// Pure functions of their arguments apart from the files they write; any
// thread, one writer per movie.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace zebtrksvc {

struct MovieSpec {
  uint64_t number = 1;
  std::string name;
  uint32_t width = 320;
  uint32_t height = 240;
  uint32_t frames = 100;
  long firstFrameTicks = 0;         // 100-ns ticks since 1601 (UTC)
  long framePeriodTicks = 333333;   // 30 frames per second
  uint64_t seed = 1;
  bool sparse = false;

  // "<number>-<name>"
  std::string stem() const;
};

class DemoDrive {
 public:
  // Time of the first demo movie's first frame: 2024-05-02 08:00:00 UTC, in
  // ticks since 1601.
  static long DefaultStartTicks();
  // Frame period in ticks for `rate` frames per second (rounded); 0 for 0.
  static long PeriodForRate(double rate);

  // The `count` movies of a demo drive for `seed`. `frames` other than 0
  // gives every movie that many frames (quick drives for tests).
  static std::vector<MovieSpec> Plan(unsigned count, uint64_t seed, uint32_t frames);

  // Writes one movie into `folder` (made, with its parents, when missing),
  // replacing a movie of the same file name. The information file is written
  // last, so a watcher sees a complete pair or an incomplete one that the
  // reader refuses. Success: true. Failure: false with `error` set; files may
  // be left half written.
  static bool WriteMovie(const std::string& folder, const MovieSpec& spec, std::string& error);
};

}  // namespace zebtrksvc
