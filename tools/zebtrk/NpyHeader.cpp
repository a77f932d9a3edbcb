// NpyHeader: the .npy version 1.0 header of a 16-bit frame stack.
#include "tools/zebtrk/NpyHeader.h"

namespace {

const char kMagic[] = "\x93NUMPY";
const size_t kMagicBytes = 6;
const size_t kPreambleBytes = kMagicBytes + 2 + 2;  // magic, version, length
const size_t kAlignment = 64;

}  // namespace

std::string NpyHeader(unsigned long frames, unsigned int height, unsigned int width) {
  std::string dict = "{'descr': '<u2', 'fortran_order': False, 'shape': (" + std::to_string(frames) + ", " +
                     std::to_string(height) + ", " + std::to_string(width) + "), }";
  // Pad with spaces so that preamble + dict + '\n' is a multiple of 64.
  const size_t unpadded = kPreambleBytes + dict.size() + 1;
  dict.append((kAlignment - unpadded % kAlignment) % kAlignment, ' ');
  dict.push_back('\n');

  std::string header(kMagic, kMagicBytes);
  header.push_back('\x01');
  header.push_back('\x00');
  header.push_back(static_cast<char>(dict.size() & 0xFF));
  header.push_back(static_cast<char>((dict.size() >> 8) & 0xFF));
  return header + dict;
}
