// CTrkImagerFile: the imager file type "TRK Imager File", which opens a movie
// of the "trk:" file system as a raw imager file. A movie's frame data (its
// movie file, a CTrkFile) and its information file (the movie file name
// followed by ":info") are exactly the pair that the framework's raw imager
// file reads, so this type only finds and opens those two files through the
// file system and leaves every query and frame read to the base.
//
// Registered with the imager file factory when the library is loaded
// (TrkImagerFile.cpp); the factory makes and destroys the objects.
//
// Ownership: while open the object holds shared references to its two files
// (through the base); Close or destruction releases them. Threads: one object
// is used by one thread at a time; opening calls the file system, which
// serialises its service requests itself.
#pragma once

#include <zeb/CString.h>
#include <zeb/IFile.h>
#include <zeb/IFileSystem.h>
#include <zeb/TSharedPtr.h>
#include <zeb/file/CRawImagerFile.h>

namespace zeb {
namespace trk {

class CTrkImagerFile : public zeb::file::CRawImagerFile {
 public:
  // The type's name, returned by GetName and used for registration.
  static const char* const kTypeName;
  // The mode in which both files of a movie are opened (read, sharing reads).
  static constexpr unsigned int kOpenMode = 18;

  // Whether `path` names a movie of the "trk:" file system: false for a null
  // file system or any other file system (even for a ".dat" file there);
  // otherwise true unless its GetInfo reports no entry (type 0x80000000).
  // `flags` is not looked at.
  static bool CanOpen(zeb::IFileSystem* fileSystem, const zeb::CString& path, unsigned int flags);
  // Always false: a movie needs its file system and both of its files, not a
  // lone file object.
  static bool CanOpenFile(zeb::TSharedPtr<zeb::IFile> file, unsigned int flags);

  // Closed; nothing is opened.
  CTrkImagerFile();
  // Closes (releasing both files), then destroys the base.
  ~CTrkImagerFile() override;

  // "TRK Imager File".
  const char* GetName() override;

  using zeb::file::CRawImagerFile::Open;
  // Closes first, then opens the movie at `path` on the "trk:" file system:
  // its information file and its frame data (both requested before either is
  // checked), handed to the base's two-file Open with `flags`. True when the
  // base accepted them. False, with the object closed, for a null or foreign
  // file system, a path that names no movie, a file that cannot be opened, or
  // a pair that the base rejects.
  bool Open(zeb::IFileSystem* fileSystem, const zeb::CString& path, unsigned int flags) override;
};

}  // namespace trk
}  // namespace zeb
