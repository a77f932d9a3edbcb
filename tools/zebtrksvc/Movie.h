// Movie: one movie of the drive as the catalogue found it: a raw imager file
// pair "<number>-<name>.dat" + "<number>-<name>.info", its description from
// the information file, and the identity of its data file.
//
// The values that the protocol reports ("size", "rtcTime", "startTime",
// "endTime") are computed here, so every answer describes a movie the same
// way. A plain value; copies are independent.
#pragma once

#include <cstdint>
#include <string>

namespace zebtrksvc {

struct Movie {
  uint64_t number = 0;    // the digits before the first hyphen
  std::string name;       // everything after the first hyphen, without ".dat"
  std::string stem;       // "<number>-<name>" as written in the file name
  std::string dataPath;   // absolute path of the ".dat" file
  std::string infoPath;   // absolute path of the ".info" file
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t frames = 0;
  bool hasTiming = false;
  long firstFrameTicks = 0;   // 100-ns ticks since 1601 (with hasTiming)
  long framePeriodTicks = 0;  // ticks between frames (with hasTiming)
  uint64_t dataBytes = 0;     // size of the ".dat" file
  int64_t modifiedSeconds = 0;  // modification time of the ".dat", since 1970
  uint64_t device = 0;        // identity of the ".dat" file
  uint64_t inode = 0;

  // Bytes of one frame: width x height x 2.
  uint64_t frameBytes() const { return uint64_t{width} * height * 2; }
  // Byte offset of `frame` in the data file (64-bit: data files may exceed
  // 4 GiB).
  uint64_t frameOffset(uint64_t frame) const { return frame * frameBytes(); }

  // "size": the data file's size in KiB (1024 bytes), rounded up, saturating
  // at 0xFFFFFFFF (the field is 32 bits wide on the client's side).
  uint64_t sizeValue() const;
  // "rtcTime": seconds since 1970 of the first frame's time stamp; without
  // timing, the data file's modification time.
  uint64_t rtcTime() const;
  // "startTime" / "endTime": packed time codes of the first and the last
  // frame; 0 without timing.
  uint64_t startTime() const;
  uint64_t endTime() const;

  // True when both describe the same data file (device and inode) with the
  // same reported values, so a rescan that finds `other` changed nothing.
  bool SameAs(const Movie& other) const;
};

}  // namespace zebtrksvc
