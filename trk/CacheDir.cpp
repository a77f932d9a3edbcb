#include "trk/CacheDir.h"

#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include <zeb/Path.h>

#include "trk/Text.h"

namespace zeb {
namespace trk {

namespace {

// The cache directory's name below the home directory.
const char* const kCacheDirName = ".cache/Ostrel Systems/TRK";

}  // namespace

zeb::CString CacheDirFor(const char* home, const char* passwordHome) {
  if (!home) home = passwordHome;
  // No HOME and no password entry: refuse rather than fall back to a relative
  // path, which would read and write ".meta" files below whatever directory
  // the host happens to run in.
  if (!home) return zeb::CString();
  return zeb::path::MakePath(Text(home), Text(kCacheDirName), '/');
}

namespace {

// The password database's home directory of the real user. True with `home`
// set when there is an entry; false otherwise. getpwuid_r keeps the record in
// our own buffer, so concurrent listings do not share getpwuid's static one.
bool PasswordHome(zeb::CString& home) {
  long hint = sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(hint > 0 ? static_cast<size_t>(hint) : 4096);
  for (;;) {
    passwd record;
    passwd* found = nullptr;
    int error = getpwuid_r(getuid(), &record, buffer.data(), buffer.size(), &found);
    if (error == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (error != 0 || !found || !found->pw_dir) return false;
    home = found->pw_dir;
    return true;
  }
}

}  // namespace

zeb::CString GetCacheDir() {
  const char* home = std::getenv("HOME");
  if (home) return CacheDirFor(home, nullptr);
  zeb::CString passwordHome;
  if (!PasswordHome(passwordHome)) return CacheDirFor(nullptr, nullptr);
  return CacheDirFor(nullptr, passwordHome.c_str());
}

}  // namespace trk
}  // namespace zeb
