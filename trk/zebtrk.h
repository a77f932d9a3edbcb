/* zebtrk.h: the C interface of libzebtrk, for hosts that do not use the zeb
 * framework's classes.
 *
 * Every function reaches the process's single "trk:" file system through
 * zeb::trk::instance(); whichever is called first constructs it, which
 * connects to the movie service and may wait for its answers. Any thread may
 * call any function. None of them catches exceptions: exhausted memory
 * raises the standard library's allocation exception.
 *
 * Ownership: the listing and entry returned by zebtrk_GetDirectoryListing and
 * zebtrk_GetInfo are made with new and belong to the caller, who deletes them
 * (C++ hosts; C hosts treat them as opaque). A handle returned by
 * zebtrk_AddFilesChangedHandler belongs to the caller until it is passed to
 * zebtrk_RemoveFilesChangedHandler, which consumes it.
 */
#ifndef ZEBTRK_ZEBTRK_H
#define ZEBTRK_ZEBTRK_H

#include <zeb/zebDelegate.h>

#define ZEBTRK_API __attribute__((visibility("default")))

#ifdef __cplusplus
#include <zeb/IFileSystem.h>

namespace zeb {
namespace trk {
class CTrkInterface;
}  // namespace trk
}  // namespace zeb

typedef zeb::trk::CTrkInterface zebtrk_Interface;
typedef zeb::IFileSystem::CDirectoryListing zebtrk_DirectoryListing;
typedef zeb::IFileSystem::CDirectoryEntry zebtrk_DirectoryEntry;

extern "C" {
#else
#include <stdbool.h>

/* Opaque to C. */
typedef struct zebtrk_Interface zebtrk_Interface;
typedef struct zebtrk_DirectoryListing zebtrk_DirectoryListing;
typedef struct zebtrk_DirectoryEntry zebtrk_DirectoryEntry;
#endif

/* Constructs the file system if it does not exist yet and returns it. */
ZEBTRK_API zebtrk_Interface* zebtrk_Load(void);

/* True in emulator mode; otherwise the movie service's answer to a drive
 * query (false when no drive is reported or the service cannot be asked). */
ZEBTRK_API bool zebtrk_drivePresent(void);

/* Registers callback(userData) as a files-changed handler, called after every
 * refresh of the movie list, in the refreshing thread with the file system's
 * lock held (the callback may call the other functions). Returns the handle
 * that removes it. Each call registers a new handler, even for the same
 * callback and user data. A null callback registers nothing and returns the
 * empty handle (all three words null). */
ZEBTRK_API zebDelegate zebtrk_AddFilesChangedHandler(void (*callback)(void* userData), void* userData);

/* Unregisters the handler (any copy of a handle works) and releases the
 * handle, which must not be used again. Once it returns, the callback is not
 * called again. */
ZEBTRK_API void zebtrk_RemoveFilesChangedHandler(zebDelegate handler);

/* The listing of `path` with the wildcard `filter` (null: every movie), in a
 * new object; empty for any directory but the root. Never null. */
ZEBTRK_API zebtrk_DirectoryListing* zebtrk_GetDirectoryListing(const char* path, const char* filter);

/* The entry of `path` in a new object; its type is 0x80000000 when the path
 * names no movie. Never null. */
ZEBTRK_API zebtrk_DirectoryEntry* zebtrk_GetInfo(const char* path);

/* Deletes the movie at `path`; true when it was deleted. */
ZEBTRK_API bool zebtrk_RemoveFile(const char* path);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEBTRK_ZEBTRK_H */
