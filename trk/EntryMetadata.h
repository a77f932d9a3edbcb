// EntryMetadata: the seven properties of a movie entry ("width", "height",
// "numFrames", "index", "startTime", "endTime", "duration") and its fixed
// fields, from a cached movie record (normal mode) or from a ".meta" store
// beside a raw imager file in the cache directory (emulator mode); and the
// decoding of the service's packed time codes.
//
// No state is kept in memory. GetDirectoryEntryMeta keeps its state on disk:
// it writes a movie's ".meta" store once, when it is missing, and reads it on
// every later call. Any thread may call these functions; FillMovieEntry's
// caller holds the file system's lock while the record is read, and
// GetDirectoryEntryMeta takes no lock (concurrent calls for one movie each
// build their own store; the last Save wins).
#pragma once

#include <cstdint>

#include <zeb/CString.h>
#include <zeb/IFileSystem.h>

#include "client/STrkMovieInfo.h"

namespace zeb {
namespace trk {

// A packed time code decoded into its fields. No field is range-checked.
struct SPackedTime {
  std::uint16_t day;  // day of the year
  std::uint8_t hour;
  std::uint8_t minute;
  std::uint8_t second;
  std::uint16_t millisecond;  // (fraction word / 1000) modulo 65536
  std::uint32_t microsecond;  // fraction word modulo 1000
};

// Splits `packed` into 16-bit words w0 (bits 0-15) to w3 (bits 48-63); the
// clock word is w0:w1 (w0 upper), the fraction word w2:w3 (w2 upper). The
// clock word holds second (bits 0-5), minute (6-11), hour (12-17) and day
// (18-26).
SPackedTime DecodePackedTime(std::uint64_t packed);

// "%03d:%02d:%02d:%02d.%03d%03d" of day, hour, minute, second, millisecond,
// microsecond (milliseconds and microseconds run together).
zeb::CString FormatPackedTime(const SPackedTime& time);

// The time in microseconds from day 0 of the year, with the 16-bit
// millisecond value.
std::uint64_t TotalMicroseconds(const SPackedTime& time);

// Fills `entry` from the cached record `movie` at position `index` of the
// cache: type 2, time from rtcTime, size width x numFrames x height x 2
// (64-bit), then the properties width, height, numFrames, index, startTime,
// endTime and duration (end minus start in microseconds, modulo 2^64). The
// entry's name and path are the caller's. Cannot fail.
void FillMovieEntry(zeb::IFileSystem::CDirectoryEntry& entry, const STrkMovieInfo& movie, std::uint32_t index);

}  // namespace trk
}  // namespace zeb

// Emulator mode: sets the seven properties of `entry` (named by its `name`,
// the movie's base name without extension) from the store "<name>.meta" in the
// cache directory. When the store cannot be loaded it is made from the raw
// imager file "<name>.dat" there and saved (the save's result is not tested).
// True when the properties were set; false, with the entry untouched and no
// file written, when there is neither a readable store nor a raw imager file
// that opens (or no cache directory at all).
bool GetDirectoryEntryMeta(zeb::IFileSystem::CDirectoryEntry& entry);
