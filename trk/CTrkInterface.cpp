#include "trk/CTrkInterface.h"

#include <cstdlib>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

#include <zeb/CEvent.h>
#include <zeb/CLocalFileSystem.h>
#include <zeb/CUriHandler.h>
#include <zeb/Memory.h>
#include <zeb/Path.h>

#include "trk/CacheDir.h"
#include "trk/EntryMetadata.h"
#include "trk/STrkInterfaceData.h"
#include "trk/Text.h"

namespace zeb {
namespace trk {

namespace {

const char* const kUriPrefix = "trk://";
const unsigned long kUriPrefixLength = 6;
const unsigned int kTypeNone = 0x80000000u;

typedef std::lock_guard<std::recursive_mutex> CacheLock;

// ZEBTRK_ENABLE_EMULATOR set to a non-empty value.
bool EmulatorRequested() {
  const char* value = std::getenv("ZEBTRK_ENABLE_EMULATOR");
  return value && value[0] != '\0';
}

// Connects, asks for a drive and fills the cache, then starts the monitoring
// thread and waits until it has tried to create its event queue.
void StartService(STrkInterfaceData& data) {
  // Each connection keeps a way to be shut down from another thread, for a
  // destructor that must not wait for ever on a silent service.
  const bool connected = data.client.Connect();
  if (connected) data.client.PrepareShutdown();
  // A refresh that cannot grow the cache raises the out-of-memory exception,
  // which leaves the constructor: the file system is not built, and the next
  // call of instance() tries again.
  if (connected && data.client.DetectDrive()) data.ListMovies();
  if (!data.eventClient.Connect()) return;
  data.eventClient.PrepareShutdown();
  zeb::CEvent created(false, false);
  try {
    data.thread = std::thread(&STrkInterfaceData::Monitor, &data, &created);
  } catch (const std::system_error&) {
    // No thread: no monitoring, as when the event connection fails.
    data.eventClient.Disconnect();
    return;
  }
  created.Wait(zeb::CEvent::kInfinite);
}

}  // namespace

CTrkInterface::CTrkInterface() : m_data(new STrkInterfaceData) {
  try {
    m_data->emulator = EmulatorRequested();
    if (!m_data->emulator) StartService(*m_data);
    zeb::CUriHandler::instance()->RegisterHandler(Text("trk:"), this);
  } catch (...) {
    // Only exhausted memory gets here (the first refresh or the
    // registration): undo everything, so that the next call of instance()
    // can try again from scratch.
    m_data->StopMonitoring();
    m_data->client.Disconnect();
    delete m_data;
    throw;
  }
}

CTrkInterface::~CTrkInterface() {
  m_data->StopMonitoring();
  m_data->client.Disconnect();
  delete m_data;
}

bool CTrkInterface::drivePresent() {
  if (m_data->emulator) return true;
  return m_data->client.DetectDrive();
}

void CTrkInterface::AddFilesChangedHandler(const zeb::delegate<void()>& handler) {
  CacheLock guard(m_data->lock);
  if (m_data->handlers.IndexOf(handler) != zeb::TArray<zeb::delegate<void()>>::npos) return;
  m_data->handlers.Add(handler);  // a clone
}

void CTrkInterface::AddFilesChangedHandler(zeb::delegate<void()>&& handler) {
  CacheLock guard(m_data->lock);
  if (m_data->handlers.IndexOf(handler) != zeb::TArray<zeb::delegate<void()>>::npos) return;
  m_data->handlers.Add(std::move(handler));  // leaves `handler` all-zero
}

void CTrkInterface::RemoveFilesChangedHandler(const zeb::delegate<void()>& handler) {
  CacheLock guard(m_data->lock);
  const unsigned long index = m_data->handlers.IndexOf(handler);
  if (index == zeb::TArray<zeb::delegate<void()>>::npos) return;
  m_data->handlers.Remove(index);
}

bool CTrkInterface::MakeDir(const zeb::CString&, bool) { return false; }

bool CTrkInterface::RemoveDir(const zeb::CString& path, bool recursive) { return MakeDir(path, recursive); }

bool CTrkInterface::SetCurrentWorkingDirectory(const zeb::CString& path) {
  m_data->cwd = path;
  return true;
}

zeb::CString CTrkInterface::GetCurrentWorkingDirectory() { return m_data->cwd; }

zeb::CString CTrkInterface::GetFullPath(const zeb::CString& path) {
  const zeb::CString rest = path.StartsWith(kUriPrefix) ? path.substr(kUriPrefixLength, zeb::CString::npos) : path;
  return zeb::path::ExpandRelativePath(m_data->cwd, rest, '/');
}

namespace {

// "%lu-%s" of the movie's number and name.
zeb::CString MovieFileName(const STrkMovieInfo& movie) {
  zeb::CString name;
  name.Format("%lu-%s", static_cast<unsigned long>(movie.number), movie.name);
  return name;
}

// The emulator's root listing: the usable "*.dat" files of the cache
// directory, named without extension, in the local file system's order.
void ListEmulated(zeb::IFileSystem* self, zeb::IFileSystem::CDirectoryListing& listing) {
  const zeb::CString cacheDir = GetCacheDir();
  if (cacheDir.empty()) return;  // no home directory: nothing to serve
  listing = zeb::fileSystem()->GetDirectoryListing(cacheDir, Text("*.dat"));
  listing.fileSystem = self;
  listing.path = "/";
  zeb::TArray<zeb::IFileSystem::CDirectoryEntry>& entries = listing.entries;
  for (unsigned long k = 0; k < entries.size();) {
    zeb::IFileSystem::CDirectoryEntry& entry = entries[k];
    entry.name = zeb::path::RemoveExtension(entry.name);
    entry.path = zeb::path::MakePath(Text("/"), entry.name, '/');
    if (GetDirectoryEntryMeta(entry)) {
      ++k;
    } else {
      entries.Remove(k);
    }
  }
}

}  // namespace

zeb::IFileSystem::CDirectoryListing CTrkInterface::GetDirectoryListing(const zeb::CString& path,
                                                                       const zeb::CString& filter) {
  const zeb::CString full = GetFullPath(path);
  CDirectoryListing listing;
  listing.fileSystem = this;
  listing.path = full;
  if (full != "/") return listing;
  if (m_data->emulator) {
    ListEmulated(this, listing);
    return listing;
  }

  CacheLock guard(m_data->lock);
  const zeb::TArray<STrkMovieInfo>& movies = m_data->movies;
  for (unsigned int i = 0; i < movies.size(); ++i) {
    const STrkMovieInfo& movie = movies[i];
    if (!filter.empty() && !zeb::path::WildcardMatch(filter, zeb::CString(movie.name, -1))) {
      continue;
    }
    CDirectoryEntry entry;
    entry.name = MovieFileName(movie);
    entry.path = zeb::path::MakePath(full, entry.name, '/');
    FillMovieEntry(entry, movie, i);
    // A listing that cannot grow leaves this entry out and goes on: a
    // partial listing serves the host better than an exception. Growth is
    // the only thing that can throw here, and the framework's out-of-memory
    // exception is caught without naming its type, which is not part of the
    // framework contract that the plug-in links against.
    try {
      listing.entries.Add(std::move(entry));
    } catch (...) {
    }
  }
  return listing;
}

zeb::IFileSystem::CDirectoryEntry CTrkInterface::GetInfo(const zeb::CString& path) {
  const zeb::CString full = GetFullPath(path);
  CDirectoryEntry entry;
  entry.name = zeb::path::GetFilename(full);
  entry.path = full;

  if (m_data->emulator) {
    const zeb::CString cacheDir = GetCacheDir();
    if (cacheDir.empty()) {  // no home directory: nothing there
      entry.type = kTypeNone;
      return entry;
    }
    entry = zeb::fileSystem()->GetInfo(zeb::path::MakePath(cacheDir, entry.name + ".dat", '/'));
    entry.name = zeb::path::RemoveExtension(entry.name);
    entry.path = zeb::path::MakePath(Text("/"), entry.name, '/');
    if (!GetDirectoryEntryMeta(entry)) entry.type = kTypeNone;
    return entry;
  }

  CacheLock guard(m_data->lock);
  const zeb::TArray<STrkMovieInfo>& movies = m_data->movies;
  for (unsigned int i = 0; i < movies.size(); ++i) {
    const STrkMovieInfo& movie = movies[i];
    if (MovieFileName(movie).Equals(entry.name)) {
      FillMovieEntry(entry, movie, i);
      return entry;
    }
  }
  entry.type = kTypeNone;
  return entry;
}

}  // namespace trk
}  // namespace zeb
