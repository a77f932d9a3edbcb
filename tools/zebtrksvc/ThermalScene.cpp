#include "tools/zebtrksvc/ThermalScene.h"

#include <algorithm>
#include <cmath>

namespace zebtrksvc {
namespace {

// SplitMix64: seeds and scene parameters.
uint64_t SplitMix(uint64_t& state) {
  uint64_t z = (state += 0x9E3779B97F4A7C15ull);
  z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
  z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
  return z ^ (z >> 31);
}

// A number in [low, high] from the generator.
double Uniform(uint64_t& state, double low, double high) {
  return low + (high - low) * static_cast<double>(SplitMix(state) >> 11) * (1.0 / 9007199254740992.0);
}

// xorshift64*: the per-pixel noise, one step per five pixels.
uint64_t XorShift(uint64_t& state) {
  state ^= state >> 12;
  state ^= state << 25;
  state ^= state >> 27;
  return state * 0x2545F4914F6CDD1Dull;
}

constexpr double kPi = 3.14159265358979323846;

}  // namespace

ThermalScene::ThermalScene(uint32_t width, uint32_t height, uint32_t frames, uint64_t seed)
    : m_width(width), m_height(height), m_frames(frames == 0 ? 1 : frames), m_seed(seed) {
  uint64_t state = seed ^ 0x5CE4E5EEDull;
  const double base = Uniform(state, 2400, 3400);
  const double vertical = Uniform(state, 150, 450);     // warmer towards the ground
  const double horizontal = Uniform(state, -150, 150);  // a slope across
  m_rowLevel.resize(height);
  for (uint32_t y = 0; y < height; ++y) {
    const double t = height > 1 ? static_cast<double>(y) / (height - 1) : 0.0;
    m_rowLevel[y] = static_cast<int32_t>(base + vertical * t * t);
  }
  m_columnLevel.resize(width);
  for (uint32_t x = 0; x < width; ++x) {
    const double t = width > 1 ? static_cast<double>(x) / (width - 1) : 0.0;
    const int32_t pattern = static_cast<int32_t>(SplitMix(state) % 9) - 4;  // fixed column offsets
    m_columnLevel[x] = static_cast<int32_t>(horizontal * (t - 0.5)) + pattern;
  }
  const double shortSide = std::min(width, height);
  const int blobs = 3 + static_cast<int>(SplitMix(state) % 4);
  for (int i = 0; i < blobs; ++i) {
    Blob blob;
    blob.x0 = Uniform(state, 0, width);
    blob.y0 = Uniform(state, 0, height);
    // About one crossing over the movie, in a random direction.
    const double angle = Uniform(state, 0, 2 * kPi);
    const double speed = Uniform(state, 0.5, 1.5) * std::max(width, height) / m_frames;
    blob.vx = speed * std::cos(angle);
    blob.vy = speed * std::sin(angle) * 0.5;
    const double sigma = std::max(1.5, shortSide * Uniform(state, 0.015, 0.06));
    const double amplitude = Uniform(state, 600, 3200);
    blob.radius = static_cast<int>(std::ceil(3 * sigma));
    const int span = 2 * blob.radius + 1;
    blob.sprite.resize(static_cast<size_t>(span) * span);
    for (int dy = -blob.radius; dy <= blob.radius; ++dy) {
      for (int dx = -blob.radius; dx <= blob.radius; ++dx) {
        const double r2 = static_cast<double>(dx * dx + dy * dy);
        blob.sprite[static_cast<size_t>(dy + blob.radius) * span + (dx + blob.radius)] =
            static_cast<int32_t>(amplitude * std::exp(-r2 / (2 * sigma * sigma)));
      }
    }
    m_blobs.push_back(std::move(blob));
  }
}

int ThermalScene::Bounce(double start, double velocity, uint32_t frame, uint32_t size) {
  if (size <= 1) return 0;
  const double length = size - 1;
  double position = std::fmod(start + velocity * frame, 2 * length);
  if (position < 0) position += 2 * length;
  return static_cast<int>(position <= length ? position : 2 * length - position);
}

void ThermalScene::Render(uint32_t frame, uint16_t* pixels) const {
  uint64_t frameState = m_seed ^ (0x9E3779B97F4A7C15ull * (uint64_t{frame} + 1));
  uint64_t noise = SplitMix(frameState) | 1;  // xorshift must not start at 0
  const int32_t drift = static_cast<int32_t>(25 * std::sin(2 * kPi * frame / m_frames));
  uint64_t bits = 0;
  int left = 0;
  for (uint32_t y = 0; y < m_height; ++y) {
    const int32_t row = m_rowLevel[y] + drift;
    uint16_t* out = pixels + static_cast<size_t>(y) * m_width;
    for (uint32_t x = 0; x < m_width; ++x) {
      if (left == 0) {
        bits = XorShift(noise);
        left = 5;
      }
      // Two 6-bit draws: a triangular noise of about +-30 counts.
      const int32_t n = static_cast<int32_t>(bits & 0x3F) + static_cast<int32_t>((bits >> 6) & 0x3F) - 63;
      bits >>= 12;
      --left;
      out[x] = static_cast<uint16_t>(std::clamp(row + m_columnLevel[x] + n / 2, 0, 65535));
    }
  }
  for (const Blob& blob : m_blobs) {
    const int cx = Bounce(blob.x0, blob.vx, frame, m_width);
    const int cy = Bounce(blob.y0, blob.vy, frame, m_height);
    const int span = 2 * blob.radius + 1;
    const int yFirst = std::max(0, cy - blob.radius);
    const int yLast = std::min(static_cast<int>(m_height) - 1, cy + blob.radius);
    const int xFirst = std::max(0, cx - blob.radius);
    const int xLast = std::min(static_cast<int>(m_width) - 1, cx + blob.radius);
    for (int y = yFirst; y <= yLast; ++y) {
      const int32_t* heat = blob.sprite.data() + static_cast<size_t>(y - cy + blob.radius) * span;
      uint16_t* out = pixels + static_cast<size_t>(y) * m_width;
      for (int x = xFirst; x <= xLast; ++x) {
        out[x] = static_cast<uint16_t>(std::min(65535, out[x] + heat[x - cx + blob.radius]));
      }
    }
  }
}

}  // namespace zebtrksvc
