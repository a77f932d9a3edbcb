#include "tools/zebtrksvc/MovieCatalog.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <zeb/CLocalFileSystem.h>
#include <zeb/file/CRawImagerFile.h>

#include "ipc/strprintf.h"
#include "tools/zebtrksvc/Log.h"

namespace zebtrksvc {
namespace {

const char kDataExtension[] = ".dat";

bool EndsWith(const std::string& text, const char* suffix) {
  const size_t length = std::strlen(suffix);
  return text.size() >= length && text.compare(text.size() - length, length, suffix) == 0;
}

// The file names of a folder ("." and ".." left out); empty when it cannot be
// read.
std::vector<std::string> FolderEntries(const std::string& folder) {
  std::vector<std::string> names;
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return names;
  while (dirent* entry = readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
    names.emplace_back(entry->d_name);
  }
  closedir(dir);
  return names;
}

bool IsDirectory(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

MovieCatalog::MovieCatalog(std::string drivePath)
    : m_drive(std::move(drivePath)), m_snapshot(std::make_shared<Snapshot>()) {}

std::shared_ptr<const MovieCatalog::Snapshot> MovieCatalog::snapshot() const {
  std::lock_guard<std::mutex> hold(m_lock);
  return m_snapshot;
}

bool MovieCatalog::ParseDataFileName(const std::string& fileName, uint64_t& number, std::string& name) {
  if (!EndsWith(fileName, kDataExtension)) return false;
  const size_t hyphen = fileName.find('-');
  if (hyphen == 0 || hyphen == std::string::npos) return false;
  uint64_t value = 0;
  for (size_t i = 0; i < hyphen; ++i) {
    const char c = fileName[i];
    if (c < '0' || c > '9') return false;
    if (__builtin_mul_overflow(value, 10u, &value) ||
        __builtin_add_overflow(value, static_cast<uint64_t>(c - '0'), &value)) {
      return false;
    }
  }
  // The hyphen lies before ".dat", which holds none; "<n>-.dat" has no name.
  const size_t nameLength = fileName.size() - std::strlen(kDataExtension) - hyphen - 1;
  if (nameLength == 0) return false;
  number = value;
  name = fileName.substr(hyphen + 1, nameLength);
  return true;
}

bool MovieCatalog::ListsBefore(const Movie& a, const Movie& b) {
  if (a.number != b.number) return a.number < b.number;
  if (a.name != b.name) return a.name < b.name;
  return a.stem < b.stem;  // "07-x" and "7-x": still a fixed order
}

bool MovieCatalog::ReadMovie(const std::string& fileName, Movie& movie) const {
  if (!ParseDataFileName(fileName, movie.number, movie.name)) return false;
  movie.stem = fileName.substr(0, fileName.size() - std::strlen(kDataExtension));
  movie.dataPath = m_drive + "/" + fileName;
  // The framework's reader decides what a movie is, so the simulator and the
  // framework never disagree about a pair: dimensions, frame count, timing.
  zeb::file::CRawImagerFile file;
  if (!file.Open(zeb::fileSystem(), zeb::CString(movie.dataPath.c_str()), 0)) {
    Logf("ignoring \"%s\": not a raw imager file pair", fileName.c_str());
    return false;
  }
  movie.infoPath = zeb::file::CRawImagerFile::InfoPath(zeb::CString(movie.dataPath.c_str())).c_str();
  const zeb::file::SRawImagerInfo& info = file.info();
  movie.width = info.width;
  movie.height = info.height;
  movie.frames = info.frames;
  movie.hasTiming = info.hasTiming;
  movie.firstFrameTicks = info.firstFrameTicks;
  movie.framePeriodTicks = info.framePeriodTicks;
  struct stat status;
  if (stat(movie.dataPath.c_str(), &status) != 0) return false;
  movie.dataBytes = static_cast<uint64_t>(status.st_size);
  movie.modifiedSeconds = status.st_mtim.tv_sec;
  movie.device = status.st_dev;
  movie.inode = status.st_ino;
  return true;
}

bool MovieCatalog::FileSignature::operator==(const FileSignature& other) const {
  return exists == other.exists && device == other.device && inode == other.inode && size == other.size &&
         modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec &&
         changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
}

MovieCatalog::FileSignature MovieCatalog::Sign(const std::string& path) {
  FileSignature signature;
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return signature;
  signature.exists = true;
  signature.device = status.st_dev;
  signature.inode = status.st_ino;
  signature.size = status.st_size;
  signature.modified = status.st_mtim;
  signature.changed = status.st_ctim;
  return signature;
}

MovieCatalog::Snapshot MovieCatalog::Scan() {
  Snapshot scanned;
  scanned.present = IsDirectory(m_drive);
  std::map<std::string, ScannedPair> seen;
  if (scanned.present) {
    for (const std::string& fileName : FolderEntries(m_drive)) {
      uint64_t number = 0;
      std::string name;
      if (!ParseDataFileName(fileName, number, name)) continue;
      // Signed before reading: a change during the read shows at the next
      // scan, which the watcher triggers for it.
      ScannedPair pair;
      const std::string dataPath = m_drive + "/" + fileName;
      pair.data = Sign(dataPath);
      pair.info = Sign(zeb::file::CRawImagerFile::InfoPath(zeb::CString(dataPath.c_str())).c_str());
      auto known = m_scanned.find(fileName);
      if (known != m_scanned.end() && known->second.data == pair.data && known->second.info == pair.info) {
        pair = std::move(known->second);
      } else {
        pair.movie = ReadMovie(fileName, pair.found);
      }
      if (pair.movie) scanned.movies.push_back(pair.found);
      seen.emplace(fileName, std::move(pair));
    }
  }
  m_scanned.swap(seen);
  std::sort(scanned.movies.begin(), scanned.movies.end(), ListsBefore);
  return scanned;
}

bool MovieCatalog::SameSnapshot(const Snapshot& a, const Snapshot& b) {
  if (a.present != b.present || a.movies.size() != b.movies.size()) return false;
  for (size_t i = 0; i < a.movies.size(); ++i) {
    if (!a.movies[i].SameAs(b.movies[i])) return false;
  }
  return true;
}

bool MovieCatalog::Refresh() {
  std::lock_guard<std::mutex> serial(m_refreshLock);
  auto scanned = std::make_shared<Snapshot>(Scan());
  {
    std::lock_guard<std::mutex> hold(m_lock);
    if (SameSnapshot(*m_snapshot, *scanned)) return false;
    m_snapshot = scanned;
  }
  Logf("drive %s: %s, %zu movie(s)", m_drive.c_str(), scanned->present ? "present" : "absent",
       scanned->movies.size());
  if (m_listener) m_listener();
  return true;
}

bool MovieCatalog::RemoveFiles(const std::string& stem, std::string& error) const {
  std::vector<std::string> doomed;
  for (const std::string& fileName : FolderEntries(m_drive)) {
    // Same base name: the name up to its last dot. "3-Run.meta" goes with
    // "3-Run.dat"; "3-Run.v2.dat" is another movie and stays.
    const size_t dot = fileName.rfind('.');
    if (dot == std::string::npos || fileName.compare(0, dot, stem) != 0 || dot != stem.size()) continue;
    doomed.push_back(fileName);
  }
  // The data file first: once it is gone the movie is gone, whatever happens
  // to its companions.
  std::stable_partition(doomed.begin(), doomed.end(),
                        [](const std::string& fileName) { return EndsWith(fileName, kDataExtension); });
  bool removed = true;
  for (const std::string& fileName : doomed) {
    const std::string path = m_drive + "/" + fileName;
    struct stat status;
    if (lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) continue;
    if (unlink(path.c_str()) == 0 || errno == ENOENT) continue;
    if (removed) error = strprintf("cannot delete \"%s\": %s", fileName.c_str(), std::strerror(errno));
    removed = false;
  }
  return removed;
}

bool MovieCatalog::Delete(uint64_t index, std::string& error) {
  std::shared_ptr<const Snapshot> current = snapshot();
  if (index >= current->movies.size()) {
    error = strprintf("no movie at index %llu", static_cast<unsigned long long>(index));
    return false;
  }
  const bool removed = RemoveFiles(current->movies[index].stem, error);
  Refresh();
  return removed;
}

bool MovieCatalog::DeleteAll(std::string& error) {
  std::shared_ptr<const Snapshot> current = snapshot();
  if (!current->present) {
    error = "no drive present";
    return false;
  }
  bool removed = true;
  for (const Movie& movie : current->movies) {
    std::string failure;
    if (!RemoveFiles(movie.stem, failure) && removed) {
      error = failure;
      removed = false;
    }
  }
  Refresh();
  return removed;
}

}  // namespace zebtrksvc
