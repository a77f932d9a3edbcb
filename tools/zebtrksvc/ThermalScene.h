// ThermalScene: synthetic frames that look like a thermal camera's: 16-bit
// counts around a few thousand with a gentle gradient and a faint column
// pattern, several warm blobs drifting across the picture (bouncing off its
// edges), a slow drift of the whole level and sensor noise.
//
// Deterministic: a scene made from the same size, frame count and seed gives
// the same pixels for a frame, whatever frames were rendered before (each
// frame seeds its own noise). Cheap: a small PRNG, precomputed gradients and
// blob sprites.
//
// Threads: Render is const and may run on several threads at once.
#pragma once

#include <cstdint>
#include <vector>

namespace zebtrksvc {

class ThermalScene {
 public:
  // Width and height at least 1; `frames` sets the pace of the motion (a blob
  // crosses the picture about once over the movie).
  ThermalScene(uint32_t width, uint32_t height, uint32_t frames, uint64_t seed);

  // Writes frame `frame` as width x height pixels, row by row, into `pixels`.
  void Render(uint32_t frame, uint16_t* pixels) const;

  uint32_t width() const { return m_width; }
  uint32_t height() const { return m_height; }

 private:
  struct Blob {
    double x0, y0;  // position at frame 0
    double vx, vy;  // pixels per frame
    int radius;     // the sprite spans 2 x radius + 1 pixels each way
    std::vector<int32_t> sprite;
  };

  // Where a blob is at `frame`, bounced back and forth inside [0, size).
  static int Bounce(double start, double velocity, uint32_t frame, uint32_t size);

  uint32_t m_width;
  uint32_t m_height;
  uint32_t m_frames;
  uint64_t m_seed;
  std::vector<int32_t> m_rowLevel;     // base level plus the vertical gradient
  std::vector<int32_t> m_columnLevel;  // horizontal gradient plus column pattern
  std::vector<Blob> m_blobs;
};

}  // namespace zebtrksvc
