// PgmWriter: writes a frame as a binary 16-bit PGM image ("P5", maxval
// 65535), whose samples are big-endian by the format's definition; the
// frame's little-endian byte pairs are swapped.
//
// Stateless; any thread.
#pragma once

#include <cstdint>
#include <string>

class PgmWriter {
 public:
  // The whole file for a width x height frame given as little-endian byte
  // pairs: the header "P5\n<width> <height>\n65535\n", then the samples.
  static std::string Encode(const uint8_t* frame, unsigned int width, unsigned int height);
};
