#include "tools/zebtrksvc/CommandLine.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <vector>

#include <zeb/CDateTime.h>

namespace zebtrksvc {
namespace {

// The arguments after the mode, taken one by one.
class Arguments {
 public:
  Arguments(int argc, const char* const* argv, int first) {
    for (int i = first; i < argc; ++i) m_items.emplace_back(argv[i]);
  }
  bool done() const { return m_next >= m_items.size(); }
  const std::string& peek() const { return m_items[m_next]; }
  std::string take() { return m_items[m_next++]; }

  // For "--key=value" and "--key value": splits the option; false (with
  // `error`) when the value is missing.
  bool Option(std::string& key, std::string* value, std::string& error) {
    std::string item = take();
    const size_t equals = item.find('=');
    key = item.substr(0, equals);
    if (value == nullptr) {
      if (equals == std::string::npos) return true;
      error = "option " + key + " takes no value";
      return false;
    }
    if (equals != std::string::npos) {
      *value = item.substr(equals + 1);
      return true;
    }
    if (done()) {
      error = "option " + key + " needs a value";
      return false;
    }
    *value = take();
    return true;
  }

 private:
  std::vector<std::string> m_items;
  size_t m_next = 0;
};

bool ParseUnsigned(const std::string& text, uint64_t max, uint64_t& value) {
  if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) return false;
  errno = 0;
  const unsigned long long parsed = std::strtoull(text.c_str(), nullptr, 10);
  if (errno == ERANGE || parsed > max) return false;
  value = parsed;
  return true;
}

template <typename T>
bool Number(const std::string& key, const std::string& text, uint64_t min, uint64_t max, T& value,
            std::string& error) {
  uint64_t parsed = 0;
  if (!ParseUnsigned(text, max, parsed) || parsed < min) {
    error = "option " + key + " needs a whole number from " + std::to_string(min) + " to " +
            std::to_string(max) + ", not \"" + text + "\"";
    return false;
  }
  value = static_cast<T>(parsed);
  return true;
}

bool ParseServe(Arguments& args, Options& options, std::string& error) {
  while (!args.done()) {
    const std::string& next = args.peek();
    std::string key;
    std::string value;
    if (next == "--verbose" || next == "-v") {
      args.take();
      options.verbose = true;
    } else if (next.rfind("--drive", 0) == 0 && (next.size() == 7 || next[7] == '=')) {
      if (!args.Option(key, &value, error)) return false;
      if (value.empty()) {
        error = "option --drive needs a folder";
        return false;
      }
      options.drive = value;
    } else {
      error = "unknown argument \"" + next + "\"";
      return false;
    }
  }
  if (options.drive.empty()) {
    error = "no drive folder given (--drive DIR)";
    return false;
  }
  return true;
}

bool TakeFolder(Arguments& args, const char* mode, Options& options, std::string& error) {
  if (args.done() || args.peek().rfind("--", 0) == 0 || args.peek().empty()) {
    error = std::string(mode) + " needs a folder";
    return false;
  }
  options.folder = args.take();
  return true;
}

bool ParseMakeDemo(Arguments& args, Options& options, std::string& error) {
  if (!TakeFolder(args, "make-demo", options, error)) return false;
  while (!args.done()) {
    std::string key;
    std::string value;
    if (args.peek().rfind("--", 0) != 0) {
      error = "unknown argument \"" + args.peek() + "\"";
      return false;
    }
    if (!args.Option(key, &value, error)) return false;
    bool ok = false;
    if (key == "--movies") {
      ok = Number(key, value, 1, 10000, options.movies, error);
    } else if (key == "--seed") {
      ok = Number(key, value, 0, std::numeric_limits<uint64_t>::max(), options.seed, error);
    } else if (key == "--frames") {
      ok = Number(key, value, 1, std::numeric_limits<uint32_t>::max(), options.frames, error);
    } else {
      error = "unknown option " + key + " for make-demo";
    }
    if (!ok) return false;
  }
  return true;
}

bool ParseMakeMovie(Arguments& args, Options& options, std::string& error) {
  if (!TakeFolder(args, "make-movie", options, error)) return false;
  MovieSpec& movie = options.movie;
  movie = MovieSpec();
  movie.firstFrameTicks = DemoDrive::DefaultStartTicks();
  bool width = false, height = false, frames = false, number = false, name = false;
  while (!args.done()) {
    std::string key;
    std::string value;
    if (args.peek() == "--sparse") {
      args.take();
      movie.sparse = true;
      continue;
    }
    if (args.peek().rfind("--", 0) != 0) {
      error = "unknown argument \"" + args.peek() + "\"";
      return false;
    }
    if (!args.Option(key, &value, error)) return false;
    bool ok = true;
    if (key == "--width") {
      ok = width = Number(key, value, 1, 65535, movie.width, error);
    } else if (key == "--height") {
      ok = height = Number(key, value, 1, 65535, movie.height, error);
    } else if (key == "--frames") {
      ok = frames = Number(key, value, 1, std::numeric_limits<uint32_t>::max(), movie.frames, error);
    } else if (key == "--number") {
      ok = number = Number(key, value, 0, std::numeric_limits<uint64_t>::max(), movie.number, error);
    } else if (key == "--seed") {
      ok = Number(key, value, 0, std::numeric_limits<uint64_t>::max(), movie.seed, error);
    } else if (key == "--name") {
      movie.name = value;
      name = !value.empty() && value.size() <= CommandLine::kMaxNameBytes && value.find('/') == std::string::npos;
      if (value.empty()) {
        error = "option --name needs a name";
      } else if (value.find('/') != std::string::npos) {
        error = "option --name: a movie name cannot hold '/' (it is part of a file name)";
      } else if (!name) {
        error = "option --name: \"" + value.substr(0, 20) + "...\" is " + std::to_string(value.size()) +
                " bytes long; the plug-in shows names of more than " + std::to_string(CommandLine::kMaxNameBytes) +
                " bytes as empty, so the service cannot serve it";
      }
      ok = name;
    } else if (key == "--rate") {
      char* end = nullptr;
      const double rate = std::strtod(value.c_str(), &end);
      movie.framePeriodTicks = DemoDrive::PeriodForRate(rate);
      ok = !value.empty() && end && *end == '\0' && rate <= 10000000 && movie.framePeriodTicks > 0;
      if (!ok) error = "option --rate needs frames per second above 0, not \"" + value + "\"";
    } else if (key == "--start") {
      // Seconds since 1970, up to the end of year 9999.
      long seconds = 0;
      ok = Number(key, value, 0, 253402300799ull, seconds, error);
      movie.firstFrameTicks = zeb::CDateTime::kUnixEpochTicks + seconds * zeb::CDateTime::kTicksPerSecond;
    } else {
      error = "unknown option " + key + " for make-movie";
      ok = false;
    }
    if (!ok) return false;
  }
  if (!width || !height || !frames || !number || !name) {
    error = "make-movie needs --width, --height, --frames, --number and --name";
    return false;
  }
  return true;
}

}  // namespace

bool CommandLine::Parse(int argc, const char* const* argv, Options& options, std::string& error) {
  options = Options();
  if (argc >= 2) {
    const std::string first = argv[1];
    if (first == "--version" || first == "-V") {
      if (argc > 2) {
        error = "--version takes no arguments";
        return false;
      }
      options.mode = Options::Mode::Version;
      return true;
    }
    if (first == "--help" || first == "-h" || first == "help") {
      if (argc > 2) {
        error = "--help takes no arguments";
        return false;
      }
      options.mode = Options::Mode::Help;
      return true;
    }
    if (first == "make-demo") {
      options.mode = Options::Mode::MakeDemo;
      Arguments args(argc, argv, 2);
      return ParseMakeDemo(args, options, error);
    }
    if (first == "make-movie") {
      options.mode = Options::Mode::MakeMovie;
      Arguments args(argc, argv, 2);
      return ParseMakeMovie(args, options, error);
    }
  }
  options.mode = Options::Mode::Serve;
  Arguments args(argc, argv, 1);
  return ParseServe(args, options, error);
}

const char* CommandLine::Usage() {
  return "usage: zebtrksvc --drive DIR [--verbose]\n"
         "       zebtrksvc make-demo DIR [--movies N] [--seed S] [--frames F]\n"
         "       zebtrksvc make-movie DIR --width W --height H --frames F --number N --name NAME\n"
         "                 [--seed S] [--rate HZ] [--start SECONDS] [--sparse]\n"
         "       zebtrksvc --help | --version\n"
         "\n"
         "Serves the movies of the drive folder DIR over /tmp/zebtrksvc, the way the\n"
         "recorder's movie service does, so the libzebtrk plug-in can be used without a\n"
         "recorder. A movie is a raw imager file pair \"N-Name.dat\" + \"N-Name.info\".\n"
         "The drive is present while DIR exists; movies added, removed or deleted there\n"
         "are announced to the clients' event queues.\n"
         "\n"
         "  --drive DIR    the drive folder (it need not exist yet)\n"
         "  --verbose      log connections, failed requests and drive changes to stderr\n"
         "\n"
         "make-demo writes N synthetic thermal movies (default 6) into DIR: several\n"
         "sizes, tens to hundreds of frames, the same bytes for the same seed (default\n"
         "1); --frames gives every movie F frames.\n"
         "make-movie writes one movie of the given size (NAME at most 63 bytes, the\n"
         "longest the plug-in shows): --rate frames per second\n"
         "(default 30), --start the first frame's time in seconds since 1970 (default\n"
         "2024-05-02 08:00 UTC), --sparse writes only the first and last frames and\n"
         "leaves the rest a hole of the data file (for multi-gigabyte movies).\n"
         "\n"
         "The service stops on SIGINT or SIGTERM and removes its socket and shared\n"
         "memory segments. Exit status: 0 when stopped by a signal or when a movie\n"
         "was written, 1 on failure, 2 on bad arguments.\n";
}

}  // namespace zebtrksvc
