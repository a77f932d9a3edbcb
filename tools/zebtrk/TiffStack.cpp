#include "tools/zebtrk/TiffStack.h"

#include <tiffio.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "tools/zebtrk/CliError.h"
#include "tools/zebtrk/TextFormat.h"

#if __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "TiffStack hands the frames' little-endian samples to libtiff as native 16-bit samples"
#endif

namespace {

// libtiff's last error message (its handler is process-wide).
std::mutex g_lock;
std::string g_lastError;

void OnError(const char* module, const char* format, va_list arguments) {
  char text[512];
  vsnprintf(text, sizeof(text), format, arguments);
  std::lock_guard<std::mutex> guard(g_lock);
  g_lastError = std::string(module ? module : "libtiff") + ": " + text;
}

void OnWarning(const char*, const char*, va_list) {}

std::string LastError() {
  std::lock_guard<std::mutex> guard(g_lock);
  return g_lastError.empty() ? "libtiff failed" : g_lastError;
}

// Room left for the directories and descriptions of a classic TIFF.
constexpr uint64_t kClassicLimit = 0xFFFFFFFFULL - (64ULL << 20);

}  // namespace

bool TiffStack::NeedsBigTiff(unsigned int width, unsigned int height, unsigned long pages) {
  const uint64_t data = static_cast<uint64_t>(width) * height * 2 * pages;
  return data + static_cast<uint64_t>(pages) * 512 > kClassicLimit;
}

std::string TiffStack::ImageJDescription(unsigned long pages, double frameIntervalSeconds) {
  std::string text = "ImageJ=1.11a\nimages=" + std::to_string(pages) + "\nframes=" + std::to_string(pages) + "\n";
  if (frameIntervalSeconds > 0) {
    char interval[64];
    snprintf(interval, sizeof(interval), "%.9g", frameIntervalSeconds);
    text += std::string("finterval=") + interval + "\ntunit=sec\n";
  }
  return text + "unit=pixel\nloop=false\n";
}

TiffStack::TiffStack(const std::string& path, unsigned int width, unsigned int height, unsigned long pages,
                     double frameIntervalSeconds)
    : m_path(path), m_width(width), m_height(height), m_pages(pages),
      m_description(ImageJDescription(pages, frameIntervalSeconds)) {
  TIFFSetErrorHandler(OnError);
  TIFFSetWarningHandler(OnWarning);
  m_tiff = TIFFOpen(path.c_str(), NeedsBigTiff(width, height, pages) ? "w8" : "w");
  if (!m_tiff) Fail("cannot create");
}

TiffStack::~TiffStack() {
  if (m_tiff) TIFFClose(m_tiff);
}

void TiffStack::Fail(const std::string& what) { throw CliError(kExitOutput, what + " " + m_path + ": " + LastError()); }

void TiffStack::AddPage(const uint8_t* frame, long ticks) {
  TIFF* tiff = m_tiff;
  const uint16_t page = static_cast<uint16_t>(m_written > 0xFFFF ? 0xFFFF : m_written);
  const uint16_t total = static_cast<uint16_t>(m_pages > 0xFFFF ? 0xFFFF : m_pages);
  bool ok = TIFFSetField(tiff, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE) && TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, m_width) &&
            TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, m_height) && TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 16) &&
            TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1) &&
            TIFFSetField(tiff, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT) &&
            TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK) &&
            TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE) &&
            TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
            TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, m_height) && TIFFSetField(tiff, TIFFTAG_PAGENUMBER, page, total);
  if (ok && m_written == 0) ok = TIFFSetField(tiff, TIFFTAG_IMAGEDESCRIPTION, m_description.c_str());
  if (ok && ticks != 0) {
    ok = TIFFSetField(tiff, TIFFTAG_DATETIME, TextFormat::TiffTime(ticks).c_str()) &&
         TIFFSetField(tiff, TIFFTAG_PAGENAME, TextFormat::IsoTime(ticks).c_str());
  }
  if (!ok) Fail("cannot describe a page of");
  const tmsize_t bytes = static_cast<tmsize_t>(m_width) * m_height * 2;
  if (TIFFWriteEncodedStrip(tiff, 0, const_cast<uint8_t*>(frame), bytes) != bytes) Fail("cannot write");
  if (!TIFFWriteDirectory(tiff)) Fail("cannot write");
  ++m_written;
}

void TiffStack::Close() {
  TIFF* tiff = m_tiff;
  m_tiff = nullptr;
  // TIFFClose reports nothing: a write error shows in the flush.
  const bool flushed = TIFFFlush(tiff) != 0;
  TIFFClose(tiff);
  if (!flushed) Fail("cannot write");
}
