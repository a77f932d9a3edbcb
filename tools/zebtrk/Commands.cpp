#include "tools/zebtrk/Commands.h"

#include <poll.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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
    "  One row per movie: name, frames, width x height, size, start and end time,\n"
    "  duration. FILTER is a wildcard pattern ('*' any run of characters, '?' one\n"
    "  character), matched against the movie file name (\"12-Run A\") or the\n"
    "  movie's own name (\"Run A\"). --json prints a JSON array of objects with the\n"
    "  keys name, path, index, frames, width, height, size, recorded, startTime,\n"
    "  endTime, durationMicroseconds.\n";

const char* const kInfoUsage =
    "zebtrk info NAME\n"
    "  Every property of one movie and the text of its information file\n"
    "  (NAME:info). NAME is the movie file name as `zebtrk ls` shows it, or the\n"
    "  movie's number alone when no other movie has that number.\n";

const char* const kExportUsage =
    "zebtrk export NAME OUTDIR [--frames A:B] [--format png|pgm|raw] [--preview]\n"
    "  Writes frames of a movie into OUTDIR (made when missing):\n"
    "    png  NAME-NNNNNN.png   16-bit grayscale PNG per frame (the default)\n"
    "    pgm  NAME-NNNNNN.pgm   16-bit binary PGM per frame (P5, maxval 65535)\n"
    "    raw  NAME.raw          the frames' bytes back to back as read: 16-bit\n"
    "                           little-endian pixels, row by row, no header; all\n"
    "                           frames give a copy of the movie's frame data\n"
    "  NNNNNN is the 0-based frame number. --preview also writes\n"
    "  NAME-NNNNNN-preview.png per frame: 8-bit false colour (dark purple to pale\n"
    "  yellow, warm is bright), stretched between the frame's 1st and 99th\n"
    "  percentile.\n"
    "  --frames A:B selects frames A to B-1 (0-based, end exclusive, like a\n"
    "  slice): \"A:\" runs to the last frame, \":B\" starts at frame 0, \":\" is every\n"
    "  frame (the default), a single number N is frame N alone.\n"
    "  A progress bar is drawn on stderr when it is a terminal. Ctrl-C stops\n"
    "  between two frames (exit code 130); finished files stay.\n";

const char* const kRemoveUsage =
    "zebtrk rm NAME\n"
    "  Deletes a movie (the full movie file name) and prints the movie list that\n"
    "  the plug-in reports after the deletion.\n";

const char* const kWatchUsage =
    "zebtrk watch [--count N]\n"
    "  Prints the movie list, then again each time the plug-in reports a change,\n"
    "  until Ctrl-C or SIGTERM (exit code 0), or after N changes with --count.\n"
    "  In emulator mode the cache directory is watched for movie files instead.\n";

std::string RequireValue(const std::string& text, const char* what) {
  if (text.empty()) throw CliError(kExitUsage, std::string(what) + " needs a value");
  return text;
}

// One column of the ls table: its title and alignment.
struct SColumn {
  const char* title;
  bool rightAligned;
};

}  // namespace

Commands::Commands(std::ostream& out, std::ostream& err) : m_out(out), m_err(err) {}

Commands::~Commands() = default;

std::string Commands::Usage() {
  return std::string(
             "zebtrk: reads the movies of a camera recorder's drive through the libzebtrk\n"
             "plug-in, as a zeb imaging application does.\n"
             "\n"
             "usage: zebtrk COMMAND [ARGUMENTS]   (zebtrk COMMAND --help for one command)\n"
             "\n") +
         kStatusUsage + "\n" + kListUsage + "\n" + kInfoUsage + "\n" + kExportUsage + "\n" + kRemoveUsage + "\n" +
         kWatchUsage + "\n" + MountCommand::Usage() +
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
         "  3    the movie service is not running\n"
         "  4    no drive is present\n"
         "  5    no movie of that name\n"
         "  6    the output folder is not writable, or writing failed\n"
         "  7    the plug-in library was not found or is not usable\n"
         "  130  an export was interrupted (Ctrl-C, SIGTERM)\n";
}

int Commands::Run(const std::vector<std::string>& args) {
  try {
    if (args.empty() || args[0] == "help" || args[0] == "--help" || args[0] == "-h") {
      (args.empty() ? m_err : m_out) << Usage();
      return args.empty() ? kExitUsage : kExitOk;
    }
    const std::string command = args[0];
    const std::vector<std::string> rest(args.begin() + 1, args.end());
    if (command == "status") return Status(rest);
    if (command == "ls" || command == "list") return List(rest);
    if (command == "info") return Info(rest);
    if (command == "export") return Export(rest);
    if (command == "rm" || command == "remove") return Remove(rest);
    if (command == "watch") return Watch(rest);
    if (command == "mount") return MountCommand(m_out, m_err).Run(rest);
    throw CliError(kExitUsage, "unknown command \"" + command + "\" (zebtrk --help lists the commands)");
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

void Commands::Connect(bool requireDrive) {
  m_plugin = std::make_unique<PluginLoader>(PluginLoader::DefaultPath());
  if (!EmulatorMode()) {
    std::string detail;
    const ServiceProbe::EState state = ServiceProbe::Probe(detail);
    if (state != ServiceProbe::EState::kAnswers) {
      throw CliError(kExitNoService, ServiceProbe::NotRunningMessage(state, detail));
    }
  }
  m_fileSystem = m_plugin->Start();
  if (requireDrive && !m_plugin->drivePresent()) {
    throw CliError(kExitNoDrive, std::string("no drive: the movie service at ") + ServiceProbe::kSocketPath +
                                     " reports no drive present.\nInsert the recorder's drive, or start the "
                                     "simulator with a drive folder: zebtrksvc --drive DIR &");
  }
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
    const ServiceProbe::EState state = ServiceProbe::Probe(detail);
    if (state != ServiceProbe::EState::kAnswers) {
      m_out << std::setw(10) << "service:"
            << "not running\n";
      m_out.flush();
      throw CliError(kExitNoService, ServiceProbe::NotRunningMessage(state, detail));
    }
    m_out << std::setw(10) << "service:"
          << "running\n";
  }
  m_fileSystem = m_plugin->Start();
  const bool drive = m_plugin->drivePresent();
  m_out << std::setw(10) << "drive:" << (drive ? (emulator ? "present (emulated)" : "present") : "not present") << "\n";
  if (!drive) {
    m_out.flush();
    throw CliError(kExitNoDrive, "no drive is present (start the simulator with: zebtrksvc --drive DIR &)");
  }
  const std::vector<Movie> movies = MovieCatalog(m_fileSystem).List();
  m_out << std::setw(10) << "movies:" << movies.size() << "\n";
  return kExitOk;
}

int Commands::List(const std::vector<std::string>& args) {
  const ArgumentList arguments("ls", args, {"--json"}, {});
  if (arguments.Has("--help")) {
    m_out << kListUsage;
    return kExitOk;
  }
  arguments.ExpectPositional(0, 1, "zebtrk ls [--json] [FILTER]");
  const std::string filter = arguments.positional().empty() ? "" : arguments.positional()[0];
  Connect(true);
  const std::vector<Movie> movies = MovieCatalog(m_fileSystem).List(filter);

  if (arguments.Has("--json")) {
    JsonWriter json;
    json.BeginArray();
    for (const Movie& movie : movies) {
      json.BeginObject();
      json.Key("name");
      json.String(movie.name);
      json.Key("path");
      json.String(movie.uri());
      json.Key("index");
      json.Number(movie.index);
      json.Key("frames");
      json.Number(movie.frames);
      json.Key("width");
      json.Number(movie.width);
      json.Key("height");
      json.Number(movie.height);
      json.Key("size");
      json.Number(movie.size);
      json.Key("recorded");
      if (movie.timeTicks == 0) {
        json.Null();
      } else {
        json.String(TextFormat::IsoTime(movie.timeTicks));
      }
      json.Key("startTime");
      json.String(movie.startTime);
      json.Key("endTime");
      json.String(movie.endTime);
      json.Key("durationMicroseconds");
      json.Number(movie.durationUs);
      json.EndObject();
    }
    json.EndArray();
    m_out << json.text() << "\n";
    return kExitOk;
  }

  if (movies.empty()) {
    m_out << (filter.empty() ? "no movies" : "no movie matches \"" + filter + "\"") << "\n";
    return kExitOk;
  }
  const std::vector<SColumn> columns = {{"NAME", false},  {"FRAMES", true}, {"WIDTH x HEIGHT", false}, {"SIZE", true},
                                        {"START", false}, {"END", false},   {"DURATION", true}};
  std::vector<std::vector<std::string>> rows;
  for (const Movie& movie : movies) {
    rows.push_back({movie.name, std::to_string(movie.frames),
                    std::to_string(movie.width) + " x " + std::to_string(movie.height), TextFormat::Size(movie.size),
                    movie.startTime, movie.endTime, TextFormat::Duration(movie.durationUs)});
  }
  std::vector<size_t> widths;
  for (const SColumn& column : columns) widths.push_back(std::string(column.title).size());
  for (const auto& row : rows) {
    for (size_t c = 0; c < row.size(); ++c) widths[c] = std::max(widths[c], row[c].size());
  }
  auto printRow = [&](const std::vector<std::string>& cells) {
    std::string line;
    for (size_t c = 0; c < cells.size(); ++c) {
      const std::string padding(widths[c] - cells[c].size(), ' ');
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
  return kExitOk;
}

int Commands::Info(const std::vector<std::string>& args) {
  const ArgumentList arguments("info", args, {}, {});
  if (arguments.Has("--help")) {
    m_out << kInfoUsage;
    return kExitOk;
  }
  arguments.ExpectPositional(1, 1, "zebtrk info NAME");
  Connect(true);
  const Movie movie = MovieCatalog(m_fileSystem).Find(arguments.positional()[0], true);

  m_out << "name:      " << movie.name << "\n"
        << "path:      " << movie.uri() << "\n"
        << "size:      " << movie.size << " bytes (" << TextFormat::Size(movie.size) << ")\n"
        << "recorded:  " << TextFormat::Time(movie.timeTicks) << "\n"
        << "duration:  " << TextFormat::Duration(movie.durationUs) << "\n"
        << "properties:\n";
  size_t width = 0;
  for (const auto& property : movie.properties) width = std::max(width, property.first.size());
  for (const auto& property : movie.properties) {
    m_out << "  " << std::left << std::setw(static_cast<int>(width)) << property.first << "  " << property.second
          << "\n";
  }

  const std::string infoPath = movie.uri() + ":info";
  zeb::TSharedPtr<zeb::IFile> file = m_fileSystem->OpenFile(infoPath.c_str(), zeb::IFile::kModeRead);
  if (!file) {
    m_out.flush();
    throw CliError(kExitFailure, "cannot open the information file " + infoPath);
  }
  std::string text;
  char buffer[4096];
  for (;;) {
    const unsigned int n = file->Read(buffer, sizeof(buffer));
    if (n == 0) break;
    text.append(buffer, n);
  }
  m_out << "information file (" << movie.name << ":info, " << text.size() << " bytes):\n" << text;
  if (!text.empty() && text.back() != '\n') m_out << "\n";
  return kExitOk;
}

int Commands::Export(const std::vector<std::string>& args) {
  const ArgumentList arguments("export", args, {"--preview"}, {"--frames", "--format"});
  if (arguments.Has("--help")) {
    m_out << kExportUsage;
    return kExitOk;
  }
  arguments.ExpectPositional(2, 2, "zebtrk export NAME OUTDIR [--frames A:B] [--format png|pgm|raw] [--preview]");
  FrameExporter::SOptions options;
  const std::string format = arguments.Value("--format", "png");
  if (format == "png") {
    options.format = FrameExporter::EFormat::kPng;
  } else if (format == "pgm") {
    options.format = FrameExporter::EFormat::kPgm;
  } else if (format == "raw") {
    options.format = FrameExporter::EFormat::kRaw;
  } else {
    throw CliError(kExitUsage, "export: unknown format \"" + format + "\" (png, pgm or raw)");
  }
  options.preview = arguments.Has("--preview");
  options.folder = arguments.positional()[1];
  while (options.folder.size() > 1 && options.folder.back() == '/') options.folder.pop_back();
  const std::string rangeText = arguments.Has("--frames") ? RequireValue(arguments.Value("--frames"), "--frames") : ":";

  SignalMonitor signals;
  Connect(true);
  const Movie movie = MovieCatalog(m_fileSystem).Find(arguments.positional()[0], true);
  FrameExporter exporter(m_fileSystem, movie);
  const FrameRange range = FrameRange::Parse(rangeText, exporter.frames());
  FrameExporter::PrepareFolder(options.folder);

  ProgressBar bar(stderr, "export " + movie.name, range.count(), ProgressBar::IsTerminal(stderr));
  const FrameExporter::SResult result = exporter.Export(range, options, [&](unsigned long done) {
    bar.Update(done);
    return !signals.interrupted();
  });
  bar.Finish();

  const std::string formatName = options.format == FrameExporter::EFormat::kPng   ? "16-bit grayscale PNG"
                                 : options.format == FrameExporter::EFormat::kPgm ? "16-bit PGM"
                                                                                  : "raw 16-bit little-endian";
  if (result.interrupted) {
    m_err << "zebtrk: export interrupted after " << result.frames << " of " << range.count() << " frames"
          << (options.format == FrameExporter::EFormat::kRaw ? " (the unfinished .raw file was removed)" : "") << "\n";
    return kExitInterrupted;
  }
  m_out << "exported " << result.frames << " frame" << (result.frames == 1 ? "" : "s") << " (" << range.first << ":"
        << range.end << ") of " << movie.name << ", " << exporter.width() << " x " << exporter.height() << ", as "
        << formatName << ": " << result.frameBytes << " bytes of frame data\n";
  if (result.files.size() == 1) {
    m_out << "  " << result.files[0] << "\n";
  } else if (!result.files.empty()) {
    m_out << "  " << result.files.front() << " ... " << result.files.back() << "  (" << result.files.size()
          << " files)\n";
  }
  if (!result.previews.empty()) {
    m_out << "preview" << (result.previews.size() == 1 ? "" : "s")
          << " (false colour, 1st to 99th percentile of each frame):\n";
    for (const std::string& path : result.previews) m_out << "  " << path << "\n";
  }
  return kExitOk;
}

void Commands::PrintList(const std::string& heading, const std::vector<Movie>& movies) {
  m_out << heading << " " << movies.size() << (movies.size() == 1 ? " movie" : " movies") << (movies.empty() ? "" : ":")
        << "\n";
  for (const Movie& movie : movies) {
    m_out << "  " << movie.name << "  (" << movie.frames << " frames, " << movie.width << " x " << movie.height
          << ")\n";
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
    for (long i = entry.second; i < 0; ++i) removed += (removed.empty() ? "" : ", ") + entry.first;
    for (long i = 0; i < entry.second; ++i) added += (added.empty() ? "" : ", ") + entry.first;
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
  // Deleting needs the exact name: no movie-number shortcut here.
  const Movie movie = catalog.Find(arguments.positional()[0], false);
  const std::vector<Movie> before = catalog.List();

  ChangeWatcher watcher(*m_plugin);
  if (!m_plugin->removeFile(movie.uri().c_str())) {
    throw CliError(kExitFailure, "the plug-in could not remove " + movie.name);
  }
  m_out << "removed " << movie.name << "\n";
  // The plug-in refreshes its list in this thread before RemoveFile returns
  // and reports the change then; a report from its monitoring thread may
  // follow, the first one is shown.
  std::vector<Movie> after;
  if (watcher.Pop(after)) {
    const std::string change = Difference(before, after);
    PrintList("the plug-in reported the change" + (change.empty() ? "" : " (" + change + ")") + "; now", after);
  } else {
    m_err << "zebtrk: warning: the plug-in reported no change after the removal\n";
    PrintList("now", catalog.List());
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
      throw CliError(kExitUsage, "watch: --count needs a positive number, not \"" + text + "\"");
    }
  }

  SignalMonitor signals;
  const bool emulator = EmulatorMode();
  Connect(false);
  const MovieCatalog catalog(m_fileSystem);
  ChangeWatcher watcher(*m_plugin);
  std::unique_ptr<DirectoryWatcher> folder;
  if (emulator) {
    folder = std::make_unique<DirectoryWatcher>(CacheDir(), &DirectoryWatcher::IsMovieFile);
  } else {
    // The service removes its socket when it stops; the plug-in's monitoring
    // ends with it, so there is nothing more to wait for.
    folder = std::make_unique<DirectoryWatcher>(
        "/tmp", [](const char* name) { return std::string("/tmp/") + name == ServiceProbe::kSocketPath; });
    if (!m_plugin->drivePresent()) m_out << "no drive is present; waiting for one\n";
  }

  std::vector<Movie> shown = catalog.List();
  PrintList(std::string("watching ") + (emulator ? CacheDir() : "the movie service") + " (Ctrl-C to stop);", shown);
  unsigned long changes = 0;
  while (limit == 0 || changes < limit) {
    pollfd fds[3] = {{signals.fd(), POLLIN, 0}, {watcher.fd(), POLLIN, 0}, {folder->fd(), POLLIN, 0}};
    if (poll(fds, 3, -1) < 0) {
      if (errno == EINTR) continue;
      throw CliError(kExitFailure, "watch: poll failed");
    }
    if (signals.interrupted()) break;
    std::vector<Movie> movies;
    while ((limit == 0 || changes < limit) && watcher.Pop(movies)) {
      ++changes;
      const std::string change = Difference(shown, movies);
      PrintList("change " + std::to_string(changes) + (change.empty() ? "" : " (" + change + ")") + ":", movies);
      shown = movies;
    }
    if (fds[2].revents & POLLIN && folder->Drain()) {
      if (!emulator) {
        std::string detail;
        if (ServiceProbe::Probe(detail) != ServiceProbe::EState::kAnswers) {
          throw CliError(kExitNoService, "the movie service stopped; no more changes can be reported");
        }
        continue;
      }
      movies = catalog.List();
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
