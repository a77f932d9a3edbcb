// FrameExporter: opens one movie through the imager file factory's
// "TRK Imager File" type and writes a range of its frames to a folder as
// 16-bit PNG, 16-bit PGM or raw bytes, with optional false-colour previews.
//
// Output files (NAME is the movie file name with '/' and control characters
// replaced by '_'; NNNNNN the 0-based frame number, at least six digits):
//   png   NAME-NNNNNN.png          16-bit grayscale, the frame's values
//   pgm   NAME-NNNNNN.pgm          P5, maxval 65535, big-endian samples
//   raw   NAME.raw                 the range's frame bytes back to back, as
//                                  read (16-bit little-endian, row by row)
//   --preview  NAME-NNNNNN-preview.png   8-bit false colour, per frame
// Every file is written under a temporary name and renamed when complete.
// An interrupted export (SIGINT/SIGTERM) stops between frames; files already
// complete stay, the one in progress is removed.
//
// Ownership: borrows the file system; owns the imager file, which it
// releases through the type's Destroy before the destructor returns (so the
// exporter must go before the plug-in is unloaded). One thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <zeb/IFileSystem.h>
#include <zeb/file/IImagerFile.h>

#include "tools/zebtrk/FrameRange.h"
#include "tools/zebtrk/MovieCatalog.h"

class FrameExporter {
 public:
  enum class EFormat { kPng, kPgm, kRaw };

  struct SOptions {
    EFormat format = EFormat::kPng;
    bool preview = false;
    std::string folder;  // must exist and be writable (PrepareFolder)
  };

  struct SResult {
    unsigned long frames = 0;        // frames read and written
    unsigned long frameBytes = 0;    // bytes of frame data read (= written for raw)
    unsigned long fileBytes = 0;     // bytes of the files written
    std::vector<std::string> files;  // frame files, in frame order
    std::vector<std::string> previews;
    bool interrupted = false;
  };

  // Called after each frame with the number of frames done; returning false
  // stops the export (an interruption).
  typedef std::function<bool(unsigned long done)> Progress;

  // Opens `movie` on `fileSystem`. Failure: CliError kExitPlugin when the
  // type is not registered, kExitFailure when the movie does not open.
  FrameExporter(zeb::IFileSystem* fileSystem, const Movie& movie);
  ~FrameExporter();
  FrameExporter(const FrameExporter&) = delete;
  FrameExporter& operator=(const FrameExporter&) = delete;

  unsigned int width() const { return m_width; }
  unsigned int height() const { return m_height; }
  unsigned long frames() const { return m_frames; }
  unsigned long frameBytes() const { return static_cast<unsigned long>(m_width) * m_height * 2; }

  // Reads frame `frame` into `buffer` (resized to frameBytes()). Failure:
  // CliError kExitFailure.
  void ReadFrame(unsigned long frame, std::vector<uint8_t>& buffer);

  // Exports `range` (within frames()). Failure: CliError (kExitFailure for a
  // read error, kExitOutput for a write error); complete files stay.
  SResult Export(const FrameRange& range, const SOptions& options, const Progress& progress);

  // Makes `folder` (and its parents) when missing and checks that files can
  // be created in it. Failure: CliError kExitOutput.
  static void PrepareFolder(const std::string& folder);
  // The file name of `frame` of the movie `name` with `suffix` (".png",
  // "-preview.png", ...).
  static std::string FrameFileName(const std::string& name, unsigned long frame, const std::string& suffix);
  // `name` made safe as one file name component.
  static std::string SafeName(const std::string& name);

 private:
  // Released through the type's own Destroy.
  typedef std::unique_ptr<zeb::file::IImagerFile, std::function<void(zeb::file::IImagerFile*)>> FilePointer;

  std::string m_name;
  FilePointer m_file;
  unsigned int m_width = 0;
  unsigned int m_height = 0;
  unsigned long m_frames = 0;
};
