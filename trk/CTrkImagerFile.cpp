#include "trk/CTrkImagerFile.h"

#include "trk/CTrkInterface.h"

namespace zeb {
namespace trk {

namespace {

const unsigned int kTypeNone = 0x80000000u;
const char* const kInfoSuffix = ":info";

// The "trk:" file system, or null for any other (or none).
CTrkInterface* TrkFileSystem(zeb::IFileSystem* fileSystem) {
  return fileSystem ? dynamic_cast<CTrkInterface*>(fileSystem) : nullptr;
}

}  // namespace

const char* const CTrkImagerFile::kTypeName = "TRK Imager File";

bool CTrkImagerFile::CanOpen(zeb::IFileSystem* fileSystem, const zeb::CString& path,
                             unsigned int) {
  CTrkInterface* trk = TrkFileSystem(fileSystem);
  if (!trk) return false;
  return trk->GetInfo(path).type != kTypeNone;
}

bool CTrkImagerFile::CanOpenFile(zeb::TSharedPtr<zeb::IFile>, unsigned int) { return false; }

CTrkImagerFile::CTrkImagerFile() = default;

CTrkImagerFile::~CTrkImagerFile() { zeb::file::CRawImagerFile::Close(); }

const char* CTrkImagerFile::GetName() { return kTypeName; }

bool CTrkImagerFile::Open(zeb::IFileSystem* fileSystem, const zeb::CString& path,
                          unsigned int flags) {
  Close();
  CTrkInterface* trk = TrkFileSystem(fileSystem);
  if (!trk) return false;
  if (trk->GetInfo(path).type & kTypeNone) return false;
  // Both files are asked for before either is checked, the information file
  // first, so both requests reach the service even when the first fails.
  zeb::TSharedPtr<zeb::IFile> info = trk->OpenFile(path + kInfoSuffix, kOpenMode);
  zeb::TSharedPtr<zeb::IFile> data = trk->OpenFile(path, kOpenMode);
  if (!info || !data || !zeb::file::CRawImagerFile::Open(data, info, flags)) {
    Close();
    return false;
  }
  return true;
}

}  // namespace trk
}  // namespace zeb
