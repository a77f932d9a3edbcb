// MovieCatalog: the movies of the "trk:" file system as plain records:
// listing (with the tool's name filter) and look-up by name, with "did you
// mean" suggestions when a name is not found.
//
// Ownership: borrows the file system (the plug-in's, from the URI handler),
// which must outlive the catalog. Threads: as the file system allows (any);
// the catalog itself holds no state but the pointer.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include <zeb/IFileSystem.h>

// One movie, as the file system's directory entry describes it.
struct Movie {
  std::string name;              // movie file name, "%lu-%s" (number-name)
  std::string path;              // the entry's full path in the file system ("/12-Run A")
  unsigned long size = 0;        // bytes of frame data
  long timeTicks = 0;            // recording time, 100-ns ticks since 1601 (0: unknown)
  unsigned int width = 0;        // property "width"
  unsigned int height = 0;       // property "height"
  unsigned long frames = 0;      // property "numFrames"
  unsigned long index = 0;       // property "index"
  std::string startTime;         // property "startTime" (day:hh:mm:ss.fraction)
  std::string endTime;           // property "endTime"
  unsigned long durationUs = 0;  // property "duration", microseconds
  std::vector<std::pair<std::string, std::string>> properties;  // every property, in order
  unsigned long position = 0;    // 0-based position in the ordered listing (List)
  // From the movie's information file (ReadTiming): the first frame's time
  // in 100-ns ticks since 1601 and the ticks between frames.
  bool hasTiming = false;
  long firstFrameTicks = 0;
  long framePeriodTicks = 0;

  // The movie's own name: the text after the first '-' of `name`.
  std::string ownName() const;
  // "trk:///" + name: the path that the plug-in resolves to this movie.
  std::string uri() const { return "trk:///" + name; }

  // The start as far as it is known: the information file's first frame
  // time, else the entry's recording time (0: unknown).
  long startTicks() const { return hasTiming ? firstFrameTicks : timeTicks; }
  // The last frame's time (0: unknown).
  long endTicks() const;
  // The duration from the first to the last frame: frames and frame period
  // when the information file gives them, else the "duration" property
  // unless it wrapped (an end before the start: a recording across New
  // Year). False when unknown.
  bool Duration(unsigned long& microseconds) const;
};

class MovieCatalog {
 public:
  explicit MovieCatalog(zeb::IFileSystem* fileSystem) : m_fileSystem(fileSystem) {}

  // Every movie of the root listing that matches `filter`, ordered as the
  // service orders them (by number, then name), with `position` its place in
  // the whole ordered list. Filter:: a wildcard pattern ('*', '?') matched against the
  // whole movie file name or against the movie's own name; an empty filter
  // matches all. (The tool filters itself so that normal and emulator mode
  // behave alike.)
  std::vector<Movie> List(const std::string& filter = "") const;

  // The movie named `query` ("12-Run A", also "trk:///12-Run A" or
  // "/12-Run A"). With `allowNumber`, a query of digits only that is no
  // movie's name names the one movie whose number it is. Failure: CliError
  // kExitNoMovie saying which names come close.
  Movie Find(const std::string& query, bool allowNumber) const;

  // The text of the movie's information file ("NAME:info"). Failure:
  // CliError kExitFailure.
  std::string ReadInfo(const Movie& movie) const;
  // Fills the timing of `movie` from its information file; a movie whose
  // file cannot be read or has no timing keeps hasTiming false.
  void ReadTiming(Movie& movie) const;

  // The record of a directory entry.
  static Movie FromEntry(const zeb::IFileSystem::CDirectoryEntry& entry);
  // Whether `movie` matches the List filter `filter`.
  static bool Matches(const Movie& movie, const std::string& filter);
  // `query` without a "trk://" prefix and leading '/' characters.
  static std::string BareName(const std::string& query);

 private:
  zeb::IFileSystem* m_fileSystem;
};
