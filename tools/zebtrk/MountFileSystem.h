// MountFileSystem: the FUSE operations of `zebtrk mount`: one flat folder
// with the views of every movie (MovieViews), read through the plug-in.
//
// Listing and attributes come from a snapshot of the plug-in's cached movie
// list (SetMovies, called at start and at every files-changed report): `ls`
// of the mount never reaches the plug-in, let alone the service. Opening a
// data view opens the movie through the plug-in (ViewHandle); every call that
// may wait for the service (open, read, close, delete) is bounded by the
// timeout and fails with EIO past it. Writing, creating, renaming and
// deleting are refused with EROFS, except that with allowDelete unlinking
// NAME.raw deletes the movie (unlinking its other views is then EPERM: they
// are views, the movie goes with its frame data, so `rm *.info` deletes
// nothing).
//
// What the user must know (a read failing, the service not answering or
// gone) goes to `notice`, once per change of state.
//
// Ownership: borrows the plug-in and its file system, which must outlive the
// object; owns the open handles (the destructor closes those left). Threads:
// the operations run on FUSE's threads, SetMovies on any thread.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <zeb/IFileSystem.h>

#include "tools/zebtrk/BoundedWorker.h"
#include "tools/zebtrk/MovieViews.h"
#include "tools/zebtrk/PluginLoader.h"
#include "tools/zebtrk/ViewHandle.h"

struct fuse_operations;

class MountFileSystem {
 public:
  struct SOptions {
    bool allowDelete = false;
    bool emulator = false;  // no service to blame for a failed read
    std::chrono::milliseconds timeout{10000};
  };
  typedef std::function<void(const std::string& message)> Notice;

  MountFileSystem(PluginLoader& plugin, zeb::IFileSystem* fileSystem, const SOptions& options, Notice notice);
  ~MountFileSystem();
  MountFileSystem(const MountFileSystem&) = delete;
  MountFileSystem& operator=(const MountFileSystem&) = delete;

  // The operations, for fuse_new with this object as the user data.
  static const fuse_operations* Operations();

  // Replaces the listing snapshot.
  void SetMovies(const std::vector<Movie>& movies);
  std::shared_ptr<const MovieViews> views() const;

  // The operations behind the FUSE callbacks (results: 0 or -errno).
  int Attributes(const std::string& path, struct stat& st) const;
  int HandleAttributes(uint64_t handle, struct stat& st) const;
  std::vector<std::string> Names() const;
  int Open(const std::string& path, int flags, uint64_t& handle);
  int Read(uint64_t handle, unsigned long offset, size_t size, char*& data, size_t& bytes);
  void Release(uint64_t handle);
  int Unlink(const std::string& path);

 private:
  std::shared_ptr<ViewHandle> Handle(uint64_t id) const;
  static void ViewAttributes(const SMovieView& view, struct stat& st);
  void ReadFailed(const std::string& why);

  PluginLoader& m_plugin;
  zeb::IFileSystem* m_fileSystem;
  const SOptions m_options;
  Notice m_notice;
  BoundedWorker m_removals;  // deletions, one at a time

  mutable std::mutex m_lock;  // guards the two below
  std::shared_ptr<const MovieViews> m_views;
  std::map<uint64_t, std::shared_ptr<ViewHandle>> m_handles;
  uint64_t m_nextHandle = 1;
  std::atomic<bool> m_failing{false};  // the last read failed
};
