// The two operations of the "trk:" file system that act on one movie:
// OpenFile (a movie file as a CTrkFile, its information file as a memory
// copy) and RemoveFile (deleting the movie). In emulator mode both work on the
// files of the cache directory through the framework's local file system.
//
// Neither takes a lock around its service requests: GetInfo locks the cache
// while it reads it, each client request takes the client's own lock, and the
// refresh after a deletion takes the cache lock itself.
#include <zeb/CLocalFileSystem.h>
#include <zeb/CMemFile.h>
#include <zeb/Numbers.h>
#include <zeb/Path.h>

#include "trk/CTrkFile.h"
#include "trk/CTrkInterface.h"
#include "trk/CacheDir.h"
#include "trk/STrkInterfaceData.h"
#include "trk/Text.h"

namespace zeb {
namespace trk {

namespace {

const char* const kInfoSuffix = ":info";
const int kInfoSuffixLength = 5;

// Whether `path` names a movie's information file; `path` is then cut to the
// movie file's path.
bool CutInfoSuffix(zeb::CString& path) {
  if (!path.EndsWithNoCase(kInfoSuffix)) return false;
  path = path.Mid(0, static_cast<int>(path.length()) - kInfoSuffixLength);
  return true;
}

// The path of the emulated movie's file "<name><extension>" in the cache
// directory, for the file name part `name` of a path; a path without one
// ("trk:///") gives the file that is the extension alone (".dat"). Empty when
// there is no cache directory.
zeb::CString EmulatedPath(const zeb::CString& name, const char* extension) {
  const zeb::CString cacheDir = GetCacheDir();
  if (cacheDir.empty()) return zeb::CString();
  return zeb::path::MakePath(cacheDir, name + extension, '/');
}

zeb::CString Property(const zeb::IFileSystem::CDirectoryEntry& entry, const char* name) {
  return entry.properties.GetValue(Text(name));
}

}  // namespace

zeb::TSharedPtr<zeb::IFile> CTrkInterface::OpenFile(const zeb::CString& path, unsigned int mode) {
  zeb::CString moviePath = path;
  const bool infoWanted = CutInfoSuffix(moviePath);

  if (m_data->emulator) {
    const zeb::CString name = zeb::path::GetFilename(moviePath);
    const zeb::CString local = EmulatedPath(name, infoWanted ? ".info" : ".dat");
    if (local.empty()) return zeb::TSharedPtr<zeb::IFile>();
    return zeb::fileSystem()->OpenFile(local, mode);
  }

  // Every movie file is read-only and every information file a fresh memory
  // copy, whatever `mode` asks for.
  const CDirectoryEntry entry = GetInfo(moviePath);
  if (entry.type & kTypeNone) return zeb::TSharedPtr<zeb::IFile>();
  const unsigned int index = zeb::CUInt32::Parse(Property(entry, "index").c_str());

  if (infoWanted) {
    zeb::TSharedPtr<zeb::IFile> info = zeb::CMemFile::Create();
    if (!m_data->client.ReadInfoFile(index, info)) return zeb::TSharedPtr<zeb::IFile>();
    info->SeekToBegin();
    return info;
  }

  // The file is returned even when the service cannot open the movie: it then
  // has size 0.
  const unsigned short width = zeb::CUInt16::Parse(Property(entry, "width").c_str());
  const unsigned short height = zeb::CUInt16::Parse(Property(entry, "height").c_str());
  const unsigned long numFrames = zeb::CUInt64::Parse(Property(entry, "numFrames").c_str());
  return zeb::TSharedPtr<zeb::IFile>(
      new CTrkFile(this, &m_data->client, index, entry.name, width, height, numFrames));
}

bool CTrkInterface::RemoveFile(const zeb::CString& path) {
  if (m_data->emulator) {
    // The ".dat" file is the movie: when it cannot be removed nothing else
    // is. Its companions may be missing, so their results do not count.
    const zeb::CString name = zeb::path::GetFilename(path);
    const zeb::CString data = EmulatedPath(name, ".dat");
    if (data.empty() || !zeb::fileSystem()->RemoveFile(data)) return false;
    zeb::fileSystem()->RemoveFile(EmulatedPath(name, ".info"));
    zeb::fileSystem()->RemoveFile(EmulatedPath(name, ".meta"));
    m_data->CallHandlers();
    return true;
  }

  // The ":info" suffix means nothing here: a movie is removed only through
  // its movie file name.
  const CDirectoryEntry entry = GetInfo(path);
  if (entry.type != kTypeFile) return false;
  if (!entry.properties[Text("index")].exists()) return false;
  const unsigned int index = zeb::CUInt32::Parse(Property(entry, "index").c_str());
  if (!m_data->client.DeleteMovie(index)) return false;
  m_data->ListMovies();  // also calls the files-changed handlers
  return true;
}

}  // namespace trk
}  // namespace zeb
