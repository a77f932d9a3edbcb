// CLocalFileSystem: POSIX calls on full paths resolved against our own
// working directory.
#include <zeb/CLocalFileSystem.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <vector>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <zeb/Path.h>

#include "CLocalFile.h"

namespace zeb {
namespace {

unsigned int TypeOf(const struct stat& info) {
  if (S_ISREG(info.st_mode)) return IFileSystem::kTypeFile;
  if (S_ISDIR(info.st_mode)) return IFileSystem::kTypeDirectory;
  return IFileSystem::kTypeOther;
}

CDateTime TimeOf(const struct stat& info) {
  const long ticks = static_cast<long>(info.st_mtim.tv_sec) * CDateTime::kTicksPerSecond +
                     static_cast<long>(info.st_mtim.tv_nsec) / 100 + CDateTime::kUnixEpochTicks;
  return CDateTime::NewTimestamp(ticks, 0);
}

void Fill(IFileSystem::CDirectoryEntry& entry, const struct stat& info) {
  entry.type = TypeOf(info);
  entry.size = entry.type == IFileSystem::kTypeFile ? static_cast<unsigned long>(info.st_size) : 0;
  entry.time = TimeOf(info);
}

CString ProcessDirectory() {
  std::vector<char> buffer(PATH_MAX);
  while (::getcwd(buffer.data(), buffer.size()) == nullptr) {
    if (errno != ERANGE || buffer.size() > (1u << 20)) return CString("/");
    buffer.resize(buffer.size() * 2);
  }
  return CString(buffer.data());
}

// Removes `path` and, for a directory, everything below it (no links
// followed). True when it is gone.
bool RemoveTree(const CString& path) {
  struct stat info;
  if (::lstat(path.c_str(), &info) != 0) return errno == ENOENT;
  if (!S_ISDIR(info.st_mode)) return ::unlink(path.c_str()) == 0;
  DIR* dir = ::opendir(path.c_str());
  if (!dir) return false;
  std::vector<CString> names;
  while (struct dirent* item = ::readdir(dir)) {
    const CString name(item->d_name);
    if (name != "." && name != "..") names.push_back(name);
  }
  ::closedir(dir);
  bool ok = true;
  for (const CString& name : names) ok = RemoveTree(path::MakePath(path, name, '/')) && ok;
  return ok && ::rmdir(path.c_str()) == 0;
}

bool IsDir(const CString& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

CLocalFileSystem::CLocalFileSystem() : m_cwd(ProcessDirectory()) {}
CLocalFileSystem::~CLocalFileSystem() = default;

unsigned int CLocalFileSystem::GetCapabilities() {
  return kCapRead | kCapWrite | kCapRemove | kCapDirectories;
}

TSharedPtr<IFile> CLocalFileSystem::OpenFile(const CString& path, unsigned int mode) {
  const CString full = GetFullPath(path);
  const int fd = CLocalFile::OpenDescriptor(full, mode);
  if (fd < 0) return TSharedPtr<IFile>();
  try {
    return TSharedPtr<IFile>(new CLocalFile(fd, full, mode, this));
  } catch (const std::bad_alloc&) {
    ::close(fd);
    return TSharedPtr<IFile>();
  }
}

IFileSystem::CDirectoryListing CLocalFileSystem::GetDirectoryListing(const CString& path,
                                                                     const CString& filter) {
  CDirectoryListing listing;
  listing.fileSystem = this;
  listing.path = GetFullPath(path);
  DIR* dir = ::opendir(listing.path.c_str());
  if (!dir) return listing;
  std::vector<CString> names;
  while (struct dirent* item = ::readdir(dir)) {
    const CString name(item->d_name);
    if (name == "." || name == "..") continue;
    if (!filter.empty() && !path::WildcardMatch(filter, name)) continue;
    names.push_back(name);
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  for (const CString& name : names) {
    CDirectoryEntry entry;
    entry.name = name;
    entry.path = path::MakePath(listing.path, name, '/');
    struct stat info;
    if (::stat(entry.path.c_str(), &info) != 0) continue;  // vanished, or a dangling link
    Fill(entry, info);
    if (entry.type == kTypeOther) continue;
    listing.entries.Add(std::move(entry));
  }
  return listing;
}

IFileSystem::CDirectoryEntry CLocalFileSystem::GetInfo(const CString& path) {
  CDirectoryEntry entry;
  entry.path = GetFullPath(path);
  entry.name = path::GetFilename(entry.path);
  struct stat info;
  if (::stat(entry.path.c_str(), &info) != 0) {
    entry.type = kTypeNone;
    return entry;
  }
  Fill(entry, info);
  return entry;
}

bool CLocalFileSystem::RemoveFile(const CString& path) {
  const CString full = GetFullPath(path);
  struct stat info;
  if (::lstat(full.c_str(), &info) != 0 || S_ISDIR(info.st_mode)) return false;
  return ::unlink(full.c_str()) == 0;
}

bool CLocalFileSystem::MakeDir(const CString& path, bool recursive) {
  const CString full = GetFullPath(path);
  if (IsDir(full)) return true;
  if (recursive) {
    const CString parent = path::GetDirectory(full);
    if (!parent.empty() && !parent.Equals(full) && !MakeDir(parent, true)) return false;
  }
  return ::mkdir(full.c_str(), 0777) == 0 || (errno == EEXIST && IsDir(full));
}

bool CLocalFileSystem::RemoveDir(const CString& path, bool recursive) {
  const CString full = GetFullPath(path);
  if (!IsDir(full)) return false;
  if (recursive) return RemoveTree(full);
  return ::rmdir(full.c_str()) == 0;
}

bool CLocalFileSystem::SetCurrentWorkingDirectory(const CString& path) {
  const CString full = GetFullPath(path);
  if (!IsDir(full)) return false;
  std::lock_guard<std::mutex> hold(m_lock);
  m_cwd = full;
  return true;
}

CString CLocalFileSystem::GetCurrentWorkingDirectory() {
  std::lock_guard<std::mutex> hold(m_lock);
  return m_cwd;
}

CString CLocalFileSystem::GetFullPath(const CString& path) {
  CString rest = path.StartsWith("file://") ? path.substr(7) : path;
  return path::ExpandRelativePath(GetCurrentWorkingDirectory(), rest, '/');
}

IFileSystem* fileSystem() {
  static CLocalFileSystem local;
  return &local;
}

}  // namespace zeb
