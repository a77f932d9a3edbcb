// The three C functions that act on paths of the "trk:" file system: list the
// root, describe one path, remove a movie. Each reaches the single file system
// through zeb::trk::instance(), which constructs it on first use, and calls
// its virtual operation of the same name. The listing and the entry are made
// with new and belong to the caller, who releases them with delete.
//
// A null path is the empty path, which the file system resolves against its
// working directory like any other relative path (with the initial, empty
// working directory that is the root): listing it lists the root, describing
// it finds no movie, removing it removes nothing. The framework's string would
// treat a null pointer as empty as well, but C hosts deserve a stated rule
// rather than one borrowed from the string class.
#include <utility>

#include <zeb/CString.h>
#include <zeb/IFileSystem.h>

#include "trk/CTrkInterface.h"
#include "trk/Text.h"
#include "trk/zebtrk.h"

using zeb::trk::Text;

namespace zeb {
namespace trk {
// Defined with the other entrances (zebtrk_entry.cpp).
CTrkInterface* instance();
}  // namespace trk
}  // namespace zeb

namespace {

zeb::IFileSystem* FileSystem() { return zeb::trk::instance(); }

}  // namespace

extern "C" {

zebtrk_DirectoryListing* zebtrk_GetDirectoryListing(const char* path, const char* filter) {
  zeb::IFileSystem* fileSystem = FileSystem();
  return new zeb::IFileSystem::CDirectoryListing(
      fileSystem->GetDirectoryListing(Text(path), Text(filter)));
}

zebtrk_DirectoryEntry* zebtrk_GetInfo(const char* path) {
  zeb::IFileSystem* fileSystem = FileSystem();
  return new zeb::IFileSystem::CDirectoryEntry(fileSystem->GetInfo(Text(path)));
}

bool zebtrk_RemoveFile(const char* path) { return FileSystem()->RemoveFile(Text(path)); }

}  // extern "C"
