#include "tools/zebtrksvc/Movie.h"

#include "tools/zebtrksvc/PackedTime.h"

namespace zebtrksvc {

uint64_t Movie::sizeValue() const {
  const uint64_t kib = dataBytes / 1024 + (dataBytes % 1024 != 0 ? 1 : 0);
  return kib > 0xFFFFFFFFull ? 0xFFFFFFFFull : kib;
}

uint64_t Movie::rtcTime() const {
  if (hasTiming) return UnixSeconds(firstFrameTicks);
  return modifiedSeconds < 0 ? 0 : static_cast<uint64_t>(modifiedSeconds);
}

uint64_t Movie::startTime() const { return hasTiming ? PackTime(firstFrameTicks) : 0; }

uint64_t Movie::endTime() const {
  if (!hasTiming || frames == 0) return 0;
  // The reader of the information file guarantees that the last frame's time
  // fits in 64 bits.
  return PackTime(firstFrameTicks + static_cast<long>(frames - 1) * framePeriodTicks);
}

bool Movie::SameAs(const Movie& other) const {
  return device == other.device && inode == other.inode && stem == other.stem && number == other.number &&
         name == other.name && width == other.width && height == other.height &&
         frames == other.frames && sizeValue() == other.sizeValue() &&
         rtcTime() == other.rtcTime() && startTime() == other.startTime() &&
         endTime() == other.endTime();
}

}  // namespace zebtrksvc
