#include "tools/zebtrk/PngWriter.h"

#include <png.h>
#include <zlib.h>

#include <csetjmp>
#include <cstdio>
#include <vector>

namespace {

// Where libpng's error callback leaves its message before it jumps back.
struct SErrorState {
  char message[256];
};

void OnError(png_structp png, png_const_charp message) {
  SErrorState* state = static_cast<SErrorState*>(png_get_error_ptr(png));
  snprintf(state->message, sizeof(state->message), "%s", message ? message : "libpng error");
  png_longjmp(png, 1);
}

void OnWarning(png_structp, png_const_charp) {}

// Appends to the std::string behind the io pointer. An allocation failure
// becomes a libpng error (no exception may cross libpng's C frames).
void Append(png_structp png, png_bytep data, png_size_t size) {
  std::string* out = static_cast<std::string*>(png_get_io_ptr(png));
  bool ok = true;
  try {
    out->append(reinterpret_cast<const char*>(data), size);
  } catch (...) {
    ok = false;
  }
  if (!ok) png_error(png, "out of memory");
}

void Flush(png_structp) {}

// The libpng calls. Only plain data lives in this frame, so the longjmp of
// an error skips no destructor. `rows` holds height row pointers.
bool EncodeImage(std::string* out, unsigned int width, unsigned int height, int bitDepth, int colourType,
                 png_bytep* rows, SErrorState* state) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, state, OnError, OnWarning);
  if (!png) {
    snprintf(state->message, sizeof(state->message), "out of memory");
    return false;
  }
  png_infop info = png_create_info_struct(png);
  if (!info) {
    png_destroy_write_struct(&png, nullptr);
    snprintf(state->message, sizeof(state->message), "out of memory");
    return false;
  }
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_set_write_fn(png, out, Append, Flush);
  png_set_compression_strategy(png, Z_RLE);
  png_set_compression_level(png, 1);
  png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_FILTER_UP);
  png_set_IHDR(png, info, width, height, bitDepth, colourType, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  if (bitDepth == 16) png_set_swap(png);
  png_write_image(png, rows);
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

bool Encode(const uint8_t* pixels, unsigned int width, unsigned int height, int bitDepth, int colourType,
            size_t rowBytes, std::string& png, std::string& error) {
  std::vector<png_bytep> rows(height);
  for (unsigned int y = 0; y < height; ++y) rows[y] = const_cast<png_bytep>(pixels + y * rowBytes);
  png.clear();
  png.reserve(static_cast<size_t>(height) * rowBytes / 2 + 1024);
  SErrorState state{};
  if (EncodeImage(&png, width, height, bitDepth, colourType, rows.data(), &state)) return true;
  error = state.message;
  return false;
}

}  // namespace

bool PngWriter::EncodeGray16(const uint8_t* frame, unsigned int width, unsigned int height, std::string& png,
                             std::string& error) {
  return Encode(frame, width, height, 16, PNG_COLOR_TYPE_GRAY, static_cast<size_t>(width) * 2, png, error);
}

bool PngWriter::EncodeRgb8(const uint8_t* rgb, unsigned int width, unsigned int height, std::string& png,
                           std::string& error) {
  return Encode(rgb, width, height, 8, PNG_COLOR_TYPE_RGB, static_cast<size_t>(width) * 3, png, error);
}
