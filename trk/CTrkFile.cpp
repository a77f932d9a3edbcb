#include "trk/CTrkFile.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <utility>

#include "trk/CTrkInterface.h"

namespace zeb {
namespace trk {

// What the files of one movie share (see the header): the read lock and the
// number of frame requests sent for the movie by any of them.
struct STrkMovieReads {
  std::mutex lock;
  unsigned long requests = 0;
};

namespace {

// "No frame known yet" for m_currentFrame.
const unsigned long kNoFrame = ~0UL;

// The largest frame, in pixels, whose byte count (two bytes a pixel) fits the
// 32-bit frame size. Width and height are 16-bit, so width x height reaches
// 65535^2; from 2^31 pixels on, width x height x 2 would wrap in 32 bits.
const unsigned long kMaxFramePixels = 0x7FFFFFFFUL;

// The movie's frame size and file size when the file can serve it; false for
// dimensions it cannot: a frame whose byte count does not fit 32 bits (the
// frame size would wrap, and every read would copy from the wrong place of a
// mapping too short for the frame), or a movie whose byte count does not fit
// the signed 64-bit size. A movie without pixels (width or height 0) has
// size 0; its reads end before any frame is worked out.
bool ServableSize(unsigned short width, unsigned short height, unsigned long numFrames,
                  unsigned int& frameSize, long& size) {
  const unsigned long pixels = static_cast<unsigned long>(width) * height;
  if (pixels > kMaxFramePixels) return false;
  unsigned long bytes = 0;
  if (__builtin_mul_overflow(numFrames, pixels * 2, &bytes) || bytes > LONG_MAX) return false;
  frameSize = static_cast<unsigned int>(pixels * 2);
  size = static_cast<long>(bytes);
  return true;
}

// The shared record of the movie `fileId` on `client`, made when no open file
// of that movie holds one. Records of closed movies go when their last file
// does; the map forgets them on the next look-up. The registry is never
// destroyed, so files that outlive static destruction stay safe.
std::shared_ptr<STrkMovieReads> MovieReads(const CTrkClient* client, unsigned int fileId) {
  typedef std::map<std::pair<const CTrkClient*, unsigned int>, std::weak_ptr<STrkMovieReads>>
      Registry;
  static std::mutex* registryLock = new std::mutex;
  static Registry* registry = new Registry;
  std::lock_guard<std::mutex> guard(*registryLock);
  for (Registry::iterator it = registry->begin(); it != registry->end();) {
    it = it->second.expired() ? registry->erase(it) : std::next(it);
  }
  std::weak_ptr<STrkMovieReads>& slot = (*registry)[std::make_pair(client, fileId)];
  std::shared_ptr<STrkMovieReads> reads = slot.lock();
  if (!reads) {
    reads = std::make_shared<STrkMovieReads>();
    slot = reads;
  }
  return reads;
}

}  // namespace

// Dimensions that the file cannot serve (see ServableSize) give a file of size
// 0 without any request: the service is not asked to open a movie that could
// never be read correctly, and Close has then nothing to close. A movie
// without pixels is opened (and closed) like any other and has size 0. A segment
// shorter than one frame is treated as a failed open: every frame is copied
// from the start of the mapping, so a shorter mapping would be read past its
// end. The movie was opened on the service in that case, so CloseMovie is
// still sent by Close and the destructor.
CTrkFile::CTrkFile(CTrkInterface* fileSystem, CTrkClient* client, unsigned int fileId,
                   zeb::CString filename, unsigned short width, unsigned short height,
                   unsigned long numFrames)
    : m_fileSystem(fileSystem),
      m_client(client),
      m_fileId(fileId),
      m_size(0),
      m_position(0),
      m_frameSize(0),
      m_filename(std::move(filename)),
      m_sharedMemory(),
      m_currentFrame(kNoFrame),
      m_openRequested(false),
      m_reads(),
      m_readsSeen(0) {
  long size = 0;
  if (!m_client || !ServableSize(width, height, numFrames, m_frameSize, size)) return;
  m_openRequested = true;
  zeb::CString mapping;
  if (!m_client->OpenMovie(m_fileId, mapping)) return;
  if (!m_sharedMemory.Open(mapping.c_str())) return;
  if (m_sharedMemory.size() < m_frameSize) {
    m_sharedMemory.Close();
    return;
  }
  try {
    m_reads = MovieReads(m_client, m_fileId);
  } catch (const std::exception&) {  // exhausted memory: as a failed open
    m_sharedMemory.Close();
    return;
  }
  m_size = size;
}

CTrkFile::~CTrkFile() { CTrkFile::Close(); }

zeb::CString CTrkFile::filename() { return m_filename; }

zeb::IFileSystem* CTrkFile::fileSystem() { return m_fileSystem; }

unsigned int CTrkFile::Write(const void*, unsigned int) { return 0; }

// The count is cut at the end of the file, so no frame at or past the movie's
// last one is ever requested: the file does not depend on the service
// refusing such frame numbers.
unsigned int CTrkFile::Read(void* data, unsigned int count) {
  if (!data || count == 0 || m_position >= m_size) return 0;
  const unsigned long wanted =
      std::min(static_cast<unsigned long>(count), static_cast<unsigned long>(m_size - m_position));
  unsigned char* out = static_cast<unsigned char*>(data);
  std::lock_guard<std::mutex> guard(m_reads->lock);
  unsigned long frame = static_cast<unsigned long>(m_position) / m_frameSize;
  unsigned long offset = static_cast<unsigned long>(m_position) % m_frameSize;
  unsigned long total = 0;
  while (total < wanted) {
    const unsigned long n = std::min(m_frameSize - offset, wanted - total);
    if (!CopyFromFrame(frame, offset, out + total, n)) break;
    total += n;
    m_position += static_cast<long>(n);
    ++frame;
    offset = 0;
  }
  return static_cast<unsigned int>(total);
}

bool CTrkFile::CopyFromFrame(unsigned long frame, unsigned long offset, unsigned char* data,
                             unsigned long count) {
  // A request of another file of the movie, successful or not, may have
  // refilled the segment: the held frame is then no longer trusted.
  if (frame != m_currentFrame || m_readsSeen != m_reads->requests) {
    const bool heldFrameTrusted = m_readsSeen == m_reads->requests;
    ++m_reads->requests;
    if (!m_client->ReadFrame(m_fileId, frame)) {
      // m_currentFrame still names the last frame fetched; a failed request
      // of this file's own leaves it trusted, so a read of it copies from the
      // segment without a request.
      if (heldFrameTrusted) m_readsSeen = m_reads->requests;
      return false;
    }
    m_currentFrame = frame;
    m_readsSeen = m_reads->requests;
  }
  std::memcpy(data, static_cast<const unsigned char*>(m_sharedMemory.data()) + offset, count);
  return true;
}

long CTrkFile::GetSize() { return m_size; }

long CTrkFile::GetPosition() { return m_position; }

long CTrkFile::Seek(long offset, unsigned int origin) {
  long base = 0;
  switch (origin) {
    case zeb::IFile::kSeekBegin:
      base = 0;
      break;
    case zeb::IFile::kSeekCurrent:
      base = m_position;
      break;
    case zeb::IFile::kSeekEnd:
      base = m_size;
      break;
    default:
      return m_position;
  }
  long target = 0;
  // A sum beyond the range of long lies beyond one end of the file anyway.
  if (__builtin_add_overflow(base, offset, &target)) target = offset < 0 ? 0 : m_size;
  m_position = std::clamp(target, 0L, m_size);
  return m_position;
}

bool CTrkFile::SetSize(long) { return false; }

void CTrkFile::Flush() {}

bool CTrkFile::Close() {
  if (!m_openRequested) return false;
  return m_client->CloseMovie(m_fileId);
}

bool CTrkFile::canRead() { return true; }

bool CTrkFile::canWrite() { return false; }

}  // namespace trk
}  // namespace zeb
