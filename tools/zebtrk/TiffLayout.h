// TiffLayout: a movie as an uncompressed multi-page TIFF (little-endian,
// classic 32-bit offsets), one 16-bit grayscale page per frame, laid out so
// that the frame data sits unchanged in the middle:
//
//   [8-byte header][frame 0 .. frame N-1, the movie's frame data][IFD 0 .. IFD N-1]
//
// Every page directory has the same eleven entries, each value stored inline,
// so directory n is computed from n alone (138 bytes): nothing per frame is
// held in memory, and the directories of a movie of 100,000 frames cost
// nothing until they are read. ImageJ opens such a file as a virtual stack.
// Movies whose file would pass 4 GiB, the limit of classic TIFF offsets, have
// no TIFF view.
//
// Pure functions; any thread.
#pragma once

#include <cstddef>
#include <string>

class TiffLayout {
 public:
  // Whether a TIFF of these dimensions fits classic TIFF offsets.
  static bool Fits(unsigned long frames, unsigned int height, unsigned int width);
  // The 8-byte header (byte order, magic 42, offset of the first directory).
  static std::string Header(unsigned long frames, unsigned int height, unsigned int width);
  // Bytes of all directories together.
  static unsigned long DirectoryBytes(unsigned long frames);
  // `count` bytes of the directories from `offset` (within the directories)
  // into `out`.
  static void CopyDirectories(unsigned long frames, unsigned int height, unsigned int width, unsigned long offset,
                              char* out, size_t count);
};
