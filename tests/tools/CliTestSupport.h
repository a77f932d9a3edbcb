// CliTestSupport: decoding the PNG and TIFF files that the zebtrk command
// writes back to samples (libpng, libtiff), for the zebtrk tests. One test
// thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace clitest {

struct SPng {
  unsigned int width = 0;
  unsigned int height = 0;
  int bitDepth = 0;
  int colourType = 0;
  std::vector<uint8_t> bytes;  // rows as stored: 16-bit samples big-endian
};
// Decodes the PNG file at `path`; false when libpng rejects it.
bool ReadPng(const std::string& path, SPng& png);

// One page of a multi-page TIFF as stored, with the tags the export sets.
struct STiffPage {
  unsigned int width = 0, height = 0, bitsPerSample = 0;
  std::string samples;  // strip bytes (native little-endian 16-bit)
  std::string description, pageName, dateTime;
};
// Reads every page of the TIFF at `path`; false when libtiff rejects it.
bool ReadTiff(const std::string& path, std::vector<STiffPage>& pages);

}  // namespace clitest
