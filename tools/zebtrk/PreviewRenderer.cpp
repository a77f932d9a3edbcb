#include "tools/zebtrk/PreviewRenderer.h"

#include <algorithm>

namespace {

// Eleven evenly spaced stops of the ramp; positions between stops are
// interpolated linearly.
const uint8_t kStops[11][3] = {
    {0, 0, 4},     {22, 11, 57},   {66, 10, 104},  {106, 23, 110}, {147, 38, 103},  {188, 55, 84},
    {221, 81, 58}, {243, 118, 27}, {252, 165, 10}, {246, 215, 70}, {252, 255, 164},
};

}  // namespace

PreviewRenderer::SStretch PreviewRenderer::Percentiles(const uint16_t* samples, size_t count) {
  SStretch stretch;
  if (count == 0) {
    stretch.high = 1;
    return stretch;
  }
  std::vector<size_t> histogram(65536, 0);
  for (size_t i = 0; i < count; ++i) ++histogram[samples[i]];
  // Sample ranks of the two percentiles (at least the first and at most the
  // last sample).
  const size_t lowRank = count / 100;
  const size_t highRank = std::min(count - 1, count - 1 - count / 100);
  size_t seen = 0;
  bool lowFound = false;
  for (size_t value = 0; value < histogram.size(); ++value) {
    seen += histogram[value];
    if (!lowFound && seen > lowRank) {
      stretch.low = static_cast<uint16_t>(value);
      lowFound = true;
    }
    if (seen > highRank) {
      stretch.high = static_cast<uint16_t>(value);
      break;
    }
  }
  if (stretch.high <= stretch.low) {
    if (stretch.low == 65535) stretch.low = 65534;
    stretch.high = static_cast<uint16_t>(stretch.low + 1);
  }
  return stretch;
}

void PreviewRenderer::Colour(uint8_t position, uint8_t rgb[3]) {
  const unsigned int scaled = position * 10u;  // 0 .. 2550
  const unsigned int stop = std::min(scaled / 255u, 9u);
  const unsigned int fraction = scaled - stop * 255u;  // 0 .. 255
  for (int c = 0; c < 3; ++c) {
    const int from = kStops[stop][c];
    const int to = kStops[stop + 1][c];
    rgb[c] = static_cast<uint8_t>(from + ((to - from) * static_cast<int>(fraction) + (to >= from ? 127 : -127)) / 255);
  }
}

std::vector<uint8_t> PreviewRenderer::Render(const uint8_t* frame, unsigned int width, unsigned int height,
                                             SStretch* stretch) {
  const size_t count = static_cast<size_t>(width) * height;
  std::vector<uint16_t> samples(count);
  for (size_t i = 0; i < count; ++i) samples[i] = static_cast<uint16_t>(frame[2 * i] | frame[2 * i + 1] << 8);
  const SStretch used = Percentiles(samples.data(), count);
  if (stretch) *stretch = used;
  uint8_t palette[256][3];
  for (int i = 0; i < 256; ++i) Colour(static_cast<uint8_t>(i), palette[i]);
  const unsigned int span = used.high - used.low;
  std::vector<uint8_t> rgb(count * 3);
  for (size_t i = 0; i < count; ++i) {
    const unsigned int value = std::clamp<unsigned int>(samples[i], used.low, used.high) - used.low;
    const uint8_t* colour = palette[(value * 255u + span / 2) / span];
    std::copy(colour, colour + 3, rgb.begin() + static_cast<long>(i * 3));
  }
  return rgb;
}
