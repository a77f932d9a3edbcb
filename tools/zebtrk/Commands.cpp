#include "tools/zebtrk/Commands.h"

#include <poll.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <map>
#include <ostream>

#include <zeb/TSharedPtr.h>

#include "tools/zebtrk/ArgumentList.h"
#include "tools/zebtrk/ChangeWatcher.h"
#include "tools/zebtrk/CliError.h"
#include "tools/zebtrk/DirectoryWatcher.h"
#include "tools/zebtrk/FrameExporter.h"
#include "tools/zebtrk/JsonWriter.h"
#include "tools/zebtrk/OutputFile.h"
#include "tools/zebtrk/MountCommand.h"
#include "tools/zebtrk/PluginLoader.h"
#include "tools/zebtrk/ProgressBar.h"
#include "tools/zebtrk/ServiceProbe.h"
#include "tools/zebtrk/SignalMonitor.h"
#include "tools/zebtrk/TextFormat.h"

namespace {

const char* const kStatusUsage =
    "zebtrk status\n"
    "  Says whether the movie service answers, whether a drive is present, the\n"
    "  mode (normal or emulator) and how many movies there are. Exit code 0 when\n"
    "  movies can be read, 3 without a service, 4 without a drive.\n";

const char* const kListUsage =
    "zebtrk ls [--json] [FILTER]\n"
    "  One row per movie: name, frames, width x height, size, start (UTC),\n"
    "  duration and frame rate. FILTER is a wildcard pattern ('*' any run of\n"
    "  characters, '?' one character), matched against the movie file name\n"
    "  (\"12-Run A\") or the movie's own name (\"Run A\"). Names are shown with\n"
    "  control characters escaped (\\n, \\t, \\xNN).\n"
    "  --json prints a JSON array of objects, the same in normal and emulator\n"
    "  mode: name, path, number (the digits before the first '-'), index (the\n"
    "  0-based position in the list ordered by number, then name: the service's\n"
    "  own order, by which it names movies), frames, width, height, size (bytes),\n"
    "  startTime and endTime (ISO 8601, UTC, microseconds; null when unknown),\n"
    "  durationMicroseconds (first to last frame, from the frame count and period\n"
    "  when the information file gives them; null when unknown) and frameRate\n"
    "  (frames per second; null when unknown).\n";

const char* const kInfoUsage =
    "zebtrk info NAME\n"
    "  The movie as `zebtrk ls --json` describes it, every property the plug-in\n"
    "  reports, and the text of its information file (NAME:info). NAME is the\n"
    "  movie file name as `zebtrk ls` shows it, or the movie's number alone when\n"
    "  no other movie has that number.\n";

const char* const kExportUsage =
    "zebtrk export NAME OUTDIR [--frames A:B] [--format png|pgm|tiff|npy|raw]\n"
    "              [--preview] [--force] [--quiet]\n"
    "  Writes frames of a movie into OUTDIR (made when missing):\n"
    "    png   NAME-NNNNNN.png  16-bit grayscale PNG per frame (the default)\n"
    "    pgm   NAME-NNNNNN.pgm  16-bit binary PGM per frame (P5, maxval 65535)\n"
    "    tiff  NAME.tif         one multi-page 16-bit grayscale TIFF; ImageJ/Fiji\n"
    "                           opens it as a stack with its frame interval; each\n"
    "                           page carries its frame's time (BigTIFF past 4 GiB)\n"
    "    npy   NAME.npy         one NumPy array of shape (frames, height, width),\n"
    "                           dtype <u2: numpy.load(path, mmap_mode=\"r\")\n"
    "    raw   NAME.raw         the frames' bytes back to back as read (16-bit\n"
    "          + NAME.info      little-endian, row by row, no header) and their raw\n"
    "                           imager information file: a pair the framework opens\n"
    "  NNNNNN is the 0-based frame number. A one-file export of part of a movie\n"
    "  is named NAME-frames-A-L (first and last frame). --preview also writes\n"
    "  NAME-NNNNNN-preview.png per frame: 8-bit false colour (dark purple to pale\n"
    "  yellow, warm is bright), stretched between the frame's 1st and 99th\n"
    "  percentile.\n"
    "  --frames A:B selects frames A to B-1 (0-based, end exclusive, like a\n"
    "  slice): \"A:\" runs to the last frame, \":B\" starts at frame 0, \":\" is every\n"
    "  frame (the default), a single number N is frame N alone.\n"
    "  An export never replaces an existing file unless --force is given.\n"
    "  On a terminal, progress (frames, rate, time left) is drawn on stderr;\n"
    "  --quiet leaves it out. A last line gives frames, bytes, time and rate.\n"
    "  Ctrl-C stops within a second (exit code 130): finished frame files stay,\n"
    "  unfinished files (and an unfinished one-file export) are removed.\n";

const char* const kRemoveUsage =
    "zebtrk rm NAME\n"
    "  Deletes a movie (NAME as for info) and says which movie was removed, as\n"
    "  the listing described it, then prints the movie list that the plug-in\n"
    "  reports after the deletion. The service names movies by their position in\n"
    "  its list: when the drive changes at that moment another movie can be hit\n"
    "  (see docs/reliability.md); the line shows what was asked for.\n";

const char* const kWatchUsage =
    "zebtrk watch [--count N]\n"
    "  Prints the movie list, then again each time the plug-in reports a change,\n"
    "  until Ctrl-C or SIGTERM (exit code 0), or after N changes with --count.\n"
    "  Every 2 s it checks that the service still answers: a service that was\n"
    "  stopped, killed or replaced by a new one (the plug-in's connection and\n"
    "  monitoring end with the old one) ends the watch with exit code 3 (8 when\n"
    "  it stopped answering). In emulator mode the cache directory is watched\n"
    "  for movie files instead.\n";

// How long a plug-in call may take to return after Ctrl-C before the
// command gives up on it (and ends at once, GiveUp).
constexpr int kGraceMs = 500;

// How often watch checks that the service is still there, and how long it
// lets the socket settle after it came or went.
constexpr int kWatchProbeMs = 2000;
constexpr int kSettleMs = 200;

std::string RequireValue(const std::string& text, const char* what) {
  if (text.empty()) throw CliError(kExitUsage, std::string(what) + " needs a value");
  return text;
}

// Runs a function when the scope ends, however it ends: releases what the
// plug-in gave through a bounded call also while an error unwinds.
class OnExit {
 public:
  explicit OnExit(std::function<void()> action) : m_action(std::move(action)) {}
  ~OnExit() { m_action(); }
  OnExit(const OnExit&) = delete;
  OnExit& operator=(const OnExit&) = delete;

 private:
  std::function<void()> m_action;
};

// One column of the ls table: its title and alignment.
struct SColumn {
  const char* title;
  bool rightAligned;
};

}  // namespace

Commands::Commands(std::ostream& out, std::ostream& err) : m_out(out), m_err(err) {}

Commands::~Commands() {
  // Unloading the plug-in may talk to the service (closing its connection);
  // bounded like every other call.
  if (m_plugin && m_bound && m_bound->Run([&] { m_plugin.reset(); }) != BoundedCall::EOutcome::kDone) {
    GiveUp(BoundedCall::EOutcome::kTimedOut);
  }
}

std::string Commands::Version() { return std::string("zebtrk ") + ZEBTRK_VERSION; }

std::string Commands::Usage() {
  return std::string(
             "zebtrk: reads the movies of a camera recorder's drive through the libzebtrk\n"
             "plug-in, as a zeb imaging application does.\n"
             "\n"
             "usage: zebtrk [--timeout S] COMMAND [ARGUMENTS]   (zebtrk COMMAND --help for one)\n"
             "       zebtrk --version | --help\n"
             "\n") +
         kStatusUsage + "\n" + kListUsage + "\n" + kInfoUsage + "\n" + kExportUsage + "\n" + kRemoveUsage + "\n" +
         kWatchUsage + "\n" + MountCommand::Usage() +
         "\n"
         "--timeout S (any command): how long to wait for the movie service to answer\n"
         "one request, in seconds (default 10). A service that stays silent longer\n"
         "ends the command with exit code 8; Ctrl-C ends any command within a second.\n"
         "\n"
         "Environment:\n"
         "  ZEBTRK_ENABLE_EMULATOR  non-empty: no service; the movies are the raw imager\n"
         "                          files \"*.dat\" of $HOME/.cache/Ostrel Systems/TRK\n"
         "  ZEBTRK_PLUGIN           path of libzebtrk.so (default: ../lib beside bin)\n"
         "\n"
         "The movie service listens on /tmp/zebtrksvc. To try the tool without a\n"
         "recorder, make a demo drive and start the simulator on it:\n"
         "  zebtrksvc make-demo DIR && zebtrksvc --drive DIR &\n"
         "\n"
         "Exit codes:\n"
         "  0    success\n"
         "  1    an operation failed (reading a movie, removing it, watching)\n"
         "  2    bad command line or frame range\n"
         "  3    the movie service is not running, went away, or does not speak the\n"
         "       expected protocol\n"
         "  4    no drive is present\n"
         "  5    no movie of that name\n"
         "  6    the output folder is not writable, writing failed, or a file exists\n"
         "  7    the plug-in library was not found or is not usable\n"
         "  8    the movie service did not answer within the time limit (--timeout)\n"
         "  130  interrupted (Ctrl-C, SIGTERM)\n";
}

int Commands::Run(const std::vector<std::string>& args) {
  try {
    // Options before the command: --timeout, --version, --help.
    size_t next = 0;
    while (next < args.size() && args[next].compare(0, 9, "--timeout") == 0) {
      std::string value;
      if (args[next] == "--timeout" && next + 1 < args.size()) {
        value = args[++next];
      } else if (args[next].compare(0, 10, "--timeout=") == 0) {
        value = args[next].substr(10);
      } else {
        throw CliError(kExitUsage, "--timeout needs a number of seconds (zebtrk --help)");
      }
      char* end = nullptr;
      errno = 0;
      const double seconds = std::strtod(value.c_str(), &end);
      if (value.empty() || *end != '\0' || errno != 0 || !(seconds > 0) || seconds > 86400) {
        throw CliError(kExitUsage, "--timeout needs a number of seconds from 0.001 to 86400, not \"" + value +
                                       "\" (zebtrk --help)");
      }
      m_timeoutMs = std::max(1, static_cast<int>(seconds * 1000));
      ++next;
    }
    if (next == args.size()) {
      throw CliError(kExitUsage, "no command given (zebtrk --help lists the commands)");
    }
    const std::string command = args[next];
    if (command == "--version" || command == "version") {
      m_out << Version() << "\n";
      return kExitOk;
    }
    if (command == "help" || command == "--help" || command == "-h") {
      m_out << Usage();
      return kExitOk;
    }
    const std::vector<std::string> rest(args.begin() + static_cast<long>(next) + 1, args.end());
    // The mount owns its signals (libfuse's handlers, which it installs only
    // over the default action) and bounds its calls per open view.
    if (command == "mount") return MountCommand(m_out, m_err, std::chrono::milliseconds(m_timeoutMs)).Run(rest);
    m_signals = std::make_unique<SignalMonitor>();
    m_bound = std::make_unique<BoundedCall>(std::chrono::milliseconds(m_timeoutMs), m_signals->fd(),
                                            std::chrono::milliseconds(kGraceMs));
    const int code = Dispatch(command, rest);
    if (m_plugin) Bounded([&] { m_plugin.reset(); }, false);
    return code;
  } catch (const CliError& error) {
    m_out.flush();
    m_err << "zebtrk: " << error.what() << "\n";
    return error.code();
  } catch (const std::exception& error) {
    m_out.flush();
    m_err << "zebtrk: unexpected error: " << error.what() << "\n";
    return kExitFailure;
  }
}

int Commands::Dispatch(const std::string& command, const std::vector<std::string>& rest) {
  if (command == "status") return Status(rest);
  if (command == "ls" || command == "list") return List(rest);
  if (command == "info") return Info(rest);
  if (command == "export") return Export(rest);
  if (command == "rm" || command == "remove") return Remove(rest);
  if (command == "watch") return Watch(rest);
  throw CliError(kExitUsage, "unknown command \"" + TextFormat::Escaped(command) +
                                 "\" (zebtrk --help lists the commands)");
}

void Commands::Bounded(const std::function<void()>& work, bool stopWhenInterrupted) {
  if (!m_bound) {
    work();
    return;
  }
  const BoundedCall::EOutcome outcome = m_bound->Run(work);
  if (outcome != BoundedCall::EOutcome::kDone) GiveUp(outcome);
  // The call returned: end in good order (unfinished files are removed on
  // the way out), unless this is part of that way out already.
  if (stopWhenInterrupted && std::uncaught_exceptions() == 0) StopWhenInterrupted();
}

void Commands::StopWhenInterrupted() {
  if (m_signals && m_signals->interrupted()) {
    throw CliError(kExitInterrupted, "interrupted; unfinished files were removed");
  }
}

void Commands::GiveUp(BoundedCall::EOutcome outcome) {
  OutputFile::RemoveUnfinished();
  m_out.flush();
  if (ProgressBar::IsTerminal(stderr)) fputs("\r\033[K", stderr);
  char seconds[32];
  snprintf(seconds, sizeof(seconds), "%g s", m_timeoutMs / 1000.0);
  if (outcome == BoundedCall::EOutcome::kTimedOut) {
    m_err << "zebtrk: the movie service at " << ServiceProbe::kSocketPath << " did not answer within " << seconds
          << ": is it stopped or hung? Gave up; unfinished files were removed (--timeout S waits longer)\n";
  } else {
    m_err << "zebtrk: interrupted; unfinished files were removed\n";
  }
  m_err.flush();
  fflush(nullptr);
  // The plug-in may still be inside the abandoned call: no unloading, no
  // destructors, no atexit handlers.
  _exit(outcome == BoundedCall::EOutcome::kTimedOut ? kExitTimeout : kExitInterrupted);
}

bool Commands::EmulatorMode() {
  const char* value = getenv("ZEBTRK_ENABLE_EMULATOR");
  return value && *value;
}

std::string Commands::CacheDir() {
  // The plug-in's rule: $HOME, else the password entry's home directory.
  const char* home = getenv("HOME");
  std::string base;
  if (home) {
    base = home;
  } else if (const passwd* entry = getpwuid(getuid())) {
    base = entry->pw_dir ? entry->pw_dir : "";
  }
  if (!base.empty() && base.back() != '/') base += '/';
  return base + ".cache/Ostrel Systems/TRK";
}

void Commands::CheckService() {
  std::string detail;
  const ServiceProbe::EState state = ServiceProbe::Probe(detail, m_timeoutMs, m_signals ? m_signals->fd() : -1);
  if (state == ServiceProbe::EState::kCancelled) GiveUp(BoundedCall::EOutcome::kCancelled);
  if (state == ServiceProbe::EState::kAnswers) return;
  throw CliError(state == ServiceProbe::EState::kSilent ? kExitTimeout : kExitNoService,
                 ServiceProbe::Message(state, detail, m_timeoutMs));
}

void Commands::Connect(bool requireDrive) {
  m_plugin = std::make_unique<PluginLoader>(PluginLoader::DefaultPath());
  if (!EmulatorMode()) CheckService();
  bool drive = false;
  Bounded([&] {
    m_fileSystem = m_plugin->Start();
    drive = !requireDrive || m_plugin->drivePresent();
  });
  if (!drive) {
    throw CliError(kExitNoDrive, std::string("no drive: the movie service at ") + ServiceProbe::kSocketPath +
                                     " reports no drive present.\nInsert the recorder's drive, or start the "
                                     "simulator with a drive folder: zebtrksvc --drive DIR &");
  }
}

std::vector<Movie> Commands::ListWithTiming(const std::string& filter) {
  std::vector<Movie> movies;
  Bounded([&] {
    const MovieCatalog catalog(m_fileSystem);
    movies = catalog.List(filter);
    for (Movie& movie : movies) catalog.ReadTiming(movie);
  });
  return movies;
}

int Commands::Status(const std::vector<std::string>& args) {
  const ArgumentList arguments("status", args, {}, {});
  if (arguments.Has("--help")) {
    m_out << kStatusUsage;
    return kExitOk;
  }
  arguments.ExpectPositional(0, 0, "zebtrk status");

  const bool emulator = EmulatorMode();
  const std::string pluginPath = PluginLoader::DefaultPath();
  m_out << std::left << std::setw(10) << "plug-in:" << pluginPath << "\n";
  m_plugin = std::make_unique<PluginLoader>(pluginPath);
  if (emulator) {
    m_out << std::setw(10) << "mode:"
          << "emulator (ZEBTRK_ENABLE_EMULATOR is set)\n";
    m_out << std::setw(10) << "cache:" << CacheDir()
          << (access(CacheDir().c_str(), F_OK) == 0 ? "" : "  (does not exist yet)") << "\n";
    m_out << std::setw(10) << "service:"
          << "not used in emulator mode\n";
  } else {
    m_out << std::setw(10) << "mode:"
          << "normal (movie service at " << ServiceProbe::kSocketPath << ")\n";
    std::string detail;
    const ServiceProbe::EState state = ServiceProbe::Probe(detail, m_timeoutMs, m_signals->fd());
    if (state == ServiceProbe::EState::kCancelled) StopWhenInterrupted();
    if (state != ServiceProbe::EState::kAnswers) {
      m_out << std::setw(10) << "service:"
            << (state == ServiceProbe::EState::kSilent    ? "not answering"
                : state == ServiceProbe::EState::kForeign ? "not speaking the expected protocol"
                                                          : "not running")
            << "\n";
      m_out.flush();
      throw CliError(state == ServiceProbe::EState::kSilent ? kExitTimeout : kExitNoService,
                     ServiceProbe::Message(state, detail, m_timeoutMs));
    }
    m_out << std::setw(10) << "service:"
          << "running\n";
  }
  bool drive = false;
  Bounded([&] {
    m_fileSystem = m_plugin->Start();
    drive = m_plugin->drivePresent();
  });
  m_out << std::setw(10) << "drive:" << (drive ? (emulator ? "present (emulated)" : "present") : "not present") << "\n";
  if (!drive) {
    m_out.flush();
    throw CliError(kExitNoDrive, "no drive is present (start the simulator with: zebtrksvc --drive DIR &)");
  }
  std::vector<Movie> movies;
  Bounded([&] { movies = MovieCatalog(m_fileSystem).List(); });
  m_out << std::setw(10) << "movies:" << movies.size() << "\n";
  return kExitOk;
}

namespace {

// The fields of `ls --json`, the same in both modes.
void JsonMovie(JsonWriter& json, const Movie& movie) {
  json.BeginObject();
  json.Key("name");
  json.String(movie.name);
  json.Key("path");
  json.String(movie.uri());
  json.Key("number");
  json.String(movie.name.substr(0, movie.name.find('-')));
  json.Key("index");
  json.Number(movie.position);
  json.Key("frames");
  json.Number(movie.frames);
  json.Key("width");
  json.Number(movie.width);
  json.Key("height");
  json.Number(movie.height);
  json.Key("size");
  json.Number(static_cast<unsigned long>(movie.width) * movie.height * 2 * movie.frames);
  json.Key("startTime");
  if (movie.startTicks() == 0) {
    json.Null();
  } else {
    json.String(TextFormat::IsoTime(movie.startTicks()));
  }
  json.Key("endTime");
  if (movie.endTicks() == 0) {
    json.Null();
  } else {
    json.String(TextFormat::IsoTime(movie.endTicks()));
  }
  unsigned long duration = 0;
  json.Key("durationMicroseconds");
  if (movie.Duration(duration)) {
    json.Number(duration);
  } else {
    json.Null();
  }
  json.Key("frameRate");
  if (movie.hasTiming && movie.framePeriodTicks > 0) {
    json.Decimal(1e7 / static_cast<double>(movie.framePeriodTicks), 6);
  } else {
    json.Null();
  }
  json.EndObject();
}

std::string DurationText(const Movie& movie) {
  unsigned long duration = 0;
  return movie.Duration(duration) ? TextFormat::Duration(duration) : "unknown";
}

std::string StartText(const Movie& movie) {
  const long ticks = movie.startTicks();
  return ticks == 0 ? "-" : TextFormat::Time(ticks).substr(0, 19);
}

}  // namespace

int Commands::List(const std::vector<std::string>& args) {
  const ArgumentList arguments("ls", args, {"--json"}, {});
  if (arguments.Has("--help")) {
    m_out << kListUsage;
    return kExitOk;
  }
  arguments.ExpectPositional(0, 1, "zebtrk ls [--json] [FILTER]");
  const std::string filter = arguments.positional().empty() ? "" : arguments.positional()[0];
  Connect(true);
  const std::vector<Movie> movies = ListWithTiming(filter);

  if (arguments.Has("--json")) {
    JsonWriter json;
    json.BeginArray();
    for (const Movie& movie : movies) JsonMovie(json, movie);
    json.EndArray();
    m_out << json.text() << "\n";
    return kExitOk;
  }
  if (movies.empty()) {
    m_out << (filter.empty() ? "no movies" : "no movie matches \"" + TextFormat::Escaped(filter) + "\"") << "\n";
    return kExitOk;
  }
  PrintTable(movies);
  return kExitOk;
}

void Commands::PrintTable(const std::vector<Movie>& movies) {
  const std::vector<SColumn> columns = {{"NAME", false},        {"FRAMES", true},   {"WIDTH x HEIGHT", false},
                                        {"SIZE", true},         {"START (UTC)", false}, {"DURATION", true},
                                        {"RATE", true}};
  std::vector<std::vector<std::string>> rows;
  for (const Movie& movie : movies) {
    rows.push_back({TextFormat::Escaped(movie.name), std::to_string(movie.frames),
                    std::to_string(movie.width) + " x " + std::to_string(movie.height),
                    TextFormat::Size(static_cast<unsigned long>(movie.width) * movie.height * 2 * movie.frames),
                    StartText(movie), DurationText(movie),
                    movie.hasTiming ? TextFormat::Rate(movie.framePeriodTicks) : "-"});
  }
  std::vector<size_t> widths;
  for (const SColumn& column : columns) widths.push_back(std::string(column.title).size());
  for (const auto& row : rows) {
    for (size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], TextFormat::DisplayWidth(row[c]));
  }
  auto printRow = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (size_t c = 0; c < cells.size(); ++c) {
      const std::string padding(widths[c] - TextFormat::DisplayWidth(cells[c]), ' ');
      line += columns[c].rightAligned ? padding + cells[c] : cells[c] + padding;
      if (c + 1 < cells.size()) line += "  ";
    }
    while (!line.empty() && line.back() == ' ') line.pop_back();
    m_out << line << "\n";
  };
  std::vector<std::string> titles;
  for (const SColumn& column : columns) titles.push_back(column.title);
  printRow(titles);
  for (const auto& row : rows) printRow(row);
}

int Commands::Info(const std::vector<std::string>& args) {
  const ArgumentList arguments("info", args, {}, {});
  if (arguments.Has("--help")) {
    m_out << kInfoUsage;
    return kExitOk;
  }
  arguments.ExpectPositional(1, 1, "zebtrk info NAME");
  Connect(true);
  Movie movie;
  std::string text;
  Bounded([&] {
    const MovieCatalog catalog(m_fileSystem);
    movie = catalog.Find(arguments.positional()[0], true);
    for (const Movie& listed : catalog.List()) {
      if (listed.name == movie.name) movie.position = listed.position;
    }
    catalog.ReadTiming(movie);
    text = catalog.ReadInfo(movie);
  });

  JsonWriter json;
  JsonMovie(json, movie);
  const unsigned long size = static_cast<unsigned long>(movie.width) * movie.height * 2 * movie.frames;
  m_out << "name:      " << TextFormat::Escaped(movie.name) << "\n"
        << "path:      " << TextFormat::Escaped(movie.uri()) << "\n"
        << "index:     " << movie.position << " (position in the listing)\n"
        << "frames:    " << movie.frames << " of " << movie.width << " x " << movie.height << "\n"
        << "size:      " << size << " bytes (" << TextFormat::Size(size) << ")\n"
        << "start:     " << (movie.startTicks() == 0 ? "-" : TextFormat::IsoTime(movie.startTicks())) << "\n"
        << "end:       " << (movie.endTicks() == 0 ? "-" : TextFormat::IsoTime(movie.endTicks())) << "\n"
        << "duration:  " << DurationText(movie) << "\n"
        << "rate:      " << (movie.hasTiming ? TextFormat::Rate(movie.framePeriodTicks) : "-") << "\n"
        << "json:      " << json.text() << "\n"
        << "properties (as the plug-in reports them):\n";
  size_t width = 0;
  for (const auto& property : movie.properties) width = std::max(width, property.first.size());
  for (const auto& property : movie.properties) {
    m_out << "  " << std::left << std::setw(static_cast<int>(width)) << TextFormat::Escaped(property.first) << "  "
          << TextFormat::Escaped(property.second) << "\n";
  }
  m_out << "information file (" << TextFormat::Escaped(movie.name) << ":info, " << text.size() << " bytes):\n";
  size_t begin = 0;
  while (begin < text.size()) {
    const size_t end = std::min(text.find('\n', begin), text.size());
    m_out << TextFormat::Escaped(text.substr(begin, end - begin)) << "\n";
    begin = end + 1;
  }
  return kExitOk;
}

int Commands::Export(const std::vector<std::string>& args) {
  const ArgumentList arguments("export", args, {"--preview", "--force", "--quiet"}, {"--frames", "--format"});
  if (arguments.Has("--help")) {
    m_out << kExportUsage;
    return kExitOk;
  }
  arguments.ExpectPositional(2, 2, "zebtrk export NAME OUTDIR [--frames A:B] [--format F] (zebtrk export --help)");
  FrameExporter::SOptions options;
  const std::string format = arguments.Value("--format", "png");
  static const std::map<std::string, FrameExporter::EFormat> kFormats = {
      {"png", FrameExporter::EFormat::kPng},   {"pgm", FrameExporter::EFormat::kPgm},
      {"raw", FrameExporter::EFormat::kRaw},   {"tiff", FrameExporter::EFormat::kTiff},
      {"tif", FrameExporter::EFormat::kTiff},  {"npy", FrameExporter::EFormat::kNpy}};
  const auto found = kFormats.find(format);
  if (found == kFormats.end()) {
    throw CliError(kExitUsage,
                   "export: unknown format \"" + TextFormat::Escaped(format) + "\" (png, pgm, tiff, npy or raw)");
  }
  options.format = found->second;
  options.preview = arguments.Has("--preview");
  options.force = arguments.Has("--force");
  options.folder = arguments.positional()[1];
  if (options.folder == "-") {
    throw CliError(kExitUsage,
                   "export: OUTDIR is a folder; exporting to standard output is not supported (./- names a folder "
                   "called -)");
  }
  while (options.folder.size() > 1 && options.folder.back() == '/') options.folder.pop_back();
  const std::string rangeText = arguments.Has("--frames") ? RequireValue(arguments.Value("--frames"), "--frames") : ":";

  Connect(true);
  Movie movie;
  Bounded([&] {
    const MovieCatalog catalog(m_fileSystem);
    movie = catalog.Find(arguments.positional()[0], true);
    catalog.ReadTiming(movie);
  });
  std::unique_ptr<FrameExporter> exporter;
  const FrameExporter::Caller caller = [this](const std::function<void()>& work) { Bounded(work); };
  // The exporter bounds its own calls into the plug-in; closing the movie is
  // one more request to the service.
  const OnExit release([&] { Bounded([&] { exporter.reset(); }, false); });
  exporter = std::make_unique<FrameExporter>(m_fileSystem, movie, caller);
  const FrameRange range = FrameRange::Parse(rangeText, exporter->frames());
  FrameExporter::PrepareFolder(options.folder);

  const auto started = std::chrono::steady_clock::now();
  ProgressBar bar(stderr, "export " + TextFormat::Escaped(movie.name), range.count(),
                  !arguments.Has("--quiet") && ProgressBar::IsTerminal(stderr));
  const FrameExporter::SResult result = exporter->Export(range, options, [&](unsigned long done) {
    bar.Update(done);
    return !m_signals->interrupted();
  });
  bar.Finish();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  const unsigned int width = exporter->width(), height = exporter->height();

  if (result.interrupted) {
    m_err << "zebtrk: export interrupted after " << result.frames << " of " << range.count() << " frames"
          << (result.files.empty() && options.format != FrameExporter::EFormat::kPng &&
                      options.format != FrameExporter::EFormat::kPgm
                  ? " (the unfinished file was removed)"
                  : "; the finished frame files stay")
          << "\n";
    return kExitInterrupted;
  }
  static const std::map<FrameExporter::EFormat, const char*> kNames = {
      {FrameExporter::EFormat::kPng, "16-bit grayscale PNG"},
      {FrameExporter::EFormat::kPgm, "16-bit PGM"},
      {FrameExporter::EFormat::kRaw, "raw 16-bit little-endian with its .info"},
      {FrameExporter::EFormat::kTiff, "one 16-bit multi-page TIFF"},
      {FrameExporter::EFormat::kNpy, "one NumPy .npy array"}};
  char timing[96];
  snprintf(timing, sizeof(timing), "%.3f s (%.1f frames/s)", seconds,
           seconds > 0 ? static_cast<double>(result.frames) / seconds : 0.0);
  m_out << "exported " << result.frames << " frame" << (result.frames == 1 ? "" : "s") << " (" << range.first << ":"
        << range.end << ") of " << TextFormat::Escaped(movie.name) << ", " << width << " x " << height << ", as "
        << kNames.at(options.format) << ": " << result.fileBytes << " bytes in " << timing << "\n";
  if (result.files.size() <= 2) {
    for (const std::string& path : result.files) m_out << "  " << TextFormat::Escaped(path) << "\n";
  } else {
    m_out << "  " << TextFormat::Escaped(result.files.front()) << " ... " << TextFormat::Escaped(result.files.back())
          << "  (" << result.files.size() << " files)\n";
  }
  if (!result.previews.empty()) {
    m_out << "preview" << (result.previews.size() == 1 ? "" : "s")
          << " (false colour, 1st to 99th percentile of each frame):\n";
    for (const std::string& path : result.previews) m_out << "  " << TextFormat::Escaped(path) << "\n";
  }
  return kExitOk;
}

void Commands::PrintList(const std::string& heading, const std::vector<Movie>& movies) {
  m_out << heading << " " << movies.size() << (movies.size() == 1 ? " movie" : " movies") << (movies.empty() ? "" : ":")
        << "\n";
  for (const Movie& movie : movies) {
    m_out << "  " << TextFormat::Escaped(movie.name) << "  (" << movie.frames << " frames, " << movie.width << " x "
          << movie.height << ")\n";
  }
  m_out.flush();
}

std::string Commands::Difference(const std::vector<Movie>& before, const std::vector<Movie>& after) {
  // Names may repeat: compare as multisets.
  std::map<std::string, long> count;
  for (const Movie& movie : before) --count[movie.name];
  for (const Movie& movie : after) ++count[movie.name];
  std::string removed, added;
  for (const auto& entry : count) {
    const std::string name = TextFormat::Escaped(entry.first);
    for (long i = entry.second; i < 0; ++i) removed += (removed.empty() ? "" : ", ") + name;
    for (long i = 0; i < entry.second; ++i) added += (added.empty() ? "" : ", ") + name;
  }
  std::string text;
  if (!removed.empty()) text = "removed " + removed;
  if (!added.empty()) text += (text.empty() ? "added " : "; added ") + added;
  return text;
}

int Commands::Remove(const std::vector<std::string>& args) {
  const ArgumentList arguments("rm", args, {}, {});
  if (arguments.Has("--help")) {
    m_out << kRemoveUsage;
    return kExitOk;
  }
  arguments.ExpectPositional(1, 1, "zebtrk rm NAME");
  Connect(true);
  const MovieCatalog catalog(m_fileSystem);
  Movie movie;
  std::vector<Movie> before;
  Bounded([&] {
    movie = catalog.Find(arguments.positional()[0], true);
    before = catalog.List();
    for (const Movie& listed : before) {
      if (listed.name == movie.name) movie.position = listed.position;
    }
    catalog.ReadTiming(movie);
  });
  StopWhenInterrupted();

  std::unique_ptr<ChangeWatcher> watcher;
  const OnExit release([&] { Bounded([&] { watcher.reset(); }, false); });
  bool removed = false;
  Bounded([&] {
    watcher = std::make_unique<ChangeWatcher>(*m_plugin);
    removed = m_plugin->removeFile(movie.uri().c_str());
  });
  if (!removed) throw CliError(kExitFailure, "the plug-in could not remove " + TextFormat::Escaped(movie.name));
  // What was asked for, as the listing had it: the service deletes by
  // position, so a person can compare this with what is gone.
  const unsigned long size = static_cast<unsigned long>(movie.width) * movie.height * 2 * movie.frames;
  m_out << "removed " << TextFormat::Escaped(movie.name) << ": " << movie.frames << " frames, " << movie.width << " x "
        << movie.height << ", " << TextFormat::Size(size) << ", start " << TextFormat::Time(movie.startTicks())
        << " (listed at position " << movie.position << ")\n";
  // The plug-in refreshes its list in this thread before RemoveFile returns
  // and reports the change then; a report from its monitoring thread may
  // follow, the first one is shown.
  std::vector<Movie> after;
  if (watcher->Pop(after)) {
    const std::string change = Difference(before, after);
    PrintList("the plug-in reported the change" + (change.empty() ? "" : " (" + change + ")") + "; now", after);
    if (change != "removed " + TextFormat::Escaped(movie.name)) {
      m_err << "zebtrk: warning: the reported change is not the removal of " << TextFormat::Escaped(movie.name)
            << " alone: the drive changed meanwhile (see docs/reliability.md)\n";
    }
  } else {
    m_err << "zebtrk: warning: the plug-in reported no change after the removal\n";
    Bounded([&] { after = catalog.List(); });
    PrintList("now", after);
  }
  return kExitOk;
}

int Commands::Watch(const std::vector<std::string>& args) {
  const ArgumentList arguments("watch", args, {}, {"--count"});
  if (arguments.Has("--help")) {
    m_out << kWatchUsage;
    return kExitOk;
  }
  arguments.ExpectPositional(0, 0, "zebtrk watch [--count N]");
  unsigned long limit = 0;
  if (arguments.Has("--count")) {
    const std::string text = arguments.Value("--count");
    char* end = nullptr;
    errno = 0;
    limit = std::strtoul(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || limit == 0) {
      throw CliError(kExitUsage, "watch: --count needs a positive number, not \"" + TextFormat::Escaped(text) + "\"");
    }
  }

  const bool emulator = EmulatorMode();
  Connect(false);
  const MovieCatalog catalog(m_fileSystem);
  std::unique_ptr<ChangeWatcher> watcher;
  const OnExit release([&] { Bounded([&] { watcher.reset(); }, false); });
  Bounded([&] { watcher = std::make_unique<ChangeWatcher>(*m_plugin); });
  std::unique_ptr<DirectoryWatcher> folder;
  bool drive = true;
  if (emulator) {
    folder = std::make_unique<DirectoryWatcher>(CacheDir(), &DirectoryWatcher::IsMovieFile);
  } else {
    // The service removes its socket when it stops: that is seen at once. A
    // service killed (its socket stays) or stopped is found by the probe
    // every kWatchProbeMs.
    folder = std::make_unique<DirectoryWatcher>(
        "/tmp", [](const char* name) { return std::string("/tmp/") + name == ServiceProbe::kSocketPath; });
    Bounded([&] { drive = m_plugin->drivePresent(); });
    if (!drive) m_out << "no drive is present; waiting for one\n";
  }

  std::vector<Movie> shown;
  Bounded([&] { shown = catalog.List(); });
  PrintList(std::string("watching ") + (emulator ? TextFormat::Escaped(CacheDir()) : "the movie service") +
                " (Ctrl-C to stop);",
            shown);
  unsigned long changes = 0;
  auto nextProbe = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWatchProbeMs);
  auto checkService = [&] {
    std::string detail;
    bool drive = false;
    ServiceProbe::EState state = ServiceProbe::Probe(detail, m_timeoutMs, m_signals->fd(), ServiceProbe::kSocketPath,
                                                     &drive);
    if (state == ServiceProbe::EState::kAnswers && drive) {
      // A service that sees its drive while the plug-in does not: the
      // plug-in's connections ended (the service was restarted), and with
      // them its monitoring. Asked once more, so that a drive that comes or
      // goes meanwhile is no false alarm.
      bool plugin = true;
      Bounded([&] { plugin = m_plugin->drivePresent(); }, false);
      if (!plugin && ServiceProbe::Probe(detail, m_timeoutMs, m_signals->fd(), ServiceProbe::kSocketPath, &drive) ==
                         ServiceProbe::EState::kAnswers &&
          drive) {
        m_out.flush();
        throw CliError(kExitNoService,
                       "the plug-in lost its connection to the movie service (was the service restarted?) and with "
                       "it the monitoring; no more changes can be reported");
      }
    }
    if (state == ServiceProbe::EState::kAnswers || state == ServiceProbe::EState::kCancelled) return;
    m_out.flush();
    if (state == ServiceProbe::EState::kSilent) {
      char seconds[32];
      snprintf(seconds, sizeof(seconds), "%g s", m_timeoutMs / 1000.0);
      throw CliError(kExitTimeout, "the movie service stopped answering (" + detail + " within " + seconds +
                                       "); no more changes can be reported");
    }
    const char* what = state == ServiceProbe::EState::kNoSocket ? "stopped (its socket is gone)"
                       : state == ServiceProbe::EState::kStale  ? "died (its socket is left over, nobody listens)"
                       : state == ServiceProbe::EState::kForeign ? "no longer speaks the expected protocol"
                                                                 : "cannot be reached";
    throw CliError(kExitNoService, std::string("the movie service ") + what + "; no more changes can be reported");
  };
  while (limit == 0 || changes < limit) {
    pollfd fds[3] = {{m_signals->fd(), POLLIN, 0}, {watcher->fd(), POLLIN, 0}, {folder->fd(), POLLIN, 0}};
    if (poll(fds, 3, emulator ? -1 : 50) < 0) {
      if (errno == EINTR) continue;
      throw CliError(kExitFailure, "watch: poll failed");
    }
    if (m_signals->interrupted()) break;
    std::vector<Movie> movies;
    while ((limit == 0 || changes < limit) && watcher->Pop(movies)) {
      ++changes;
      const std::string change = Difference(shown, movies);
      PrintList("change " + std::to_string(changes) + (change.empty() ? "" : " (" + change + ")") + ":", movies);
      shown = movies;
    }
    if (!emulator && fds[2].revents & POLLIN && folder->Drain()) {
      // The socket came or went: probe soon, not at once, so that a service
      // replacing a dead one's socket (unlink, then bind) is seen as such.
      nextProbe = std::min(nextProbe, std::chrono::steady_clock::now() + std::chrono::milliseconds(kSettleMs));
      continue;
    }
    if (!emulator && std::chrono::steady_clock::now() >= nextProbe) {
      checkService();
      nextProbe = std::chrono::steady_clock::now() + std::chrono::milliseconds(kWatchProbeMs);
      continue;
    }
    if (emulator && fds[2].revents & POLLIN && folder->Drain()) {
      Bounded([&] { movies = catalog.List(); });
      const std::string change = Difference(shown, movies);
      if (change.empty() || (limit != 0 && changes >= limit)) continue;
      ++changes;
      PrintList("change " + std::to_string(changes) + " (" + change + "):", movies);
      shown = movies;
    }
  }
  m_out << "stopped after " << changes << (changes == 1 ? " change" : " changes") << "\n";
  return kExitOk;
}
