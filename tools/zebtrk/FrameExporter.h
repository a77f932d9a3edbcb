// FrameExporter: opens one movie through the imager file factory's
// "TRK Imager File" type and writes a range of its frames to a folder.
//
// Output files (NAME is the movie file name with '/' and control characters
// replaced by '_'; NNNNNN the 0-based frame number, at least six digits;
// RANGE is "-frames-A-L", first and last frame, when the range is not the
// whole movie):
//   png   NAME-NNNNNN.png          16-bit grayscale, the frame's values
//   pgm   NAME-NNNNNN.pgm          P5, maxval 65535, big-endian samples
//   raw   NAMERANGE.raw + .info    the frames' bytes back to back, as read,
//                                  and their raw imager information file:
//                                  together a raw imager file pair
//   tiff  NAMERANGE.tif            one multi-page 16-bit TIFF (TiffStack)
//   npy   NAMERANGE.npy            one NumPy array (frames, height, width) <u2
//   --preview  NAME-NNNNNN-preview.png   8-bit false colour, per frame
//
// Frames are read in order on the caller's Caller (which bounds each plug-in
// call); PNG, PGM and previews are encoded on an EncoderPool and written in
// frame order. Every file is written under a temporary name and renamed when
// complete; without `force` an export that would replace a file refuses
// before it writes anything. An interruption (the progress callback says
// stop) ends between frames: complete per-frame files stay, an unfinished
// one-file export is removed.
//
// Ownership: borrows the file system; owns the imager file, which it
// releases through the type's Destroy before the destructor returns (so the
// exporter must go before the plug-in is unloaded). One thread (plus the
// pool's, which never touch the plug-in).
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <zeb/IFileSystem.h>
#include <zeb/file/IImagerFile.h>
#include <zeb/file/SRawImagerInfo.h>

#include "tools/zebtrk/FrameRange.h"
#include "tools/zebtrk/MovieCatalog.h"

class FrameExporter {
 public:
  enum class EFormat { kPng, kPgm, kRaw, kTiff, kNpy };

  // Runs one call into the plug-in (Commands bounds it in time); the default
  // runs it directly.
  typedef std::function<void(const std::function<void()>&)> Caller;

  struct SOptions {
    EFormat format = EFormat::kPng;
    bool preview = false;
    bool force = false;  // replace existing files
    std::string folder;  // must exist and be writable (PrepareFolder)
  };

  struct SResult {
    unsigned long frames = 0;        // frames read and written
    unsigned long frameBytes = 0;    // bytes of frame data read
    unsigned long fileBytes = 0;     // bytes of the files written
    std::vector<std::string> files;  // frame files (or the one file), in frame order
    std::vector<std::string> previews;
    bool interrupted = false;
  };

  // Called after each frame written with the number of frames done;
  // returning false stops the export (an interruption).
  typedef std::function<bool(unsigned long done)> Progress;

  // Opens `movie` on `fileSystem` through `call`. Failure: CliError
  // kExitPlugin when the type is not registered, kExitFailure when the movie
  // does not open.
  FrameExporter(zeb::IFileSystem* fileSystem, const Movie& movie, Caller call = nullptr);
  ~FrameExporter();
  FrameExporter(const FrameExporter&) = delete;
  FrameExporter& operator=(const FrameExporter&) = delete;

  unsigned int width() const { return m_width; }
  unsigned int height() const { return m_height; }
  unsigned long frames() const { return m_frames; }
  unsigned long frameBytes() const { return static_cast<unsigned long>(m_width) * m_height * 2; }

  // Reads frame `frame` into `buffer` (resized to frameBytes()) and returns
  // its time stamp (ticks, 0 when the movie has none). Failure: CliError
  // kExitFailure.
  long ReadFrame(unsigned long frame, std::vector<uint8_t>& buffer);

  // The files an export of `range` writes (frame files, previews, the one
  // file and its companion), in the folder of `options`.
  std::vector<std::string> Targets(const FrameRange& range, const SOptions& options) const;

  // Exports `range` (within frames()). Failure: CliError (kExitFailure for a
  // read error, kExitOutput for a write error or, without force, a file
  // that exists); complete per-frame files stay.
  SResult Export(const FrameRange& range, const SOptions& options, const Progress& progress);

  // Makes `folder` (and its parents) when missing and checks that files can
  // be created in it. Failure: CliError kExitOutput.
  static void PrepareFolder(const std::string& folder);
  // The file name of `frame` of the movie `name` with `suffix` (".png",
  // "-preview.png", ...).
  static std::string FrameFileName(const std::string& name, unsigned long frame, const std::string& suffix);
  // The file name of a one-file export of `range` of a movie of `frames`
  // frames, with `extension` (".raw", ".tif", ".npy").
  static std::string StackFileName(const std::string& name, const FrameRange& range, unsigned long frames,
                                   const std::string& extension);
  // `name` made safe as one file name component.
  static std::string SafeName(const std::string& name);

 private:
  // Released through the type's own Destroy.
  typedef std::unique_ptr<zeb::file::IImagerFile, std::function<void(zeb::file::IImagerFile*)>> FilePointer;

  SResult ExportFrames(const FrameRange& range, const SOptions& options, const Progress& progress);
  SResult ExportStack(const FrameRange& range, const SOptions& options, const Progress& progress);
  // The raw imager layout of frames `range` (timing shifted to its first).
  zeb::file::SRawImagerInfo RangeLayout(const FrameRange& range) const;

  std::string m_name;
  Caller m_call;
  FilePointer m_file;
  zeb::file::SRawImagerInfo m_layout;
  unsigned int m_width = 0;
  unsigned int m_height = 0;
  unsigned long m_frames = 0;
};
