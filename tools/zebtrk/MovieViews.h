// MovieViews: the files that the mounted folder shows for a list of movies.
// For each movie NAME:
//   NAME.raw   the frame data: 16-bit little-endian pixels, frame after frame
//   NAME.info  the raw imager information file (so NAME.raw + NAME.info is a
//              raw imager file)
//   NAME.npy   a NumPy .npy header (shape frames x height x width, "<u2")
//              followed by the frame data
//   NAME.tif   a multi-page 16-bit TIFF (TiffLayout): a header, the frame
//              data, then the page directories (movies up to 4 GiB)
// Every view is a prefix held in memory (empty, the .info text, the .npy or
// TIFF header) followed, for all but .info, by the movie's frame data read
// from the plug-in, and for .tif by the computed directories. Sizes and times
// come from the listing alone.
//
// Movies whose names cannot be file names (a '/' inside) are left out; of
// two movies with the same name the first listed is shown.
//
// A snapshot: immutable once built; any number of threads may read it.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tools/zebtrk/MovieCatalog.h"

struct SMovieView {
  enum class EKind { kRaw, kInfo, kNpy, kTif };
  EKind kind = EKind::kRaw;
  std::shared_ptr<const Movie> movie;
  std::string prefix;          // bytes in front of the frame data
  unsigned long dataBytes = 0;  // frame data after the prefix (0 for .info)
  unsigned long suffixBytes = 0;  // TIFF page directories after the data
  time_t mtime = 0;            // the recording time (0 when unknown)

  unsigned long size() const { return prefix.size() + dataBytes + suffixBytes; }
};

class MovieViews {
 public:
  explicit MovieViews(const std::vector<Movie>& movies);

  // The view named `fileName` (no folder), or null.
  const SMovieView* Find(const std::string& fileName) const;
  // Every view's file name, movie by movie in listing order.
  const std::vector<std::string>& names() const { return m_names; }
  // Movies shown.
  size_t movies() const { return m_movies; }

  // The frame data bytes of `movie`: frames x height x width x 2.
  static unsigned long DataBytes(const Movie& movie);
  // 100-ns ticks since 1601 as seconds since 1970 (0 for no time).
  static time_t UnixTime(long ticks);

 private:
  size_t m_movies = 0;
  std::map<std::string, SMovieView> m_views;
  std::vector<std::string> m_names;
};
