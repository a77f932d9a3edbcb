#include "tools/zebtrk/TiffLayout.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace {

const unsigned long kHeaderBytes = 8;
const unsigned int kEntries = 11;
const unsigned long kDirectoryBytes = 2 + kEntries * 12 + 4;
const unsigned long kMaxFileBytes = 0xFFFFFFFFUL;

// TIFF field types.
const uint16_t kShort = 3;
const uint16_t kLong = 4;

void Put16(unsigned char* at, uint16_t value) {
  at[0] = static_cast<unsigned char>(value);
  at[1] = static_cast<unsigned char>(value >> 8);
}

void Put32(unsigned char* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<unsigned char>(value >> (8 * i));
}

unsigned long DataBytes(unsigned long frames, unsigned int height, unsigned int width) {
  return frames * height * width * 2UL;
}

// Directory `n` of the file: tags in ascending order, as TIFF requires.
void Directory(unsigned long frames, unsigned int height, unsigned int width, unsigned long n,
               unsigned char* out) {
  const unsigned long frameBytes = height * width * 2UL;
  const unsigned long data = DataBytes(frames, height, width);
  const unsigned long self = kHeaderBytes + data + n * kDirectoryBytes;
  const struct {
    uint16_t tag, type;
    uint32_t value;
  } entries[kEntries] = {
      {254, kLong, 2},                                                     // NewSubfileType: a page
      {256, kLong, width},                                                 // ImageWidth
      {257, kLong, height},                                                // ImageLength
      {258, kShort, 16},                                                   // BitsPerSample
      {259, kShort, 1},                                                    // Compression: none
      {262, kShort, 1},                                                    // Photometric: black is zero
      {273, kLong, static_cast<uint32_t>(kHeaderBytes + n * frameBytes)},  // StripOffsets
      {277, kShort, 1},                                                    // SamplesPerPixel
      {278, kLong, height},                                                // RowsPerStrip
      {279, kLong, static_cast<uint32_t>(frameBytes)},                     // StripByteCounts
      {339, kShort, 1},                                                    // SampleFormat: unsigned
  };
  Put16(out, kEntries);
  for (unsigned int i = 0; i < kEntries; ++i) {
    unsigned char* entry = out + 2 + 12 * i;
    Put16(entry, entries[i].tag);
    Put16(entry + 2, entries[i].type);
    Put32(entry + 4, 1);
    memset(entry + 8, 0, 4);
    if (entries[i].type == kShort) {
      Put16(entry + 8, static_cast<uint16_t>(entries[i].value));
    } else {
      Put32(entry + 8, entries[i].value);
    }
  }
  Put32(out + 2 + 12 * kEntries, n + 1 < frames ? static_cast<uint32_t>(self + kDirectoryBytes) : 0);
}

}  // namespace

bool TiffLayout::Fits(unsigned long frames, unsigned int height, unsigned int width) {
  if (frames == 0 || height == 0 || width == 0) return false;
  const unsigned long data = DataBytes(frames, height, width);
  return data <= kMaxFileBytes && kHeaderBytes + data + DirectoryBytes(frames) <= kMaxFileBytes;
}

std::string TiffLayout::Header(unsigned long frames, unsigned int height, unsigned int width) {
  unsigned char header[kHeaderBytes] = {'I', 'I', 42, 0};
  Put32(header + 4, static_cast<uint32_t>(kHeaderBytes + DataBytes(frames, height, width)));
  return std::string(reinterpret_cast<const char*>(header), kHeaderBytes);
}

unsigned long TiffLayout::DirectoryBytes(unsigned long frames) { return frames * kDirectoryBytes; }

void TiffLayout::CopyDirectories(unsigned long frames, unsigned int height, unsigned int width,
                                 unsigned long offset, char* out, size_t count) {
  unsigned char directory[kDirectoryBytes];
  while (count > 0) {
    const unsigned long n = offset / kDirectoryBytes;
    const unsigned long within = offset % kDirectoryBytes;
    Directory(frames, height, width, n, directory);
    const size_t part = static_cast<size_t>(std::min<unsigned long>(count, kDirectoryBytes - within));
    memcpy(out, directory + within, part);
    out += part;
    offset += part;
    count -= part;
  }
}
