// PreviewRenderer: turns one 16-bit frame into an 8-bit false-colour RGB
// picture a person can look at: the frame is stretched between its 1st and
// 99th percentile (so a few hot or dead pixels do not flatten the picture)
// and coloured with a perceptual dark-to-bright ramp (black, purple, red,
// orange, pale yellow), warm objects showing bright.
//
// Stateless; pure functions; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class PreviewRenderer {
 public:
  struct SStretch {
    uint16_t low = 0;   // value shown as the darkest colour (and below)
    uint16_t high = 0;  // value shown as the brightest colour (and above)
  };

  // The 1st and 99th percentile of `count` samples (high > low unless every
  // sample is 65535; equal samples give low = that value, high = low + 1).
  static SStretch Percentiles(const uint16_t* samples, size_t count);
  // The ramp's colour for a position 0 (darkest) to 255 (brightest): r, g, b.
  static void Colour(uint8_t position, uint8_t rgb[3]);
  // The RGB picture (width x height x 3 bytes) of a frame given as
  // little-endian byte pairs; `stretch` receives the stretch used.
  static std::vector<uint8_t> Render(const uint8_t* frame, unsigned int width, unsigned int height,
                                     SStretch* stretch = nullptr);
};
