// MovieReader: one movie's data file of the "trk:" file system, open for
// reading whole frames into memory that the caller provides (a NumPy array's
// buffer): the plug-in copies each frame once out of its shared segment,
// straight into that memory.
//
// Ownership: owns the plug-in's file; destroying the reader closes it (one
// request to the service). Threads: one thread at a time, WITHOUT the GIL
// (see PluginHost), for every call including the destructor. Failures throw
// ModuleError.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include <zeb/IFile.h>
#include <zeb/TSharedPtr.h>

#include "tools/zebtrk/MovieCatalog.h"

class MovieReader {
 public:
  // Opens `movie`; kNoService or kFailure when it cannot be opened.
  explicit MovieReader(const Movie& movie);
  MovieReader(const MovieReader&) = delete;
  MovieReader& operator=(const MovieReader&) = delete;

  const Movie& movie() const { return m_movie; }
  size_t frameBytes() const { return m_frameBytes; }

  // Reads `count` frames, `first`, `first + step`, ..., into `out`, which
  // holds count * frameBytes() bytes. `keepGoing` is asked between pieces of
  // about 32 MiB; when it returns false the read stops and Read returns
  // false. kIndex for frames outside the movie, kNoService when the service
  // stopped, kFailure for any other short read.
  bool Read(uint64_t first, uint64_t count, int64_t step, void* out, const std::function<bool()>& keepGoing);

  // Closes the file now; reads afterwards fail with kFailure.
  void Close();

 private:
  // Reads `frames` consecutive frames from `frame` into `out`.
  void ReadRun(uint64_t frame, uint64_t frames, uint8_t* out);

  Movie m_movie;
  size_t m_frameBytes;
  zeb::TSharedPtr<zeb::IFile> m_file;
};
