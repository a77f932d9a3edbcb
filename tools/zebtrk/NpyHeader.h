// NpyHeader: the header of a NumPy ".npy" file (format version 1.0) that
// holds a stack of 16-bit frames: shape (frames, height, width), dtype "<u2",
// C order. The frame bytes follow the header directly, so a raw frame data
// file with this header in front is an .npy file that
// numpy.load(path, mmap_mode="r") maps without reading it.
//
// The header is the magic "\x93NUMPY", the version bytes 1 0, a
// little-endian 16-bit length, and a Python dict literal padded with spaces
// and ended by '\n' so that the data starts at a multiple of 64 bytes.
// Pure function; any thread.
#pragma once

#include <string>

// The header bytes for `frames` frames of `height` x `width` pixels.
std::string NpyHeader(unsigned long frames, unsigned int height, unsigned int width);
