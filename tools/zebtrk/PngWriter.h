// PngWriter: writes PNG images with libpng: 16-bit grayscale frames (the
// movie's pixels, unchanged) and 8-bit RGB previews.
//
// PNG stores 16-bit samples big-endian; the frame bytes come little-endian
// from the movie and are swapped row by row here. libpng reports errors by
// longjmp, so the libpng calls live in a function without C++ objects and
// errors come back as a message.
//
// Stateless; any thread (each call has its own libpng state).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

class PngWriter {
 public:
  // Writes a width x height grayscale image of 16-bit samples given as
  // little-endian byte pairs (`frame`, width x height x 2 bytes) to
  // `stream`. True on success; false with `error` set otherwise.
  static bool WriteGray16(FILE* stream, const uint8_t* frame, unsigned int width, unsigned int height,
                          std::string& error);
  // Writes a width x height RGB image (`rgb`, width x height x 3 bytes).
  static bool WriteRgb8(FILE* stream, const uint8_t* rgb, unsigned int width, unsigned int height, std::string& error);
};
