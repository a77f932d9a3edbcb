// PngWriter: encodes PNG images in memory with libpng: 16-bit grayscale
// frames (the movie's pixels, unchanged) and 8-bit RGB previews.
//
// Speed: exporting is the tool's main job, and at libpng's default zlib
// settings a 640x512 frame costs about 280 ms. Measured on synthetic thermal
// frames (bench/PngSettings.cpp): zlib's Z_RLE strategy with the "up" row
// filter for every row takes 13 ms a frame for files 1.5% larger than the
// default; adaptive filtering costs twice the time for 1% less, level 1 of
// the default strategy 23-35 ms for +3-5%, no filter +12-18%. See
// docs/decisions.md.
//
// PNG stores 16-bit samples big-endian; libpng swaps the little-endian frame
// bytes row by row (png_set_swap). libpng reports errors by longjmp, so the
// libpng calls live in a function without C++ objects and errors come back
// as a message.
//
// Stateless; any thread (each call has its own libpng state).
#pragma once

#include <cstdint>
#include <string>

class PngWriter {
 public:
  // Encodes a width x height grayscale image of 16-bit samples given as
  // little-endian byte pairs (`frame`, width x height x 2 bytes) into `png`.
  // True on success; false with `error` set otherwise.
  static bool EncodeGray16(const uint8_t* frame, unsigned int width, unsigned int height, std::string& png,
                           std::string& error);
  // Encodes a width x height RGB image (`rgb`, width x height x 3 bytes).
  static bool EncodeRgb8(const uint8_t* rgb, unsigned int width, unsigned int height, std::string& png,
                         std::string& error);
};
