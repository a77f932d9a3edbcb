#include "tools/zebtrk/MountFileSystem.h"

#define FUSE_USE_VERSION 312
#include <fuse.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/zebtrk/MovieCatalog.h"
#include "tools/zebtrk/ServiceProbe.h"

namespace {

const mode_t kFileMode = S_IFREG | 0444;

MountFileSystem* Self() { return static_cast<MountFileSystem*>(fuse_get_context()->private_data); }

// The file name of `path` ("/NAME.raw" gives "NAME.raw"); empty for the
// root and for anything deeper than the one folder.
std::string FileName(const std::string& path) {
  if (path.size() < 2 || path[0] != '/' || path.find('/', 1) != std::string::npos) return std::string();
  return path.substr(1);
}

void* Init(fuse_conn_info*, fuse_config* config) {
  // The snapshot changes under the kernel's feet: no cached names or
  // attributes (a look-up costs a map search here), and the page cache of a
  // file is dropped at each open because a name may come back as another
  // movie.
  config->entry_timeout = 0;
  config->negative_timeout = 0;
  config->attr_timeout = 0;
  config->kernel_cache = 0;
  // A deleted movie's open files go on reading; no hidden renames.
  config->hard_remove = 1;
  config->nullpath_ok = 1;
  return Self();
}

// Without a path (an open file whose name went) the open view answers.
int GetAttr(const char* path, struct stat* st, fuse_file_info* info) {
  if (path) return Self()->Attributes(path, *st);
  return info ? Self()->HandleAttributes(info->fh, *st) : -ENOENT;
}

int ReadDir(const char*, void* buffer, fuse_fill_dir_t fill, off_t, fuse_file_info*, fuse_readdir_flags) {
  MountFileSystem* self = Self();
  fill(buffer, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  fill(buffer, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
  for (const std::string& name : self->Names()) {
    struct stat st;
    self->Attributes("/" + name, st);
    if (fill(buffer, name.c_str(), &st, 0, static_cast<fuse_fill_dir_flags>(0)) != 0) break;
  }
  return 0;
}

int Open(const char* path, fuse_file_info* info) {
  uint64_t handle = 0;
  const int result = Self()->Open(path, info->flags, handle);
  info->fh = handle;
  return result;
}

int ReadBuf(const char*, fuse_bufvec** out, size_t size, off_t offset, fuse_file_info* info) {
  if (offset < 0) return -EINVAL;
  char* data = nullptr;
  size_t bytes = 0;
  const int result = Self()->Read(info->fh, static_cast<unsigned long>(offset), size, data, bytes);
  if (result != 0) return result;
  fuse_bufvec* vector = static_cast<fuse_bufvec*>(malloc(sizeof(fuse_bufvec)));
  if (!vector) {
    free(data);
    return -ENOMEM;
  }
  *vector = FUSE_BUFVEC_INIT(bytes);
  vector->buf[0].mem = data;  // libfuse frees both with free()
  *out = vector;
  return 0;
}

int Release(const char*, fuse_file_info* info) {
  Self()->Release(info->fh);
  return 0;
}

int Unlink(const char* path) { return Self()->Unlink(path); }

// Everything that would change the folder or a file's bytes.
int RefuseMode(const char*, mode_t) { return -EROFS; }
int RefuseNode(const char*, mode_t, dev_t) { return -EROFS; }
int RefusePath(const char*) { return -EROFS; }
int RefuseTwo(const char*, const char*) { return -EROFS; }
int RefuseRename(const char*, const char*, unsigned int) { return -EROFS; }
int RefuseChmod(const char*, mode_t, fuse_file_info*) { return -EROFS; }
int RefuseChown(const char*, uid_t, gid_t, fuse_file_info*) { return -EROFS; }
int RefuseTruncate(const char*, off_t, fuse_file_info*) { return -EROFS; }
int RefuseWrite(const char*, const char*, size_t, off_t, fuse_file_info*) { return -EROFS; }
int RefuseCreate(const char*, mode_t, fuse_file_info*) { return -EROFS; }
int RefuseTimes(const char*, const timespec*, fuse_file_info*) { return -EROFS; }
int RefuseSetXattr(const char*, const char*, const char*, size_t, int) { return -EROFS; }
int RefuseFallocate(const char*, int, off_t, off_t, fuse_file_info*) { return -EROFS; }

fuse_operations MakeOperations() {
  fuse_operations ops;
  memset(&ops, 0, sizeof(ops));
  ops.init = Init;
  ops.getattr = GetAttr;
  ops.readdir = ReadDir;
  ops.open = Open;
  ops.read_buf = ReadBuf;
  ops.release = Release;
  ops.unlink = Unlink;
  ops.mkdir = RefuseMode;
  ops.mknod = RefuseNode;
  ops.rmdir = RefusePath;
  ops.symlink = RefuseTwo;
  ops.link = RefuseTwo;
  ops.rename = RefuseRename;
  ops.chmod = RefuseChmod;
  ops.chown = RefuseChown;
  ops.truncate = RefuseTruncate;
  ops.write = RefuseWrite;
  ops.create = RefuseCreate;
  ops.utimens = RefuseTimes;
  ops.setxattr = RefuseSetXattr;
  ops.removexattr = RefuseTwo;
  ops.fallocate = RefuseFallocate;
  return ops;
}

}  // namespace

MountFileSystem::MountFileSystem(PluginLoader& plugin, zeb::IFileSystem* fileSystem, const SOptions& options,
                                 Notice notice)
    : m_plugin(plugin),
      m_fileSystem(fileSystem),
      m_options(options),
      m_notice(std::move(notice)),
      m_removals(options.timeout),
      m_views(std::make_shared<const MovieViews>(std::vector<Movie>())) {}

MountFileSystem::~MountFileSystem() {
  std::map<uint64_t, std::shared_ptr<ViewHandle>> left;
  {
    std::lock_guard<std::mutex> hold(m_lock);
    left.swap(m_handles);
  }
}

const fuse_operations* MountFileSystem::Operations() {
  static const fuse_operations ops = MakeOperations();
  return &ops;
}

void MountFileSystem::SetMovies(const std::vector<Movie>& movies) {
  auto views = std::make_shared<const MovieViews>(movies);
  std::lock_guard<std::mutex> hold(m_lock);
  m_views = std::move(views);
}

std::shared_ptr<const MovieViews> MountFileSystem::views() const {
  std::lock_guard<std::mutex> hold(m_lock);
  return m_views;
}

int MountFileSystem::Attributes(const std::string& path, struct stat& st) const {
  memset(&st, 0, sizeof(st));
  st.st_uid = getuid();
  st.st_gid = getgid();
  if (path == "/") {
    st.st_mode = S_IFDIR | (m_options.allowDelete ? 0755 : 0555);
    st.st_nlink = 2;
    return 0;
  }
  const std::shared_ptr<const MovieViews> snapshot = views();
  const SMovieView* view = snapshot->Find(FileName(path));
  if (!view) return -ENOENT;
  ViewAttributes(*view, st);
  return 0;
}

int MountFileSystem::HandleAttributes(uint64_t id, struct stat& st) const {
  const std::shared_ptr<ViewHandle> handle = Handle(id);
  if (!handle) return -ENOENT;
  memset(&st, 0, sizeof(st));
  ViewAttributes(handle->view(), st);
  return 0;
}

void MountFileSystem::ViewAttributes(const SMovieView& view, struct stat& st) {
  st.st_uid = getuid();
  st.st_gid = getgid();
  st.st_mode = kFileMode;
  st.st_nlink = 1;
  st.st_size = static_cast<off_t>(view.size());
  st.st_blksize = 65536;
  st.st_blocks = static_cast<blkcnt_t>((view.size() + 511) / 512);
  st.st_mtim.tv_sec = st.st_ctim.tv_sec = st.st_atim.tv_sec = view.mtime;
}

std::vector<std::string> MountFileSystem::Names() const { return views()->names(); }

int MountFileSystem::Open(const std::string& path, int flags, uint64_t& handle) {
  if ((flags & O_ACCMODE) != O_RDONLY || (flags & O_TRUNC)) return -EROFS;
  const std::shared_ptr<const MovieViews> snapshot = views();
  const SMovieView* view = snapshot->Find(FileName(path));
  if (!view) return -ENOENT;
  ViewHandle::SResult result;
  std::shared_ptr<ViewHandle> opened = ViewHandle::Open(m_fileSystem, *view, m_options.timeout, result);
  if (!opened) {
    ReadFailed(result.why);
    return result.error;
  }
  std::lock_guard<std::mutex> hold(m_lock);
  handle = m_nextHandle++;
  m_handles[handle] = std::move(opened);
  return 0;
}

std::shared_ptr<ViewHandle> MountFileSystem::Handle(uint64_t id) const {
  std::lock_guard<std::mutex> hold(m_lock);
  const auto it = m_handles.find(id);
  return it == m_handles.end() ? nullptr : it->second;
}

int MountFileSystem::Read(uint64_t id, unsigned long offset, size_t size, char*& data, size_t& bytes) {
  const std::shared_ptr<ViewHandle> handle = Handle(id);
  if (!handle) return -EBADF;
  const ViewHandle::SResult result = handle->Read(offset, size, data, bytes);
  if (result.error != 0) {
    ReadFailed(result.why);
    return result.error;
  }
  if (m_failing.exchange(false)) m_notice("reads succeed again");
  return 0;
}

void MountFileSystem::ReadFailed(const std::string& why) {
  if (m_failing.exchange(true)) return;
  // A killed service leaves its socket behind: the connection that failed
  // says more than the socket folder does.
  std::string detail;
  if (!m_options.emulator &&
      ServiceProbe::Probe(detail, static_cast<int>(m_options.timeout.count()), -1) != ServiceProbe::EState::kAnswers) {
    m_notice(why + ": the movie service stopped; reads fail with EIO, the mount stays (unmount and mount again "
                   "once the service runs)");
    return;
  }
  m_notice(why + "; reads fail with EIO, the mount stays");
}

void MountFileSystem::Release(uint64_t id) {
  std::shared_ptr<ViewHandle> handle;
  {
    std::lock_guard<std::mutex> hold(m_lock);
    const auto it = m_handles.find(id);
    if (it == m_handles.end()) return;
    handle = std::move(it->second);
    m_handles.erase(it);
  }
  // A read of another thread may still hold the handle: the last one closes.
}

int MountFileSystem::Unlink(const std::string& path) {
  if (!m_options.allowDelete) return -EROFS;
  const std::shared_ptr<const MovieViews> snapshot = views();
  const SMovieView* view = snapshot->Find(FileName(path));
  if (!view) return -ENOENT;
  if (view->kind != SMovieView::EKind::kRaw) return -EPERM;

  struct SOutcome {
    bool removed = false;
    std::vector<Movie> movies;
  };
  auto outcome = std::make_shared<SOutcome>();
  PluginLoader* plugin = &m_plugin;
  zeb::IFileSystem* fileSystem = m_fileSystem;
  const std::string uri = view->movie->uri();
  const BoundedWorker::EResult ran = m_removals.Run([plugin, fileSystem, uri, outcome] {
    outcome->removed = plugin->removeFile(uri.c_str());
    if (outcome->removed) outcome->movies = MovieCatalog(fileSystem).List();
  });
  if (ran != BoundedWorker::EResult::kDone) {
    m_notice("deleting a movie: the movie service did not answer within " +
             BoundedWorker::LimitText(m_options.timeout));
    return -EIO;
  }
  if (!outcome->removed) return -EIO;
  SetMovies(outcome->movies);
  return 0;
}
