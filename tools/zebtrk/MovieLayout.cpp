// MovieLayout: a movie entry as a raw imager layout.
#include "tools/zebtrk/MovieLayout.h"

#include <climits>

namespace {

const unsigned long kTicksPerMicrosecond = 10;

}  // namespace

zeb::file::SRawImagerInfo MovieLayout(const Movie& movie) {
  zeb::file::SRawImagerInfo layout;
  layout.width = movie.width;
  layout.height = movie.height;
  layout.frames = movie.frames > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(movie.frames);
  if (movie.hasTiming) {
    // What the movie's own information file says (MovieCatalog::ReadTiming).
    layout.hasTiming = true;
    layout.firstFrameTicks = movie.firstFrameTicks;
    layout.framePeriodTicks = movie.framePeriodTicks;
    if (!layout.IsValid()) layout.hasTiming = false;
    return layout;
  }
  if (movie.timeTicks <= 0 || movie.frames < 2) return layout;
  // A duration past LONG_MAX microseconds is a wrapped end-minus-start.
  if (movie.durationUs > static_cast<unsigned long>(LONG_MAX) / kTicksPerMicrosecond) return layout;
  layout.hasTiming = true;
  layout.firstFrameTicks = movie.timeTicks;
  layout.framePeriodTicks = static_cast<long>(movie.durationUs * kTicksPerMicrosecond / (movie.frames - 1));
  if (!layout.IsValid()) layout.hasTiming = false;
  return layout;
}
