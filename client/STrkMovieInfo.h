// STrkMovieInfo: one movie on the recorder's drive as the service describes
// it ("result" -> "info" of GetMovieInfo).
//
// A plain record, packed: the fields follow one another without padding, so
// startTime and endTime do not lie on 8-byte boundaries. The file system's
// movie cache holds the records in this form. Read packed fields by value;
// do not bind references or pointers to the wider ones.
//
// Ownership: none; copy freely. Threads: as for any plain value.
#pragma once

#include <cstdint>

#pragma pack(push, 1)
struct STrkMovieInfo {
  uint32_t size;       // "size": size value reported by the service
  char name[64];       // "name": at most 63 characters and a terminating zero
  uint16_t width;      // "width": frame width in pixels
  uint16_t height;     // "height": frame height in pixels
  uint64_t numFrames;  // "numFrames": number of frames
  uint64_t number;     // "number": the movie's number on the drive
  uint32_t rtcTime;    // "rtcTime": recording time, seconds since 1970 (UTC)
  uint64_t startTime;  // "startTime": packed time code of the first frame
  uint64_t endTime;    // "endTime": packed time code of the last frame
  uint32_t status;     // "status": status value reported by the service
};
#pragma pack(pop)

static_assert(sizeof(STrkMovieInfo) == 4 + 64 + 2 + 2 + 8 + 8 + 4 + 8 + 8 + 4, "STrkMovieInfo is packed");
