#include "tools/zebtrk/FrameExporter.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>

#include <zeb/file/CImagerFileFactory.h>
#include <zeb/reduce/CReduceObjectArray.h>

#include "tools/zebtrk/CliError.h"
#include "tools/zebtrk/EncoderPool.h"
#include "tools/zebtrk/MovieLayout.h"
#include "tools/zebtrk/NpyHeader.h"
#include "tools/zebtrk/OutputFile.h"
#include "tools/zebtrk/PgmWriter.h"
#include "tools/zebtrk/PluginLoader.h"
#include "tools/zebtrk/PngWriter.h"
#include "tools/zebtrk/PreviewRenderer.h"
#include "tools/zebtrk/TiffStack.h"

namespace {

// Open flags handed to the imager file; the type passes them on to the
// framework's raw reader, which keeps them without interpreting them.
constexpr unsigned int kOpenFlags = 0;

[[noreturn]] void FolderError(const std::string& folder, const std::string& why) {
  throw CliError(kExitOutput, "cannot write to the output folder " + folder + ": " + why);
}

// mkdir -p.
void MakeFolders(const std::string& folder) {
  std::string path;
  size_t position = 0;
  while (position != std::string::npos) {
    position = folder.find('/', position + 1);
    path = folder.substr(0, position);
    if (path.empty()) continue;
    if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) FolderError(folder, strerror(errno));
  }
}

bool Exists(const std::string& path) {
  struct stat status {};
  return lstat(path.c_str(), &status) == 0;
}

// libpng's message as a write error of `path`.
void CheckEncoded(const std::string& path, bool ok, const std::string& error) {
  if (!ok) throw CliError(kExitOutput, "cannot encode " + path + ": " + error);
}

// Writes `bytes` to `path` (through a temporary) and returns its size.
unsigned long WriteWhole(const std::string& path, const std::string& bytes, bool replace) {
  OutputFile file(path);
  file.Write(bytes.data(), bytes.size());
  file.Commit(replace);
  return bytes.size();
}

}  // namespace

FrameExporter::FrameExporter(zeb::IFileSystem* fileSystem, const Movie& movie, Caller call)
    : m_name(movie.name), m_call(call ? std::move(call) : [](const std::function<void()>& f) { f(); }) {
  zeb::file::CImagerFileFactory::CType type;
  if (!zeb::file::imagerFileFactory()->FindType(PluginLoader::kImagerType, type)) {
    throw CliError(kExitPlugin, std::string("the plug-in registered no \"") + PluginLoader::kImagerType + "\" type");
  }
  m_file = FilePointer(type.Create(), [type](zeb::file::IImagerFile* file) { type.Destroy(file); });
  if (!m_file) throw CliError(kExitPlugin, "the imager file type made no object");
  bool opened = false;
  m_call([&] {
    opened = m_file->Open(fileSystem, movie.uri().c_str(), kOpenFlags);
    if (opened) {
      m_width = m_file->xPixels();
      m_height = m_file->yPixels();
      m_frames = m_file->nFrames();
    }
  });
  if (!opened) {
    throw CliError(kExitFailure, "cannot open the movie " + movie.name +
                                     " as an imager file (its frame data or information file could not be read)");
  }
  m_layout = MovieLayout(movie);
  m_layout.width = m_width;
  m_layout.height = m_height;
}

FrameExporter::~FrameExporter() {
  if (m_file) m_file->Close();
}

long FrameExporter::ReadFrame(unsigned long frame, std::vector<uint8_t>& buffer) {
  buffer.resize(frameBytes());
  bool ok = false;
  long ticks = 0;
  m_call([&] {
    unsigned char preset = 0;
    zeb::reduce::CReduceObjectArray objects;
    ok = frame < m_frames && m_file->GetFrame(buffer.data(), static_cast<unsigned int>(frame), preset, objects);
    if (!ok) return;
    zeb::TSharedPtr<zeb::reduce::CFrameInfoReduceObject> info = objects.GetFrameInfo(preset, false);
    if (info) ticks = info->timestamp().ticks();
  });
  if (!ok) throw CliError(kExitFailure, "cannot read frame " + std::to_string(frame) + " of " + m_name);
  if (ticks == 0 && m_layout.hasTiming) ticks = m_layout.FrameTime(static_cast<unsigned int>(frame)).ticks();
  return ticks;
}

std::string FrameExporter::SafeName(const std::string& name) {
  std::string safe = name;
  for (char& c : safe) {
    if (c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '_';
  }
  if (safe.empty() || safe == "." || safe == "..") safe = "movie" + safe;
  return safe;
}

std::string FrameExporter::FrameFileName(const std::string& name, unsigned long frame, const std::string& suffix) {
  char number[32];
  snprintf(number, sizeof(number), "%06lu", frame);
  return SafeName(name) + "-" + number + suffix;
}

std::string FrameExporter::StackFileName(const std::string& name, const FrameRange& range, unsigned long frames,
                                         const std::string& extension) {
  if (range.first == 0 && range.end == frames) return SafeName(name) + extension;
  char text[64];
  snprintf(text, sizeof(text), "-frames-%06lu-%06lu", range.first, range.end - 1);
  return SafeName(name) + text + extension;
}

void FrameExporter::PrepareFolder(const std::string& folder) {
  if (folder.empty()) FolderError("\"\"", "no folder given");
  struct stat status {};
  if (stat(folder.c_str(), &status) != 0) {
    if (errno != ENOENT) FolderError(folder, strerror(errno));
    MakeFolders(folder);
  } else if (!S_ISDIR(status.st_mode)) {
    FolderError(folder, "it is not a folder");
  }
  // Try it: permissions alone do not tell (root, read-only mounts, ACLs).
  const std::string probe = folder + "/.zebtrk-write-test-" + std::to_string(getpid());
  const int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) FolderError(folder, strerror(errno));
  close(fd);
  unlink(probe.c_str());
}

std::vector<std::string> FrameExporter::Targets(const FrameRange& range, const SOptions& options) const {
  const std::string prefix = options.folder + "/";
  std::vector<std::string> paths;
  switch (options.format) {
    case EFormat::kRaw:
      paths.push_back(prefix + StackFileName(m_name, range, m_frames, ".raw"));
      paths.push_back(prefix + StackFileName(m_name, range, m_frames, ".info"));
      break;
    case EFormat::kTiff:
      paths.push_back(prefix + StackFileName(m_name, range, m_frames, ".tif"));
      break;
    case EFormat::kNpy:
      paths.push_back(prefix + StackFileName(m_name, range, m_frames, ".npy"));
      break;
    default:
      for (unsigned long n = range.first; n < range.end; ++n) {
        paths.push_back(prefix + FrameFileName(m_name, n, options.format == EFormat::kPng ? ".png" : ".pgm"));
      }
  }
  if (options.preview) {
    for (unsigned long n = range.first; n < range.end; ++n) {
      paths.push_back(prefix + FrameFileName(m_name, n, "-preview.png"));
    }
  }
  return paths;
}

zeb::file::SRawImagerInfo FrameExporter::RangeLayout(const FrameRange& range) const {
  zeb::file::SRawImagerInfo layout = m_layout;
  layout.frames = static_cast<unsigned int>(range.count());
  if (layout.hasTiming) layout.firstFrameTicks += static_cast<long>(range.first) * layout.framePeriodTicks;
  if (!layout.IsValid()) layout.hasTiming = false;
  return layout;
}

FrameExporter::SResult FrameExporter::Export(const FrameRange& range, const SOptions& options,
                                             const Progress& progress) {
  if (!options.force) {
    std::vector<std::string> existing;
    for (const std::string& path : Targets(range, options)) {
      if (Exists(path)) existing.push_back(path);
    }
    if (!existing.empty()) {
      throw CliError(kExitOutput, existing.size() == 1
                                      ? existing[0] + " exists already (--force replaces it)"
                                      : std::to_string(existing.size()) + " of the files exist already, " +
                                            existing[0] + " first (--force replaces them)");
    }
  }
  const bool stack = options.format == EFormat::kRaw || options.format == EFormat::kTiff ||
                     options.format == EFormat::kNpy;
  return stack && !options.preview ? ExportStack(range, options, progress) : ExportFrames(range, options, progress);
}

FrameExporter::SResult FrameExporter::ExportStack(const FrameRange& range, const SOptions& options,
                                                  const Progress& progress) {
  SResult result;
  const std::vector<std::string> targets = Targets(range, options);
  OutputFile file(targets[0]);
  std::unique_ptr<TiffStack> tiff;
  const zeb::file::SRawImagerInfo layout = RangeLayout(range);
  if (options.format == EFormat::kTiff) {
    const double interval = layout.hasTiming ? static_cast<double>(layout.framePeriodTicks) / 1e7 : 0.0;
    tiff = std::make_unique<TiffStack>(file.temporaryPath(), m_width, m_height, range.count(), interval);
  } else if (options.format == EFormat::kNpy) {
    const std::string header = NpyHeader(range.count(), m_height, m_width);
    file.Write(header.data(), header.size());
  }
  std::vector<uint8_t> frame;
  for (unsigned long n = range.first; n < range.end; ++n) {
    const long ticks = ReadFrame(n, frame);
    result.frameBytes += frame.size();
    if (tiff) {
      tiff->AddPage(frame.data(), ticks);
    } else {
      file.Write(frame.data(), frame.size());
    }
    ++result.frames;
    if (progress && !progress(result.frames)) {
      result.interrupted = true;
      return result;  // the unfinished file is removed with `file` (and `tiff` closed first)
    }
  }
  if (tiff) tiff->Close();
  std::unique_ptr<OutputFile> info;
  if (options.format == EFormat::kRaw) {
    // The information file last, as the raw imager writer does: a pair whose
    // frame data is incomplete never gets one.
    const std::string text = layout.ToText().c_str();
    info = std::make_unique<OutputFile>(targets[1]);
    info->Write(text.data(), text.size());
  }
  file.Commit(options.force);
  struct stat status {};
  result.fileBytes = stat(targets[0].c_str(), &status) == 0 ? static_cast<unsigned long>(status.st_size) : 0;
  result.files.push_back(targets[0]);
  if (info) {
    info->Commit(options.force);
    result.files.push_back(targets[1]);
  }
  return result;
}

FrameExporter::SResult FrameExporter::ExportFrames(const FrameRange& range, const SOptions& options,
                                                   const Progress& progress) {
  SResult result;
  const std::string prefix = options.folder + "/";
  const EFormat format = options.format;
  const bool preview = options.preview;
  const unsigned int width = m_width, height = m_height;
  // One-file formats with previews: the stack and the previews are both
  // wanted, so the stack is written by a second pass (reads are cheap beside
  // the encoding).
  const bool stack = format == EFormat::kRaw || format == EFormat::kTiff || format == EFormat::kNpy;
  EncoderPool pool;
  unsigned long written = 0;
  auto writeOldest = [&] {
    const std::vector<std::string> files = pool.Take();
    const unsigned long n = range.first + written;
    size_t next = 0;
    if (!stack) {
      const std::string path = prefix + FrameFileName(m_name, n, format == EFormat::kPng ? ".png" : ".pgm");
      result.fileBytes += WriteWhole(path, files[next++], options.force);
      result.files.push_back(path);
    }
    if (preview) {
      const std::string path = prefix + FrameFileName(m_name, n, "-preview.png");
      WriteWhole(path, files[next], options.force);
      result.previews.push_back(path);
    }
    ++written;
    ++result.frames;
    return !progress || progress(result.frames);
  };
  for (unsigned long n = range.first; n < range.end; ++n) {
    auto frame = std::make_shared<std::vector<uint8_t>>();
    ReadFrame(n, *frame);
    result.frameBytes += frame->size();
    const std::string name = m_name;
    pool.Submit([frame, format, preview, stack, width, height, n, name] {
      std::vector<std::string> files;
      std::string error;
      if (!stack) {
        files.emplace_back();
        if (format == EFormat::kPng) {
          CheckEncoded(FrameFileName(name, n, ".png"), PngWriter::EncodeGray16(frame->data(), width, height,
                                                                                files.back(), error),
                       error);
        } else {
          files.back() = PgmWriter::Encode(frame->data(), width, height);
        }
      }
      if (preview) {
        files.emplace_back();
        const std::vector<uint8_t> rgb = PreviewRenderer::Render(frame->data(), width, height);
        CheckEncoded(FrameFileName(name, n, "-preview.png"),
                     PngWriter::EncodeRgb8(rgb.data(), width, height, files.back(), error), error);
      }
      return files;
    });
    while (pool.full() || pool.ready()) {
      if (!writeOldest()) {
        result.interrupted = true;
        return result;
      }
    }
  }
  while (!pool.empty()) {
    if (!writeOldest()) {
      result.interrupted = true;
      return result;
    }
  }
  if (stack) {
    SOptions second = options;
    second.preview = false;
    const SResult one = ExportStack(range, second, progress ? Progress([&](unsigned long) { return progress(result.frames); }) : Progress());
    result.fileBytes = one.fileBytes;
    result.files = one.files;
    result.interrupted = one.interrupted;
  }
  return result;
}
