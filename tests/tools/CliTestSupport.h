// CliTestSupport: decoding the PNG files that the zebtrk command writes back
// to samples (libpng), for the zebtrk tests. One test thread.
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

}  // namespace clitest
