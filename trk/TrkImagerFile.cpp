// The load-time registration of the imager file type "TRK Imager File". This
// static initialiser is the only thing the library does when it is loaded: it
// neither constructs the "trk:" file system nor contacts the service.
#include <zeb/file/CImagerFileFactory.h>

#include "trk/CTrkImagerFile.h"
#include "trk/Text.h"

namespace {

// Register's result is not used and the registration is never withdrawn. An
// exception (exhausted memory) must not escape a static initialiser, where
// it would end the host's process while it loads the library; the type is
// then simply not offered.
bool RegisterTrkImagerFile() {
  try {
    zeb::file::imagerFileFactory()->Register<zeb::trk::CTrkImagerFile>(
        zeb::trk::Text(zeb::trk::CTrkImagerFile::kTypeName), &zeb::trk::CTrkImagerFile::CanOpen,
        &zeb::trk::CTrkImagerFile::CanOpenFile, nullptr, nullptr, nullptr);
  } catch (...) {
  }
  return true;
}

[[maybe_unused]] const bool registered = RegisterTrkImagerFile();

}  // namespace
