// FrameRange: the frames an export covers, from the command line's
// "--frames A:B".
//
// Syntax (0-based frame numbers, half-open like a slice):
//   A:B   frames A, A+1, ..., B-1
//   A:    frames A to the last
//   :B    frames 0 to B-1
//   :     every frame (the default)
//   N     frame N alone (the same as N:N+1)
// Numbers are decimal digits only. A range must hold at least one frame and
// lie within the movie.
//
// A plain value; Parse is a pure function.
#pragma once

#include <string>

struct FrameRange {
  unsigned long first = 0;  // first frame exported
  unsigned long end = 0;    // one past the last frame exported

  unsigned long count() const { return end - first; }

  // Parses `text` for a movie of `frames` frames. Failure: CliError
  // kExitUsage saying what is wrong and what the movie holds.
  static FrameRange Parse(const std::string& text, unsigned long frames);
};
