#include "tools/zebtrk/MovieViews.h"

#include <zeb/CDateTime.h>

#include "tools/zebtrk/MovieLayout.h"
#include "tools/zebtrk/NpyHeader.h"
#include "tools/zebtrk/TiffLayout.h"

namespace {

const long kTicksPerSecond = 10000000L;

}  // namespace

unsigned long MovieViews::DataBytes(const Movie& movie) {
  return movie.frames * movie.height * movie.width * 2UL;
}

time_t MovieViews::UnixTime(long ticks) {
  if (ticks <= zeb::CDateTime::kUnixEpochTicks) return 0;
  return static_cast<time_t>((ticks - zeb::CDateTime::kUnixEpochTicks) / kTicksPerSecond);
}

MovieViews::MovieViews(const std::vector<Movie>& movies) {
  for (const Movie& listed : movies) {
    if (listed.name.empty() || listed.name.find('/') != std::string::npos) continue;
    if (m_views.count(listed.name + ".raw")) continue;
    auto movie = std::make_shared<const Movie>(listed);
    SMovieView view;
    view.movie = movie;
    view.mtime = UnixTime(movie->timeTicks);

    view.kind = SMovieView::EKind::kRaw;
    view.dataBytes = DataBytes(*movie);
    m_views[movie->name + ".raw"] = view;

    view.kind = SMovieView::EKind::kInfo;
    view.prefix = MovieLayout(*movie).ToText().c_str();
    view.dataBytes = 0;
    m_views[movie->name + ".info"] = view;

    view.kind = SMovieView::EKind::kNpy;
    view.prefix = NpyHeader(movie->frames, movie->height, movie->width);
    view.dataBytes = DataBytes(*movie);
    m_views[movie->name + ".npy"] = view;

    for (const char* suffix : {".raw", ".info", ".npy"}) m_names.push_back(movie->name + suffix);
    ++m_movies;

    if (!TiffLayout::Fits(movie->frames, movie->height, movie->width)) continue;
    view.kind = SMovieView::EKind::kTif;
    view.prefix = TiffLayout::Header(movie->frames, movie->height, movie->width);
    view.suffixBytes = TiffLayout::DirectoryBytes(movie->frames);
    m_views[movie->name + ".tif"] = view;
    m_names.push_back(movie->name + ".tif");
  }
}

const SMovieView* MovieViews::Find(const std::string& fileName) const {
  const auto it = m_views.find(fileName);
  return it == m_views.end() ? nullptr : &it->second;
}
