// zebtrk_bench_drive TEMPLATE DIR COUNT
//
// Fills the drive folder DIR with COUNT movies for the listing benchmarks:
// copies of the movie pair TEMPLATE.dat + TEMPLATE.info (a tiny movie written
// by "zebtrksvc make-movie") named "<i>-Run <i> outdoor" for i = 1..COUNT.
// One process copying files is much faster than COUNT runs of the generator.
// Exit status 0 on success, 1 on failure (with a message), 2 on bad usage.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

namespace fs = std::filesystem;

int main(int argc, char** argv) {
  long count = argc == 4 ? std::atol(argv[3]) : 0;
  if (count <= 0) {
    std::fprintf(stderr, "usage: zebtrk_bench_drive TEMPLATE DIR COUNT\n");
    return 2;
  }
  const std::string from = argv[1];
  const fs::path dir = argv[2];
  std::error_code error;
  fs::create_directories(dir, error);
  for (long i = 1; i <= count && !error; ++i) {
    std::string stem = std::to_string(i) + "-Run " + std::to_string(i) + " outdoor";
    for (const char* extension : {".dat", ".info"}) {
      fs::copy_file(from + extension, dir / (stem + extension), fs::copy_options::overwrite_existing, error);
      if (error) break;
    }
  }
  if (error) {
    std::fprintf(stderr, "zebtrk_bench_drive: %s\n", error.message().c_str());
    return 1;
  }
  return 0;
}
