#include "tools/zebtrk/ViewHandle.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

// The plug-in's file; only the worker touches it.
struct ViewHandle::SFile {
  zeb::TSharedPtr<zeb::IFile> file;
};

namespace {

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

ViewHandle::ViewHandle(const SMovieView& view, std::chrono::milliseconds limit)
    : m_view(view), m_file(std::make_shared<SFile>()) {
  if (view.dataBytes > 0) m_calls = std::make_unique<BoundedCall>(limit);
}

ViewHandle::~ViewHandle() {
  if (!m_calls) return;
  // The last reference goes in the worker: closing the movie asks the service.
  std::shared_ptr<SFile> file = std::move(m_file);
  m_calls->Run([file]() mutable { file->file = zeb::TSharedPtr<zeb::IFile>(); });
}

ViewHandle::SResult ViewHandle::Failure(BoundedCall::EResult result, const std::string& what,
                                        std::chrono::milliseconds limit) {
  SResult failure;
  failure.error = -EIO;
  if (result == BoundedCall::EResult::kDone) {
    failure.why = what + " failed";
  } else {
    failure.why = what + ": the movie service did not answer within " + BoundedCall::LimitText(limit);
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
  const BoundedCall::EResult ran = handle->m_calls->Run([fileSystem, uri, expected, file, opened] {
    file->file = fileSystem->OpenFile(uri.c_str(), zeb::IFile::kModeRead);
    *opened = file->file && file->file->GetSize() == static_cast<long>(expected);
  });
  if (ran == BoundedCall::EResult::kDone && *opened) return handle;
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
  const size_t fromData = wanted - fromPrefix;
  if (fromData > 0) {
    const long position = static_cast<long>(offset + fromPrefix - m_view.prefix.size());
    std::shared_ptr<SFile> file = m_file;
    const BoundedCall::EResult ran = m_calls->Run([file, block, position, fromPrefix, fromData] {
      if (file->file->Seek(position, zeb::IFile::kSeekBegin) != position) return;
      block->got = file->file->Read(block->data + fromPrefix, static_cast<unsigned int>(fromData));
    });
    if (ran != BoundedCall::EResult::kDone || block->got != fromData) {
      return Failure(ran, "reading frame data", m_calls->limit());
    }
  }
  data = block->data;
  block->data = nullptr;
  bytes = wanted;
  return SResult();
}
