#include "tools/zebtrk/PngWriter.h"

#include <png.h>

#include <csetjmp>
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

// The libpng calls. Only plain data lives in this frame, so the longjmp of
// an error skips no destructor. `rows` holds height row pointers.
bool WriteImage(FILE* stream, unsigned int width, unsigned int height, int bitDepth, int colourType, png_bytep* rows,
                SErrorState* state) {
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
  png_init_io(png, stream);
  png_set_IHDR(png, info, width, height, bitDepth, colourType, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  png_write_image(png, rows);
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

bool Write(FILE* stream, unsigned int width, unsigned int height, int bitDepth, int colourType,
           std::vector<uint8_t>& pixels, size_t rowBytes, std::string& error) {
  std::vector<png_bytep> rows(height);
  for (unsigned int y = 0; y < height; ++y) rows[y] = pixels.data() + y * rowBytes;
  SErrorState state{};
  if (WriteImage(stream, width, height, bitDepth, colourType, rows.data(), &state)) return true;
  error = state.message;
  return false;
}

}  // namespace

bool PngWriter::WriteGray16(FILE* stream, const uint8_t* frame, unsigned int width, unsigned int height,
                            std::string& error) {
  const size_t bytes = static_cast<size_t>(width) * height * 2;
  std::vector<uint8_t> bigEndian(bytes);
  for (size_t i = 0; i < bytes; i += 2) {
    bigEndian[i] = frame[i + 1];
    bigEndian[i + 1] = frame[i];
  }
  return Write(stream, width, height, 16, PNG_COLOR_TYPE_GRAY, bigEndian, static_cast<size_t>(width) * 2, error);
}

bool PngWriter::WriteRgb8(FILE* stream, const uint8_t* rgb, unsigned int width, unsigned int height,
                          std::string& error) {
  std::vector<uint8_t> copy(rgb, rgb + static_cast<size_t>(width) * height * 3);
  return Write(stream, width, height, 8, PNG_COLOR_TYPE_RGB, copy, static_cast<size_t>(width) * 3, error);
}
