// SRawImagerInfo: the contents of a raw imager file's information file (see
// docs/raw-imager-format.md), and its INI text.
//
// The frame data file holds `frames` frames back to back, each `width` x
// `height` pixels of 16 bits, little-endian, row by row, no header. The
// information file is CINIStore text with the keys of section "raw":
//   version=1  width  height  frames  pixelFormat=uint16le
//   firstFrameTime  (optional) first frame's time, 100-ns ticks since
//                   1601-01-01 UTC
//   framePeriod     (optional, with firstFrameTime) ticks between frames
// Frame n was taken at firstFrameTime + n x framePeriod.
// A plain value; pure functions.
#pragma once

#include <zeb/Api.h>
#include <zeb/CDateTime.h>
#include <zeb/CString.h>

namespace zeb {
namespace file {

struct ZEB_API SRawImagerInfo {
  // Largest frame in bytes: one frame must fit one IFile::Read.
  static constexpr unsigned long kMaxFrameBytes = 0x7FFFFFFFUL;
  // Largest information file that is read.
  static constexpr unsigned long kMaxInfoBytes = 1UL << 20;

  unsigned int width = 0;
  unsigned int height = 0;
  unsigned int frames = 0;
  bool hasTiming = false;
  long firstFrameTicks = 0;
  long framePeriodTicks = 0;

  // width x height x 2.
  unsigned long frameBytes() const;
  // The data file's size: frameBytes() x frames.
  unsigned long dataBytes() const;
  // The time of `frame`; empty without timing.
  CDateTime FrameTime(unsigned int frame) const;

  // True when the fields describe a usable file: width and height 1 to
  // 65535, a frame of at most kMaxFrameBytes, at least one frame, and (with
  // timing) non-negative times whose last frame time fits in 64 bits.
  bool IsValid() const;

  // The information file's text.
  CString ToText() const;
  // Reads `text`. True when every required key is present, every number
  // parses, the pixel format is "uint16le", the version (if given) is 1 and
  // the result IsValid(); `info` is then filled in. False otherwise, with
  // `info` unchanged.
  static bool FromText(const char* text, unsigned long length, SRawImagerInfo& info);
};

}  // namespace file
}  // namespace zeb
