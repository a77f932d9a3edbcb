#include "tests/tools/CliTestSupport.h"

#include <png.h>
#include <tiffio.h>

#include <cstdio>

namespace clitest {

namespace {

struct SPngRead {
  png_structp png = nullptr;
  png_infop info = nullptr;
  ~SPngRead() { png_destroy_read_struct(&png, &info, nullptr); }
};

// libpng calls without C++ objects in the frame (longjmp on error).
bool DecodePng(FILE* file, png_structp png, png_infop info, SPng* out, png_bytep* rows, bool readRows) {
  if (setjmp(png_jmpbuf(png))) return false;
  if (!readRows) {
    png_init_io(png, file);
    png_read_info(png, info);
    out->width = png_get_image_width(png, info);
    out->height = png_get_image_height(png, info);
    out->bitDepth = png_get_bit_depth(png, info);
    out->colourType = png_get_color_type(png, info);
    return true;
  }
  png_read_image(png, rows);
  png_read_end(png, nullptr);
  return true;
}

}  // namespace

bool ReadPng(const std::string& path, SPng& png) {
  FILE* file = fopen(path.c_str(), "rb");
  if (!file) return false;
  SPngRead state;
  state.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  state.info = state.png ? png_create_info_struct(state.png) : nullptr;
  bool ok = state.info && DecodePng(file, state.png, state.info, &png, nullptr, false);
  if (ok) {
    const size_t rowBytes = png_get_rowbytes(state.png, state.info);
    png.bytes.assign(rowBytes * png.height, 0);
    std::vector<png_bytep> rows(png.height);
    for (unsigned int y = 0; y < png.height; ++y) rows[y] = png.bytes.data() + y * rowBytes;
    ok = DecodePng(file, state.png, state.info, &png, rows.data(), true);
  }
  fclose(file);
  return ok;
}

bool ReadTiff(const std::string& path, std::vector<STiffPage>& pages) {
  TIFF* tiff = TIFFOpen(path.c_str(), "r");
  if (!tiff) return false;
  bool ok = true;
  do {
    STiffPage page;
    uint16_t bits = 0;
    const char* text = nullptr;
    ok = TIFFGetField(tiff, TIFFTAG_IMAGEWIDTH, &page.width) && TIFFGetField(tiff, TIFFTAG_IMAGELENGTH, &page.height) &&
         TIFFGetField(tiff, TIFFTAG_BITSPERSAMPLE, &bits) && TIFFNumberOfStrips(tiff) == 1;
    if (!ok) break;
    page.bitsPerSample = bits;
    if (TIFFGetField(tiff, TIFFTAG_IMAGEDESCRIPTION, &text)) page.description = text;
    if (TIFFGetField(tiff, TIFFTAG_PAGENAME, &text)) page.pageName = text;
    if (TIFFGetField(tiff, TIFFTAG_DATETIME, &text)) page.dateTime = text;
    page.samples.resize(TIFFStripSize(tiff));
    ok = TIFFReadEncodedStrip(tiff, 0, &page.samples[0], -1) == static_cast<tmsize_t>(page.samples.size());
    pages.push_back(page);
  } while (ok && TIFFReadDirectory(tiff));
  TIFFClose(tiff);
  return ok;
}

}  // namespace clitest
