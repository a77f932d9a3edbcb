// TiffStack: writes frames as one multi-page 16-bit grayscale TIFF (libtiff)
// that ImageJ/Fiji opens as a stack and other analysis programs read page by
// page.
//
// Each page: width x height, 16 bits per sample, one sample, min-is-black,
// uncompressed (so readers can map the pages and the export runs at the
// drive's speed), one strip, the page number and the frame's time stamp as
// DateTime ("YYYY:MM:DD HH:MM:SS", the TIFF form) and as PageName (ISO 8601
// with microseconds). The first page's ImageDescription follows ImageJ's own
// convention ("ImageJ=...", images=, frames=, finterval=, unit=), which is
// how ImageJ learns that the pages are frames of one stack and their
// interval. A file that would pass 4 GiB is written as BigTIFF.
//
// Ownership: owns the libtiff handle; the destructor closes an unfinished
// file without reporting (the caller deletes it). Writes the file by name, so
// the caller gives the temporary path of its OutputFile. One thread; the
// libtiff error handler it installs is process-wide (this tool only).
#pragma once

#include <cstdint>
#include <string>

typedef struct tiff TIFF;

class TiffStack {
 public:
  // Creates `path` for `pages` pages. `frameIntervalSeconds` 0: unknown.
  // Failure: CliError kExitOutput with libtiff's reason.
  TiffStack(const std::string& path, unsigned int width, unsigned int height, unsigned long pages,
            double frameIntervalSeconds);
  ~TiffStack();
  TiffStack(const TiffStack&) = delete;
  TiffStack& operator=(const TiffStack&) = delete;

  // Appends one page: `frame` holds width x height little-endian 16-bit
  // samples; `ticks` is the frame's time (100-ns ticks since 1601, 0: none).
  // Failure: CliError kExitOutput.
  void AddPage(const uint8_t* frame, long ticks);
  // Finishes the file. Failure: CliError kExitOutput.
  void Close();

  // True when `pages` such frames need BigTIFF (the classic format's offsets
  // are 32 bits).
  static bool NeedsBigTiff(unsigned int width, unsigned int height, unsigned long pages);
  // ImageJ's description of a stack of `pages` frames.
  static std::string ImageJDescription(unsigned long pages, double frameIntervalSeconds);

 private:
  [[noreturn]] void Fail(const std::string& what);

  std::string m_path;
  TIFF* m_tiff = nullptr;
  unsigned int m_width;
  unsigned int m_height;
  unsigned long m_pages;
  unsigned long m_written = 0;
  std::string m_description;
};
