// MovieLayout: a movie of the "trk:" file system described as a raw imager
// file (see docs/raw-imager-format.md): its size, frame count and, where the
// entry's properties allow, the first frame's time and the frame period.
// Used for the ".info" files that raw exports write beside the frame data and
// that the mounted file system shows beside each movie.
// Pure function; any thread.
#pragma once

#include <zeb/file/SRawImagerInfo.h>

#include "tools/zebtrk/MovieCatalog.h"

// The raw imager layout of `movie`. Timing is the movie's own (its
// information file's) when MovieCatalog::ReadTiming found it; otherwise it is
// derived from the entry when the movie has a
// recording time, more than one frame and a duration that did not wrap:
// firstFrameTicks from the recording time, framePeriodTicks the duration
// spread over the gaps between frames.
zeb::file::SRawImagerInfo MovieLayout(const Movie& movie);
