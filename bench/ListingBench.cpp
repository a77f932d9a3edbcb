// Listing, look-up and cache refresh of the "trk:" file system against a
// simulator whose drive holds many movies (bench/run starts one with 10,000
// for the listing and one with 1,000 for the refresh).
//
//  Trk/Listing            one GetDirectoryListing of the root.
//  Trk/GetInfoLast        one GetInfo of the last movie in cache order, which
//                         formats and compares every cached name before it.
//  Trk/FormatEntryTexts   the texts of one entry made alone with the same
//                         framework calls: name, path and the 7 properties.
//  Trk/FormatName         one movie file name formatted and compared.
//  Trk/ListMovies         one STrkInterfaceData::ListMovies (cache refresh).
//  Trk/GetMovieInfo       one CTrkClient::GetMovieInfo round trip on a client
//                         of its own (the refresh makes one per movie).
//  Ceiling/RawGetMovieInfo  the same exchange replayed raw (Ceilings.h).
//
// The counter "movies" is the number of cached movies, so per-movie figures
// are the time divided by it.
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <vector>

#include <benchmark/benchmark.h>

#include <zeb/CString.h>
#include <zeb/IFileSystem.h>
#include <zeb/Numbers.h>
#include <zeb/Path.h>

#include "bench/Ceilings.h"
#include "client/CTrkClient.h"
#include "client/STrkMovieInfo.h"
#include "trk/CTrkInterface.h"
#include "trk/STrkInterfaceData.h"

namespace {

zeb::trk::STrkInterfaceData& Data() { return *zeb::trk::instance()->data(); }

// A copy of the movie cache as it stands.
std::vector<STrkMovieInfo> CachedMovies() {
  zeb::trk::STrkInterfaceData& data = Data();
  std::lock_guard<std::recursive_mutex> hold(data.lock);
  std::vector<STrkMovieInfo> movies;
  for (unsigned long i = 0; i < data.movies.size(); ++i) movies.push_back(data.movies[i]);
  return movies;
}

// The number of movies the drive holds (ZEBTRK_BENCH_MOVIES), 0 when unknown.
size_t ExpectedMovies() {
  const char* text = std::getenv("ZEBTRK_BENCH_MOVIES");
  return text != nullptr ? size_t(std::atol(text)) : 0;
}

// True when the cache holds movies, and as many as the drive when that is
// known; refreshes once when it does not (a drive still being scanned).
bool RequireMovies(benchmark::State& state, size_t count) {
  size_t expected = ExpectedMovies();
  if (count != 0 && (expected == 0 || count == expected)) return true;
  Data().ListMovies();
  count = CachedMovies().size();
  if (count != 0 && (expected == 0 || count == expected)) return true;
  state.SkipWithError(count == 0 ? "the movie cache is empty (is the simulator of bench/run running?)"
                                 : "the movie cache does not hold every movie of the drive");
  return false;
}

void Listing(benchmark::State& state) {
  zeb::trk::CTrkInterface* fs = zeb::trk::instance();
  if (!RequireMovies(state, CachedMovies().size())) return;
  size_t count = CachedMovies().size();
  for (auto _ : state) {
    zeb::IFileSystem::CDirectoryListing listing = fs->GetDirectoryListing("/", "");
    benchmark::DoNotOptimize(listing.entries.size());
  }
  state.counters["movies"] = double(count);
}

void GetInfoLast(benchmark::State& state) {
  zeb::trk::CTrkInterface* fs = zeb::trk::instance();
  if (!RequireMovies(state, CachedMovies().size())) return;
  zeb::IFileSystem::CDirectoryListing listing = fs->GetDirectoryListing("/", "");
  size_t count = listing.entries.size();
  const zeb::CString last = listing.entries[count - 1].path;
  if (fs->GetInfo(last).type != 2) {
    state.SkipWithError("GetInfo does not find the last listed movie");
    return;
  }
  for (auto _ : state) {
    zeb::IFileSystem::CDirectoryEntry entry = fs->GetInfo(last);
    benchmark::DoNotOptimize(entry.type);
  }
  state.counters["movies"] = double(count);
}

// The packed time text as the entries show it: "%03d:%02d:%02d:%02d.%03d%03d".
zeb::CString TimeText(uint64_t packed) {
  uint32_t clock = uint32_t(packed & 0xFFFF) << 16 | uint32_t(packed >> 16 & 0xFFFF);
  uint32_t fraction = uint32_t(packed >> 32 & 0xFFFF) << 16 | uint32_t(packed >> 48 & 0xFFFF);
  return zeb::CString::FromFormat("%03d:%02d:%02d:%02d.%03d%03d", int(clock >> 18 & 0x1FF), int(clock >> 12 & 0x3F),
                                  int(clock >> 6 & 0x3F), int(clock & 0x3F), int(fraction / 1000 % 65536),
                                  int(fraction % 1000));
}

void FormatEntryTexts(benchmark::State& state) {
  if (!RequireMovies(state, CachedMovies().size())) return;
  std::vector<STrkMovieInfo> movies = CachedMovies();
  size_t i = 0;
  for (auto _ : state) {
    const STrkMovieInfo& m = movies[i];
    zeb::CString name = zeb::CString::FromFormat("%lu-%s", static_cast<unsigned long>(m.number), m.name);
    zeb::CString path = zeb::path::MakePath("/", name, '/');
    zeb::CString texts[7] = {zeb::CUInt16::ToString(static_cast<unsigned short>(m.width)),
                             zeb::CUInt16::ToString(static_cast<unsigned short>(m.height)),
                             zeb::CUInt64::ToString(static_cast<unsigned long>(m.numFrames)),
                             zeb::CUInt32::ToString(static_cast<unsigned>(i)),
                             TimeText(m.startTime),
                             TimeText(m.endTime),
                             zeb::CUInt64::ToString(static_cast<unsigned long>(m.endTime - m.startTime))};
    benchmark::DoNotOptimize(path.c_str());
    benchmark::DoNotOptimize(texts[6].c_str());
    i = i + 1 == movies.size() ? 0 : i + 1;
  }
}

void FormatName(benchmark::State& state) {
  if (!RequireMovies(state, CachedMovies().size())) return;
  std::vector<STrkMovieInfo> movies = CachedMovies();
  zeb::CString target = "no such movie";
  size_t i = 0;
  for (auto _ : state) {
    zeb::CString name;
    name.Format("%lu-%s", static_cast<unsigned long>(movies[i].number), movies[i].name);
    benchmark::DoNotOptimize(name.Equals(target));
    i = i + 1 == movies.size() ? 0 : i + 1;
  }
}

void ListMovies(benchmark::State& state) {
  if (!RequireMovies(state, CachedMovies().size())) return;
  for (auto _ : state) Data().ListMovies();
  state.counters["movies"] = double(CachedMovies().size());
}

void GetMovieInfo(benchmark::State& state) {
  CTrkClient client;
  unsigned count = 0;
  if (!client.Connect() || !client.ListMovies(count) || count == 0) {
    state.SkipWithError("the simulator does not answer, or lists no movie");
    return;
  }
  unsigned index = 0;
  for (auto _ : state) {
    STrkMovieInfo info{};
    if (!client.GetMovieInfo(index, &info)) {
      state.SkipWithError("GetMovieInfo failed");
      break;
    }
    index = index + 1 == count ? 0 : index + 1;
  }
}

void Register() {
  benchmark::RegisterBenchmark("Trk/Listing", Listing)->UseRealTime();
  benchmark::RegisterBenchmark("Trk/GetInfoLast", GetInfoLast)->UseRealTime();
  benchmark::RegisterBenchmark("Trk/FormatEntryTexts", FormatEntryTexts)->UseRealTime();
  benchmark::RegisterBenchmark("Trk/FormatName", FormatName)->UseRealTime();
  benchmark::RegisterBenchmark("Trk/ListMovies", ListMovies)->UseRealTime();
  benchmark::RegisterBenchmark("Trk/GetMovieInfo", GetMovieInfo)->UseRealTime();
  benchmark::RegisterBenchmark("Ceiling/RawGetMovieInfo", bench::RawPattern, bench::GetMovieInfoPattern())
      ->UseRealTime();
}

const bool registered = (Register(), true);

}  // namespace
