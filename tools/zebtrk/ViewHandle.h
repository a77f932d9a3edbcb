// ViewHandle: one open file of the mounted folder (one FUSE file handle).
//
// A data view (.raw, .npy) owns its own movie file of the plug-in (opened
// through IFileSystem::OpenFile) and its own BoundedWorker worker: each reader
// keeps its own position and held frame, and a reader stuck behind a silent
// service costs only its own bound. A read asks the plug-in only for the
// frames its bytes lie in, each read whole once and kept (the last three per
// handle; a sequential reader also gets the next frame read ahead while it
// copies the current one): the kernel splits a program's read into pieces of 128 KiB that
// reach several FUSE threads out of order, and pieces of a frame already kept
// are copied in the calling thread without waiting for the worker. Frames
// over 64 MiB are not kept (their bytes are read as asked). The .info view is
// answered from memory.
//
// The handle keeps the view it was opened on, so it goes on working when the
// movie list changes (the plug-in's file addresses the movie it opened).
//
// Ownership: the plug-in's file is released, and its movie closed, in the
// worker when the handle goes (within the bound; an abandoned close ends
// later in the detached worker). Threads: Read may be called from several
// threads at once (the worker serialises them).
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include <zeb/IFile.h>
#include <zeb/IFileSystem.h>
#include <zeb/TSharedPtr.h>

#include "tools/zebtrk/BoundedWorker.h"
#include "tools/zebtrk/MovieViews.h"

class ViewHandle {
 public:
  // The outcome of an Open or a Read: 0 or a negative errno, and for a
  // failure the reason in words.
  struct SResult {
    int error = 0;
    std::string why;
  };

  // Opens `view`; a data view opens its movie through `fileSystem` within
  // `limit`. A file that does not open, or whose size is not the view's
  // frame data, is -EIO.
  static std::unique_ptr<ViewHandle> Open(zeb::IFileSystem* fileSystem, const SMovieView& view,
                                          std::chrono::milliseconds limit, SResult& result);
  ~ViewHandle();
  ViewHandle(const ViewHandle&) = delete;
  ViewHandle& operator=(const ViewHandle&) = delete;

  // Reads up to `size` bytes at `offset` into a block made with malloc,
  // which `data` receives on success (the caller frees it); `bytes` is the
  // count (0 at or past the end).
  SResult Read(unsigned long offset, size_t size, char*& data, size_t& bytes);

  const SMovieView& view() const { return m_view; }

 private:
  struct SFile;
  ViewHandle(const SMovieView& view, std::chrono::milliseconds limit);
  static SResult Failure(BoundedWorker::EResult result, const std::string& what, std::chrono::milliseconds limit);
  // `count` frame data bytes from `position` into `out`, through the frames
  // kept (a missing frame is read whole, in the worker).
  SResult CopyFrames(unsigned long position, char* out, size_t count);
  // After a reader waited for `frame`: when it follows the frame waited for
  // before, the next one is read in the worker meanwhile.
  void ReadAhead(unsigned long frame, unsigned long frameBytes);
  // The same for frames too large to keep: one bounded Read into the block
  // that `owner` holds, at `at`.
  SResult ReadDirect(unsigned long position, const std::shared_ptr<void>& owner, size_t at, size_t count);

  SMovieView m_view;
  std::shared_ptr<SFile> m_file;  // shared with the calls in the worker
  std::unique_ptr<BoundedWorker> m_calls;
};
