#include "tools/zebtrk/MovieCatalog.h"

#include <algorithm>
#include <climits>

#include <zeb/Numbers.h>
#include <zeb/Path.h>
#include <zeb/TSharedPtr.h>
#include <zeb/file/SRawImagerInfo.h>

#include "tools/zebtrk/CliError.h"
#include "tools/zebtrk/NameMatcher.h"

namespace {

bool AllDigits(const std::string& text) {
  if (text.empty()) return false;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
  }
  return true;
}

}  // namespace

std::string Movie::ownName() const {
  const size_t dash = name.find('-');
  return dash == std::string::npos ? name : name.substr(dash + 1);
}

long Movie::endTicks() const {
  unsigned long microseconds = 0;
  if (startTicks() == 0 || !Duration(microseconds)) return 0;
  return startTicks() + static_cast<long>(microseconds * 10);
}

bool Movie::Duration(unsigned long& microseconds) const {
  if (hasTiming) {
    microseconds = frames < 2 ? 0 : static_cast<unsigned long>(framePeriodTicks) / 10 * (frames - 1) +
                                        static_cast<unsigned long>(framePeriodTicks) % 10 * (frames - 1) / 10;
    return true;
  }
  // A wrapped end-minus-start is near 2^64; no recording lasts 2^63 us.
  if (durationUs > static_cast<unsigned long>(LONG_MAX)) return false;
  microseconds = durationUs;
  return true;
}

std::string MovieCatalog::ReadInfo(const Movie& movie) const {
  const std::string infoPath = movie.uri() + ":info";
  zeb::TSharedPtr<zeb::IFile> file = m_fileSystem->OpenFile(infoPath.c_str(), zeb::IFile::kModeRead);
  if (!file) throw CliError(kExitFailure, "cannot open the information file " + infoPath);
  std::string text;
  char buffer[4096];
  for (;;) {
    const unsigned int n = file->Read(buffer, sizeof(buffer));
    if (n == 0) break;
    text.append(buffer, n);
    if (text.size() > zeb::file::SRawImagerInfo::kMaxInfoBytes) break;
  }
  return text;
}

void MovieCatalog::ReadTiming(Movie& movie) const {
  std::string text;
  try {
    text = ReadInfo(movie);
  } catch (const CliError&) {
    return;
  }
  zeb::file::SRawImagerInfo info;
  if (!zeb::file::SRawImagerInfo::FromText(text.data(), text.size(), info) || !info.hasTiming) return;
  movie.hasTiming = true;
  movie.firstFrameTicks = info.firstFrameTicks;
  movie.framePeriodTicks = info.framePeriodTicks;
}

Movie MovieCatalog::FromEntry(const zeb::IFileSystem::CDirectoryEntry& entry) {
  Movie movie;
  movie.name = entry.name.c_str();
  movie.path = entry.path.c_str();
  movie.size = entry.size;
  movie.timeTicks = entry.time.ticks();
  const zeb::CPropertyArray& p = entry.properties;
  movie.width = zeb::CUInt32::Parse(p.GetValue("width").c_str());
  movie.height = zeb::CUInt32::Parse(p.GetValue("height").c_str());
  movie.frames = zeb::CUInt64::Parse(p.GetValue("numFrames").c_str());
  movie.index = zeb::CUInt64::Parse(p.GetValue("index").c_str());
  movie.startTime = p.GetValue("startTime").c_str();
  movie.endTime = p.GetValue("endTime").c_str();
  movie.durationUs = zeb::CUInt64::Parse(p.GetValue("duration").c_str());
  for (const zeb::CPropertyArray::ENTRY& property : p.entries()) {
    movie.properties.emplace_back(property.name.c_str(), property.value.c_str());
  }
  return movie;
}

bool MovieCatalog::Matches(const Movie& movie, const std::string& filter) {
  if (filter.empty()) return true;
  return zeb::path::WildcardMatch(filter.c_str(), movie.name.c_str()) ||
         zeb::path::WildcardMatch(filter.c_str(), movie.ownName().c_str());
}

std::string MovieCatalog::BareName(const std::string& query) {
  std::string name = query;
  if (name.compare(0, 6, "trk://") == 0) name.erase(0, 6);
  const size_t start = name.find_first_not_of('/');
  return start == std::string::npos ? std::string() : name.substr(start);
}

std::vector<Movie> MovieCatalog::List(const std::string& filter) const {
  const zeb::IFileSystem::CDirectoryListing listing = m_fileSystem->GetDirectoryListing("trk:///", "");
  std::vector<Movie> all;
  for (const zeb::IFileSystem::CDirectoryEntry& entry : listing.entries) all.push_back(FromEntry(entry));
  // The service's order in both modes (the emulator lists file names in
  // byte order, "10-x" before "2-y").
  std::stable_sort(all.begin(), all.end(), [](const Movie& a, const Movie& b) {
    const std::string numberA = a.name.substr(0, a.name.find('-')), numberB = b.name.substr(0, b.name.find('-'));
    const size_t digitsA = numberA.size() - std::min(numberA.find_first_not_of('0'), numberA.size());
    const size_t digitsB = numberB.size() - std::min(numberB.find_first_not_of('0'), numberB.size());
    if (digitsA != digitsB) return digitsA < digitsB;
    const int byValue = numberA.compare(numberA.size() - digitsA, digitsA, numberB, numberB.size() - digitsB, digitsB);
    if (byValue != 0) return byValue < 0;
    return a.ownName() < b.ownName();
  });
  std::vector<Movie> movies;
  for (size_t position = 0; position < all.size(); ++position) {
    all[position].position = position;
    if (Matches(all[position], filter)) movies.push_back(std::move(all[position]));
  }
  return movies;
}

Movie MovieCatalog::Find(const std::string& query, bool allowNumber) const {
  const std::string name = BareName(query);
  // A name with a '/' inside would be looked up by its last component only;
  // such a query names no movie.
  if (!name.empty() && name.find('/') == std::string::npos) {
    const zeb::IFileSystem::CDirectoryEntry entry = m_fileSystem->GetInfo(("trk:///" + name).c_str());
    if (!(entry.type & zeb::IFileSystem::kTypeNone)) return FromEntry(entry);
  }
  const std::vector<Movie> movies = List();
  if (allowNumber && AllDigits(name)) {
    std::vector<const Movie*> numbered;
    for (const Movie& movie : movies) {
      if (movie.name.compare(0, name.size() + 1, name + "-") == 0) numbered.push_back(&movie);
    }
    if (numbered.size() == 1) return *numbered[0];
    if (numbered.size() > 1) {
      std::string message = "movie number " + name + " is ambiguous; it is the number of:";
      for (const Movie* movie : numbered) message += "\n  " + movie->name;
      throw CliError(kExitNoMovie, message);
    }
  }
  std::vector<std::string> names;
  for (const Movie& movie : movies) names.push_back(movie.name);
  std::string message = "no movie named \"" + name + "\"";
  const std::vector<std::string> close = NameMatcher::Suggest(name, names);
  if (close.size() == 1) {
    message += "; did you mean \"" + close[0] + "\"?";
  } else if (!close.empty()) {
    message += "; did you mean one of these?";
    for (const std::string& candidate : close) message += "\n  " + candidate;
  } else if (movies.empty()) {
    message += " (there are no movies)";
  } else {
    message += " (`zebtrk ls` lists the " + std::to_string(movies.size()) + " movies)";
  }
  throw CliError(kExitNoMovie, message);
}
