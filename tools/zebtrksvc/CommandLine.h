// CommandLine: the arguments of zebtrksvc, checked, and its usage text.
//
//   zebtrksvc --drive DIR [--verbose]             serve the drive folder DIR
//   zebtrksvc make-demo DIR [--movies N] [--seed S] [--frames F]
//   zebtrksvc make-movie DIR --width W --height H --frames F --number N
//             --name NAME [--seed S] [--rate HZ] [--start SECONDS] [--sparse]
//   zebtrksvc --help | --version
//
// Options take their value as the next argument or after '='. Pure; any
// thread.
#pragma once

#include <cstdint>
#include <string>

#include "tools/zebtrksvc/DemoDrive.h"

namespace zebtrksvc {

struct Options {
  enum class Mode { Serve, MakeDemo, MakeMovie, Help, Version };

  Mode mode = Mode::Serve;
  std::string drive;    // Serve: the drive folder as given
  bool verbose = false;
  std::string folder;   // MakeDemo, MakeMovie: where to write
  unsigned movies = 6;  // MakeDemo
  uint64_t seed = 1;    // MakeDemo
  uint32_t frames = 0;  // MakeDemo: 0 lets every movie pick its own
  MovieSpec movie;      // MakeMovie
};

class CommandLine {
 public:
  // The longest movie name the plug-in shows (longer ones it shows empty).
  static constexpr size_t kMaxNameBytes = 63;

  // Fills `options` from argv[1..argc-1]. Success: true. Failure: false with
  // `error` naming the offending argument.
  static bool Parse(int argc, const char* const* argv, Options& options, std::string& error);
  // The usage text (several lines, ending in a newline).
  static const char* Usage();
};

}  // namespace zebtrksvc
