#include "python/src/MovieReader.h"

#include <algorithm>
#include <climits>

#include "python/src/ModuleError.h"
#include "python/src/PluginHost.h"

namespace {

typedef ModuleError::EKind EKind;

// Bytes per IFile::Read call and between two keepGoing checks: large enough
// that the checks cost nothing, small enough that Ctrl-C answers at once.
constexpr uint64_t kPieceBytes = 32u << 20;

}  // namespace

MovieReader::MovieReader(const Movie& movie)
    : m_movie(movie), m_frameBytes(static_cast<size_t>(movie.width) * movie.height * 2) {
  PluginHost& host = PluginHost::Instance();
  m_file = host.fileSystem()->OpenFile(movie.uri().c_str(), zeb::IFile::kModeRead);
  if (!m_file) {
    host.CheckService("opening " + movie.name);
    throw ModuleError(EKind::kFailure, "cannot open the movie " + movie.name + " (was it deleted?)");
  }
  const long size = m_file->GetSize();
  if (size >= 0 && static_cast<uint64_t>(size) != m_frameBytes * movie.frames) {
    throw ModuleError(EKind::kFailure, "the movie " + movie.name + " holds " + std::to_string(size) +
                                           " bytes, not the " + std::to_string(movie.frames) + " frames of " +
                                           std::to_string(movie.width) + "x" + std::to_string(movie.height) +
                                           " that its entry lists");
  }
}

void MovieReader::Close() { m_file.reset(); }

bool MovieReader::Read(uint64_t first, uint64_t count, int64_t step, void* out,
                       const std::function<bool()>& keepGoing) {
  if (count == 0) return true;
  const int64_t last = static_cast<int64_t>(first) + static_cast<int64_t>(count - 1) * step;
  if (first >= m_movie.frames || last < 0 || static_cast<uint64_t>(last) >= m_movie.frames) {
    throw ModuleError(EKind::kIndex, "frames " + std::to_string(first) + " to " + std::to_string(last) +
                                         " are not all within the " + std::to_string(m_movie.frames) +
                                         " frames of " + m_movie.name);
  }
  uint8_t* target = static_cast<uint8_t*>(out);
  const uint64_t perPiece = std::max<uint64_t>(1, kPieceBytes / std::max<size_t>(m_frameBytes, 1));
  uint64_t done = 0;
  while (done < count) {
    if (done > 0 && !keepGoing()) return false;
    if (step == 1) {
      const uint64_t frames = std::min(perPiece, count - done);
      ReadRun(first + done, frames, target + done * m_frameBytes);
      done += frames;
      continue;
    }
    const uint64_t end = std::min(count, done + perPiece);
    for (; done < end; ++done) {
      ReadRun(static_cast<uint64_t>(static_cast<int64_t>(first) + static_cast<int64_t>(done) * step), 1,
              target + done * m_frameBytes);
    }
  }
  return true;
}

void MovieReader::ReadRun(uint64_t frame, uint64_t frames, uint8_t* out) {
  const std::string what = "reading frame " + std::to_string(frame) + " of " + m_movie.name;
  if (!m_file) throw ModuleError(EKind::kFailure, what + " failed: the movie was closed");
  const uint64_t offset = frame * m_frameBytes;
  const uint64_t bytes = frames * m_frameBytes;
  // A piece is at most kPieceBytes or one frame: far below UINT_MAX for any
  // frame size the service can describe (16-bit width and height).
  if (bytes > UINT_MAX || m_file->Seek(static_cast<long>(offset), zeb::IFile::kSeekBegin) != static_cast<long>(offset)) {
    PluginHost::Instance().CheckService(what);
    throw ModuleError(EKind::kFailure, what + " failed: cannot seek to byte " + std::to_string(offset));
  }
  const unsigned int got = m_file->Read(out, static_cast<unsigned int>(bytes));
  if (got == bytes) return;
  const uint64_t failed = frame + got / m_frameBytes;
  const std::string where = "reading frame " + std::to_string(failed) + " of " + m_movie.name;
  PluginHost::Instance().CheckService(where);
  throw ModuleError(EKind::kFailure, where + " failed (the movie service or the cache directory gave no data)");
}
