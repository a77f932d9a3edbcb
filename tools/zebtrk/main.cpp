// zebtrk: a command-line host for the libzebtrk plug-in. It loads the plug-in
// as a zeb application does and lists, describes, exports, removes and
// watches the movies of the recorder's drive (or of the emulator's cache
// directory). See `zebtrk --help`.
#include <iostream>
#include <string>
#include <vector>

#include "tools/zebtrk/CliError.h"
#include "tools/zebtrk/Commands.h"

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  Commands commands(std::cout, std::cerr);
  const int code = commands.Run(args);
  // A full disk or a closed pipe behind stdout is a failure, not a success.
  std::cout.flush();
  if (!std::cout && code == kExitOk) {
    std::cerr << "zebtrk: cannot write to standard output\n";
    return kExitFailure;
  }
  return code;
}
