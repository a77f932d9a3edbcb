// IFileSystem: the framework's own operations, written with the virtual ones
// so that they work on every file system.
#include <zeb/IFileSystem.h>

#include <vector>

namespace zeb {
namespace {

constexpr unsigned int kChunk = 1u << 20;

// Copies from `from`'s position: `limit` bytes, or to the end when limit < 0.
// True when all of them were written (and, with a limit, all were read).
bool CopyStream(IFile& from, IFile& to, long limit, IFileSystem::ProgressFunction progress,
                void* context) {
  long total = limit;
  if (total < 0) {
    const long size = from.GetSize();
    total = size >= 0 ? size - from.GetPosition() : -1;
  }
  std::vector<unsigned char> buffer;
  try {
    buffer.resize(kChunk);
  } catch (const std::bad_alloc&) {
    return false;
  }
  long done = 0;
  if (progress) progress(0, total, context);
  for (;;) {
    unsigned int want = kChunk;
    if (limit >= 0) {
      if (done >= limit) break;
      const long left = limit - done;
      if (left < static_cast<long>(want)) want = static_cast<unsigned int>(left);
    }
    const unsigned int got = from.Read(buffer.data(), want);
    if (got == 0) break;
    if (!to.WriteBytes(buffer.data(), got)) return false;
    done += got;
    if (progress) progress(done, total, context);
  }
  return limit < 0 || done == limit;
}

// Opens `to` on `fileSystem` for writing, honouring `overwrite`.
TSharedPtr<IFile> OpenDestination(IFileSystem* fileSystem, const CString& to, bool overwrite) {
  if (!fileSystem) return TSharedPtr<IFile>();
  if (!overwrite && fileSystem->FileExists(to)) return TSharedPtr<IFile>();
  return fileSystem->OpenFile(to, IFile::kModeCreateWrite);
}

bool CopyBetween(IFileSystem* fromFileSystem, const CString& from, IFileSystem* toFileSystem,
                 const CString& to, bool overwrite, IFileSystem::ProgressFunction progress,
                 void* context) {
  if (!fromFileSystem || !toFileSystem) return false;
  // Truncating the destination would destroy a source that is the same file.
  if (fromFileSystem == toFileSystem &&
      fromFileSystem->GetFullPath(from).Equals(fromFileSystem->GetFullPath(to))) {
    return false;
  }
  TSharedPtr<IFile> source = fromFileSystem->OpenFile(from, IFile::kModeRead);
  if (!source) return false;
  TSharedPtr<IFile> destination = OpenDestination(toFileSystem, to, overwrite);
  if (!destination) return false;
  return CopyStream(*source, *destination, -1, progress, context);
}

}  // namespace

IFileSystem::CDirectoryEntry::CDirectoryEntry() : type(0), size(0) {}

IFileSystem::CDirectoryListing::CDirectoryListing() : fileSystem(nullptr) {}

IFileSystem::~IFileSystem() = default;

unsigned int IFileSystem::GetCapabilities() { return kCapRead; }

bool IFileSystem::Copy(const CString& from, const CString& to, bool overwrite,
                       ProgressFunction progress, void* context) {
  return CopyBetween(this, from, this, to, overwrite, progress, context);
}

bool IFileSystem::Copy(const CString& from, TSharedPtr<IFile> to, ProgressFunction progress,
                       void* context) {
  if (!to) return false;
  TSharedPtr<IFile> source = OpenFile(from, IFile::kModeRead);
  if (!source) return false;
  return CopyStream(*source, *to, -1, progress, context);
}

bool IFileSystem::Copy(TSharedPtr<IFile> from, const CString& to, bool overwrite,
                       ProgressFunction progress, void* context) {
  if (!from) return false;
  TSharedPtr<IFile> destination = OpenDestination(this, to, overwrite);
  if (!destination) return false;
  return CopyStream(*from, *destination, -1, progress, context);
}

bool IFileSystem::Copy(TSharedPtr<IFile> from, const CString& to, long size, bool overwrite,
                       ProgressFunction progress, void* context) {
  if (!from || size < 0) return false;
  TSharedPtr<IFile> destination = OpenDestination(this, to, overwrite);
  if (!destination) return false;
  return CopyStream(*from, *destination, size, progress, context);
}

bool IFileSystem::Copy(const CString& from, IFileSystem* toFileSystem, const CString& to,
                       bool overwrite, ProgressFunction progress, void* context) {
  return CopyBetween(this, from, toFileSystem, to, overwrite, progress, context);
}

bool IFileSystem::Copy(IFileSystem* fromFileSystem, const CString& from, const CString& to,
                       bool overwrite, ProgressFunction progress, void* context) {
  return CopyBetween(fromFileSystem, from, this, to, overwrite, progress, context);
}

bool IFileSystem::FileExists(const CString& path) {
  // Type 0 is what a default entry carries: nothing was filled in.
  const unsigned int type = GetInfo(path).type;
  return type != 0 && (type & kTypeNone) == 0;
}

bool IFileSystem::IsFile(const CString& path) { return GetInfo(path).type == kTypeFile; }

bool IFileSystem::IsDirectory(const CString& path) {
  return GetInfo(path).type == kTypeDirectory;
}

}  // namespace zeb
