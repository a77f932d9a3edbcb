// zebtrk_bench_png_settings: encodes frames of a movie's frame data file as
// 16-bit grayscale PNG with each zlib strategy, level and row filter in turn
// and prints the time per frame and the size against libpng's defaults. The
// measurement behind the export's PNG settings (see docs/decisions.md).
//
//   zebtrk_bench_png_settings FILE.dat WIDTH HEIGHT [FRAMES]
#include <png.h>
#include <zlib.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

struct SSetting {
  const char* name;
  int strategy;  // -1: libpng's default
  int level;     // -1: libpng's default
  int filter;    // 0: libpng's default (adaptive)
};

void Append(png_structp png, png_bytep data, png_size_t size) {
  auto* out = static_cast<std::string*>(png_get_io_ptr(png));
  out->append(reinterpret_cast<const char*>(data), size);
}
void Flush(png_structp) {}

size_t Encode(const SSetting& setting, const std::vector<png_bytep>& rows, unsigned width, unsigned height) {
  std::string out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png))) std::abort();
  png_set_write_fn(png, &out, Append, Flush);
  if (setting.strategy >= 0) png_set_compression_strategy(png, setting.strategy);
  if (setting.level >= 0) png_set_compression_level(png, setting.level);
  if (setting.filter != 0) png_set_filter(png, 0, setting.filter);
  png_set_IHDR(png, info, width, height, 16, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_write_info(png, info);
  png_set_swap(png);
  png_write_image(png, const_cast<png_bytepp>(rows.data()));
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return out.size();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: %s FILE.dat WIDTH HEIGHT [FRAMES]\n", argv[0]);
    return 2;
  }
  std::ifstream file(argv[1], std::ios::binary);
  const std::string data((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  const unsigned width = std::atoi(argv[2]), height = std::atoi(argv[3]);
  const size_t frameBytes = size_t(width) * height * 2;
  const unsigned frames = std::min<unsigned>(argc > 4 ? std::atoi(argv[4]) : 20, data.size() / frameBytes);
  const SSetting settings[] = {
      {"libpng default", -1, -1, 0},
      {"level 1, adaptive", -1, 1, 0},
      {"level 1, sub", Z_DEFAULT_STRATEGY, 1, PNG_FILTER_SUB},
      {"level 1, up", Z_DEFAULT_STRATEGY, 1, PNG_FILTER_UP},
      {"level 1, paeth", Z_DEFAULT_STRATEGY, 1, PNG_FILTER_PAETH},
      {"rle, none", Z_RLE, 1, PNG_FILTER_NONE},
      {"rle, sub", Z_RLE, 1, PNG_FILTER_SUB},
      {"rle, up", Z_RLE, 1, PNG_FILTER_UP},
      {"rle, avg", Z_RLE, 1, PNG_FILTER_AVG},
      {"rle, paeth", Z_RLE, 1, PNG_FILTER_PAETH},
      {"rle, adaptive", Z_RLE, 1, 0},
      {"huffman, up", Z_HUFFMAN_ONLY, 1, PNG_FILTER_UP},
      {"filtered 1, up", Z_FILTERED, 1, PNG_FILTER_UP},
  };
  double baseSize = 0;
  std::printf("%-20s %10s %12s %8s\n", "setting", "ms/frame", "bytes/frame", "size");
  for (const SSetting& setting : settings) {
    size_t bytes = 0;
    const auto start = std::chrono::steady_clock::now();
    for (unsigned f = 0; f < frames; ++f) {
      std::vector<png_bytep> rows(height);
      for (unsigned y = 0; y < height; ++y) {
        rows[y] = reinterpret_cast<png_bytep>(const_cast<char*>(data.data())) + f * frameBytes + y * width * 2;
      }
      bytes += Encode(setting, rows, width, height);
    }
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    const double perFrame = double(bytes) / frames;
    if (baseSize == 0) baseSize = perFrame;
    std::printf("%-20s %10.2f %12.0f %7.1f%%\n", setting.name, ms / frames, perFrame, 100.0 * perFrame / baseSize);
  }
  return 0;
}
