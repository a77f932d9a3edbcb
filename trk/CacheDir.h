// CacheDir: the per-user directory ".cache/Ostrel Systems/TRK" below the home
// directory, where the plug-in keeps files of its own and where emulator mode
// finds its movies. Local to the plug-in: the one pair of functions of the
// library that is not exported (every other class and function is), since
// the cache directory is the plug-in's own business and no host calls it.
//
// Pure functions of the environment: nothing is cached between calls, the
// directory is neither created nor tested. Thread-safe as far as getenv and
// getpwuid are (the environment must not change meanwhile).
#pragma once

#include <zeb/CString.h>

#define ZEBTRK_INTERNAL __attribute__((visibility("hidden")))

namespace zeb {
namespace trk {

// The cache directory for a home directory found in HOME (`home`, null when
// HOME is unset) or, failing that, in the password database (`passwordHome`,
// null when there is no entry). A HOME that is set but empty gives the
// relative path ".cache/Ostrel Systems/TRK". With no home at all the result
// is empty: there is then no cache directory, and callers must treat an empty
// result as "nothing there" rather than resolve it against the process's
// working directory.
ZEBTRK_INTERNAL zeb::CString CacheDirFor(const char* home, const char* passwordHome);

// CacheDirFor(getenv("HOME"), home of getpwuid(getuid())); the password
// database is consulted only when HOME is unset.
ZEBTRK_INTERNAL zeb::CString GetCacheDir();

}  // namespace trk
}  // namespace zeb
