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
#include "tools/zebtrk/OutputFile.h"
#include "tools/zebtrk/PgmWriter.h"
#include "tools/zebtrk/PluginLoader.h"
#include "tools/zebtrk/PngWriter.h"
#include "tools/zebtrk/PreviewRenderer.h"

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

// libpng's message, with the system's reason when a write failed.
void CheckPng(const OutputFile& file, bool ok, const std::string& error) {
  if (ok) return;
  std::string why = error;
  if (errno != 0) why += std::string(" (") + strerror(errno) + ")";
  throw CliError(kExitOutput, "cannot write " + file.path() + ": " + why);
}

unsigned long FileSize(const std::string& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? static_cast<unsigned long>(status.st_size) : 0;
}

}  // namespace

FrameExporter::FrameExporter(zeb::IFileSystem* fileSystem, const Movie& movie) : m_name(movie.name) {
  zeb::file::CImagerFileFactory::CType type;
  if (!zeb::file::imagerFileFactory()->FindType(PluginLoader::kImagerType, type)) {
    throw CliError(kExitPlugin, std::string("the plug-in registered no \"") + PluginLoader::kImagerType + "\" type");
  }
  m_file = FilePointer(type.Create(), [type](zeb::file::IImagerFile* file) { type.Destroy(file); });
  if (!m_file) throw CliError(kExitPlugin, "the imager file type made no object");
  if (!m_file->Open(fileSystem, movie.uri().c_str(), kOpenFlags)) {
    throw CliError(kExitFailure, "cannot open the movie " + movie.name +
                                     " as an imager file (its frame data or information file could not be read)");
  }
  m_width = m_file->xPixels();
  m_height = m_file->yPixels();
  m_frames = m_file->nFrames();
}

FrameExporter::~FrameExporter() {
  if (m_file) m_file->Close();
}

void FrameExporter::ReadFrame(unsigned long frame, std::vector<uint8_t>& buffer) {
  buffer.resize(frameBytes());
  unsigned char preset = 0;
  zeb::reduce::CReduceObjectArray objects;
  if (frame >= m_frames || !m_file->GetFrame(buffer.data(), static_cast<unsigned int>(frame), preset, objects)) {
    throw CliError(kExitFailure, "cannot read frame " + std::to_string(frame) + " of " + m_name);
  }
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

FrameExporter::SResult FrameExporter::Export(const FrameRange& range, const SOptions& options,
                                             const Progress& progress) {
  SResult result;
  std::vector<uint8_t> frame;
  std::unique_ptr<OutputFile> raw;
  const std::string prefix = options.folder + "/";
  if (options.format == EFormat::kRaw) raw = std::make_unique<OutputFile>(prefix + SafeName(m_name) + ".raw");
  for (unsigned long n = range.first; n < range.end; ++n) {
    ReadFrame(n, frame);
    result.frameBytes += frame.size();
    if (raw) {
      raw->Write(frame.data(), frame.size());
    } else {
      const std::string path = prefix + FrameFileName(m_name, n, options.format == EFormat::kPng ? ".png" : ".pgm");
      OutputFile file(path);
      if (options.format == EFormat::kPng) {
        std::string error;
        errno = 0;
        CheckPng(file, PngWriter::WriteGray16(file.stream(), frame.data(), m_width, m_height, error), error);
      } else {
        const std::string pgm = PgmWriter::Encode(frame.data(), m_width, m_height);
        file.Write(pgm.data(), pgm.size());
      }
      file.Commit();
      result.fileBytes += FileSize(path);
      result.files.push_back(path);
    }
    if (options.preview) {
      const std::string path = prefix + FrameFileName(m_name, n, "-preview.png");
      OutputFile file(path);
      const std::vector<uint8_t> rgb = PreviewRenderer::Render(frame.data(), m_width, m_height);
      std::string error;
      errno = 0;
      CheckPng(file, PngWriter::WriteRgb8(file.stream(), rgb.data(), m_width, m_height, error), error);
      file.Commit();
      result.previews.push_back(path);
    }
    ++result.frames;
    if (progress && !progress(result.frames)) {
      result.interrupted = true;
      return result;  // an unfinished raw file is removed with `raw`
    }
  }
  if (raw) {
    raw->Commit();
    result.fileBytes = FileSize(raw->path());
    result.files.push_back(raw->path());
  }
  return result;
}
