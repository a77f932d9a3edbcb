// MovieCatalog: the movies of the drive folder and whether the drive is
// present, as one immutable snapshot that Refresh replaces.
//
// The drive is present while its folder exists. A movie is a file
// "<number>-<name>.dat" (digits, a hyphen, a non-empty name that may hold
// spaces and further hyphens) whose pair the framework's raw imager reader
// accepts; anything else in the folder is ignored. The list is sorted by
// number, then by name (byte order), and a movie's position in it is the
// "index"/"fileId" of the protocol.
//
// Refresh rescans and, when the presence or any movie changed, installs the
// new snapshot and calls the listener (which posts the change event). The
// list therefore only changes when a change is announced, and positions stay
// stable between announcements.
//
// A rescan reads a pair again only when the data or the information file
// changed (identity, size, modification or change time differ); otherwise it
// reuses what the last scan found, so a drive of thousands of movies rescans
// in a directory read and two stat calls per movie.
//
// Threads: every operation may be called from any thread. Snapshots are
// shared and never modified; refreshes are serialised so a later scan never
// replaces an earlier one's result with an older view. The listener is set
// before threads start and is called on the refreshing thread with no lock
// of the catalogue held.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tools/zebtrksvc/Movie.h"

namespace zebtrksvc {

class MovieCatalog {
 public:
  struct Snapshot {
    bool present = false;
    std::vector<Movie> movies;
  };

  // A catalogue of the folder `drivePath` (absolute, without a trailing
  // slash). Starts with an empty snapshot of an absent drive: call Refresh.
  explicit MovieCatalog(std::string drivePath);
  MovieCatalog(const MovieCatalog&) = delete;
  MovieCatalog& operator=(const MovieCatalog&) = delete;

  const std::string& drivePath() const { return m_drive; }
  // Called after every refresh that changed the snapshot.
  void SetListener(std::function<void()> listener) { m_listener = std::move(listener); }

  // The current snapshot (never null).
  std::shared_ptr<const Snapshot> snapshot() const;

  // Rescans the folder. Returns true (and calls the listener) when the drive
  // appeared or disappeared or the movie list differs; false otherwise.
  bool Refresh();

  // Deletes the movie at `index` of the current snapshot: its ".dat", its
  // ".info" and every other file of the folder with the same base name
  // (the name up to its last dot equal to "<number>-<name>"), then
  // refreshes. Success: true. Failure: false and `error` says why ("no movie
  // at index 7", "cannot delete \"3-Run.dat\": Permission denied"); files
  // removed before the failure stay removed and the refresh still runs.
  bool Delete(uint64_t index, std::string& error);
  // Deletes every movie of the current snapshot as Delete does, going on
  // after a failure; false with the first failure's text in `error`. A drive
  // that is not present fails with "no drive present".
  bool DeleteAll(std::string& error);

  // Splits a file name "<digits>-<name>.dat" into its number and name. False
  // for any other name (no digits, no hyphen, empty name, a number above
  // 2^64-1, another extension).
  static bool ParseDataFileName(const std::string& fileName, uint64_t& number, std::string& name);
  // The list order: by number, then by name.
  static bool ListsBefore(const Movie& a, const Movie& b);

 private:
  // What a pair's two files looked like when it was last read.
  struct FileSignature {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified = {};
    timespec changed = {};
    bool operator==(const FileSignature& other) const;
  };
  struct ScannedPair {
    FileSignature data;
    FileSignature info;
    bool movie = false;  // the reader accepted the pair
    Movie found;
  };

  static FileSignature Sign(const std::string& path);
  // Under m_refreshLock (it updates m_scanned).
  Snapshot Scan();
  bool ReadMovie(const std::string& fileName, Movie& movie) const;
  // Unlinks the files of the folder whose base name is `stem`, the ".dat"
  // first. False with `error` set when one could not be removed.
  bool RemoveFiles(const std::string& stem, std::string& error) const;
  static bool SameSnapshot(const Snapshot& a, const Snapshot& b);

  const std::string m_drive;
  std::function<void()> m_listener;
  std::mutex m_refreshLock;   // one Refresh at a time; guards m_scanned
  std::map<std::string, ScannedPair> m_scanned;  // by data file name
  mutable std::mutex m_lock;  // guards m_snapshot
  std::shared_ptr<const Snapshot> m_snapshot;
};

}  // namespace zebtrksvc
