#include "tools/zebtrk/ViewHandle.h"

#include "tools/zebtrk/TiffLayout.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>

namespace {

// Frames larger than this are not kept: their bytes are read as asked.
const unsigned long kMaxCachedFrameBytes = 64UL << 20;
// Frames kept per handle: the kernel's read-ahead asks for pieces of
// neighbouring frames out of order, and one frame is read ahead.
const size_t kCachedFrames = 3;

// A frame's bytes, left uninitialised until the plug-in fills them.
typedef std::shared_ptr<const char> FrameBytes;

// A block a read fills; it stays with the call when the caller gives up.
struct SBlock {
  char* data = nullptr;
  unsigned int got = 0;
  explicit SBlock(size_t size) : data(static_cast<char*>(malloc(size ? size : 1))) {}
  ~SBlock() { free(data); }
  SBlock(const SBlock&) = delete;
  SBlock& operator=(const SBlock&) = delete;
};

}  // namespace

// The plug-in's file, which only the worker touches, and the frames last
// read from it, which any thread may copy from.
struct ViewHandle::SFile {
  zeb::TSharedPtr<zeb::IFile> file;
  std::mutex lock;  // guards `frames`, `lastFetched`
  std::deque<std::pair<unsigned long, FrameBytes>> frames;
  unsigned long lastFetched = ~0UL;  // the frame a reader last waited for

  FrameBytes Cached(unsigned long frame) {
    std::lock_guard<std::mutex> hold(lock);
    for (const auto& kept : frames) {
      if (kept.first == frame) return kept.second;
    }
    return nullptr;
  }
  // In the worker: the frame from the cache or read through the plug-in.
  FrameBytes Fetch(unsigned long frame, unsigned long frameBytes) {
    if (FrameBytes kept = Cached(frame)) return kept;
    const long position = static_cast<long>(frame * frameBytes);
    if (file->Seek(position, zeb::IFile::kSeekBegin) != position) return nullptr;
    std::shared_ptr<char> bytes(new char[frameBytes], std::default_delete<char[]>());
    if (file->Read(bytes.get(), static_cast<unsigned int>(frameBytes)) != frameBytes) return nullptr;
    std::lock_guard<std::mutex> hold(lock);
    if (frames.size() == kCachedFrames) frames.pop_front();
    frames.emplace_back(frame, bytes);
    return bytes;
  }
};

ViewHandle::ViewHandle(const SMovieView& view, std::chrono::milliseconds limit)
    : m_view(view), m_file(std::make_shared<SFile>()) {
  if (view.dataBytes > 0) m_calls = std::make_unique<BoundedWorker>(limit);
}

ViewHandle::~ViewHandle() {
  if (!m_calls) return;
  // The last reference goes in the worker: closing the movie asks the service.
  std::shared_ptr<SFile> file = std::move(m_file);
  m_calls->Run([file]() mutable { file.reset(); });
}

ViewHandle::SResult ViewHandle::Failure(BoundedWorker::EResult result, const std::string& what,
                                        std::chrono::milliseconds limit) {
  SResult failure;
  failure.error = -EIO;
  if (result == BoundedWorker::EResult::kDone) {
    failure.why = what + " failed";
  } else {
    failure.why = what + ": the movie service did not answer within " + BoundedWorker::LimitText(limit);
  }
  return failure;
}

std::unique_ptr<ViewHandle> ViewHandle::Open(zeb::IFileSystem* fileSystem, const SMovieView& view,
                                             std::chrono::milliseconds limit, SResult& result) {
  result = SResult();
  std::unique_ptr<ViewHandle> handle(new ViewHandle(view, limit));
  if (!handle->m_calls) return handle;

  auto opened = std::make_shared<bool>(false);
  const std::string uri = view.movie->uri();
  const unsigned long expected = view.dataBytes;
  std::shared_ptr<SFile> file = handle->m_file;
  const BoundedWorker::EResult ran = handle->m_calls->Run([fileSystem, uri, expected, file, opened] {
    file->file = fileSystem->OpenFile(uri.c_str(), zeb::IFile::kModeRead);
    *opened = file->file && file->file->GetSize() == static_cast<long>(expected);
  });
  if (ran == BoundedWorker::EResult::kDone && *opened) return handle;
  result = Failure(ran, "opening the movie", limit);
  return nullptr;
}

ViewHandle::SResult ViewHandle::Read(unsigned long offset, size_t size, char*& data, size_t& bytes) {
  data = nullptr;
  bytes = 0;
  const unsigned long total = m_view.size();
  if (offset >= total || size == 0) return SResult();
  const size_t wanted = static_cast<size_t>(std::min<unsigned long>(size, total - offset));
  auto block = std::make_shared<SBlock>(wanted);
  if (!block->data) return SResult{-ENOMEM, "out of memory"};

  // The part of the prefix (the .info text, the .npy header) first.
  size_t fromPrefix = 0;
  if (offset < m_view.prefix.size()) {
    fromPrefix = std::min(wanted, static_cast<size_t>(m_view.prefix.size() - offset));
    memcpy(block->data, m_view.prefix.data() + offset, fromPrefix);
  }
  const unsigned long dataEnd = m_view.prefix.size() + m_view.dataBytes;
  const size_t beforeSuffix = offset >= dataEnd ? 0 : static_cast<size_t>(std::min<unsigned long>(wanted, dataEnd - offset));
  if (beforeSuffix > fromPrefix) {
    const unsigned long position = offset + fromPrefix - m_view.prefix.size();
    const SResult copied = m_view.movie->width * m_view.movie->height * 2UL <= kMaxCachedFrameBytes
                               ? CopyFrames(position, block->data + fromPrefix, beforeSuffix - fromPrefix)
                               : ReadDirect(position, block, fromPrefix, beforeSuffix - fromPrefix);
    if (copied.error != 0) return copied;
  }
  // The TIFF page directories, computed.
  const size_t fromSuffix = wanted - std::max(fromPrefix, beforeSuffix);
  if (fromSuffix > 0) {
    TiffLayout::CopyDirectories(m_view.movie->frames, m_view.movie->height, m_view.movie->width,
                                offset + wanted - fromSuffix - dataEnd, block->data + wanted - fromSuffix,
                                fromSuffix);
  }
  data = block->data;
  block->data = nullptr;
  bytes = wanted;
  return SResult();
}

ViewHandle::SResult ViewHandle::CopyFrames(unsigned long position, char* out, size_t count) {
  const unsigned long frameBytes = m_view.movie->width * m_view.movie->height * 2UL;
  while (count > 0) {
    const unsigned long frame = position / frameBytes;
    const unsigned long within = position % frameBytes;
    FrameBytes bytes = m_file->Cached(frame);
    if (!bytes) {
      auto fetched = std::make_shared<FrameBytes>();
      std::shared_ptr<SFile> file = m_file;
      const BoundedWorker::EResult ran =
          m_calls->Run([file, fetched, frame, frameBytes] { *fetched = file->Fetch(frame, frameBytes); });
      if (ran != BoundedWorker::EResult::kDone || !*fetched) return Failure(ran, "reading frame data", m_calls->limit());
      bytes = *fetched;
      ReadAhead(frame, frameBytes);
    }
    const size_t n = static_cast<size_t>(std::min<unsigned long>(count, frameBytes - within));
    memcpy(out, bytes.get() + within, n);
    out += n;
    position += n;
    count -= n;
  }
  return SResult();
}

void ViewHandle::ReadAhead(unsigned long frame, unsigned long frameBytes) {
  {
    std::lock_guard<std::mutex> hold(m_file->lock);
    const bool sequential = frame == m_file->lastFetched + 1;
    m_file->lastFetched = frame;
    if (!sequential || frame + 1 >= m_view.movie->frames) return;
  }
  std::shared_ptr<SFile> file = m_file;
  m_calls->Post([file, frame, frameBytes] { file->Fetch(frame + 1, frameBytes); });
}

ViewHandle::SResult ViewHandle::ReadDirect(unsigned long position, const std::shared_ptr<void>& owner, size_t at,
                                           size_t count) {
  SBlock* block = static_cast<SBlock*>(owner.get());
  std::shared_ptr<SFile> file = m_file;
  const long from = static_cast<long>(position);
  const BoundedWorker::EResult ran = m_calls->Run([file, owner, block, from, at, count] {
    if (file->file->Seek(from, zeb::IFile::kSeekBegin) != from) return;
    block->got = file->file->Read(block->data + at, static_cast<unsigned int>(count));
  });
  if (ran != BoundedWorker::EResult::kDone || block->got != count) {
    return Failure(ran, "reading frame data", m_calls->limit());
  }
  return SResult();
}
