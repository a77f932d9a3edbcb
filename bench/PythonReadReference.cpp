// zebtrk_bench_python_ref: the C++ side of the Python module's read
// benchmark (bench/python-row). It hosts the plug-in the way the module does
// (PluginLoader, the "trk:" file system, IFile::Read) and reads one whole
// movie per iteration: open the movie, one IFile::Read of all its frames,
// close. It prints the median frames per second of its rounds.
//
//   zebtrk_bench_python_ref MOVIE SECONDS ROUNDS new|reuse
//
// "new": every iteration reads into a newly allocated, untouched buffer, as
// the module's read() fills a new NumPy array; "reuse": one buffer for all
// iterations, already paged in (the best case of a C++ host).
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <zeb/IFile.h>
#include <zeb/TSharedPtr.h>

#include "tools/zebtrk/CliError.h"
#include "tools/zebtrk/MovieCatalog.h"
#include "tools/zebtrk/PluginLoader.h"

namespace {

typedef std::chrono::steady_clock Clock;

bool ReadMovie(zeb::IFileSystem* fs, const Movie& movie, uint8_t* out) {
  zeb::TSharedPtr<zeb::IFile> file = fs->OpenFile(movie.uri().c_str(), zeb::IFile::kModeRead);
  return file && file->Read(out, static_cast<unsigned int>(movie.size)) == movie.size;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    fprintf(stderr, "usage: %s MOVIE SECONDS ROUNDS new|reuse\n", argv[0]);
    return 2;
  }
  const double seconds = atof(argv[2]);
  const int rounds = atoi(argv[3]);
  const bool fresh = std::string(argv[4]) == "new";
  try {
    PluginLoader plugin(PluginLoader::DefaultPath());
    zeb::IFileSystem* fs = plugin.Start();
    const Movie movie = MovieCatalog(fs).Find(argv[1], false);
    std::unique_ptr<uint8_t[]> reused(new uint8_t[movie.size]());
    std::vector<double> fps;
    for (int round = 0; round < rounds; ++round) {
      const Clock::time_point start = Clock::now();
      unsigned long frames = 0;
      double elapsed = 0;
      do {
        std::unique_ptr<uint8_t[]> buffer(fresh ? new uint8_t[movie.size] : nullptr);
        if (!ReadMovie(fs, movie, fresh ? buffer.get() : reused.get())) {
          fprintf(stderr, "reading %s failed\n", movie.name.c_str());
          return 1;
        }
        frames += movie.frames;
        elapsed = std::chrono::duration<double>(Clock::now() - start).count();
      } while (elapsed < seconds);
      fps.push_back(frames / elapsed);
    }
    std::sort(fps.begin(), fps.end());
    printf("%.1f\n", fps[fps.size() / 2]);
  } catch (const CliError& error) {
    fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
