// CImagerFileFactory: a list of types under a mutex; callbacks run on a
// snapshot outside the lock.
#include <zeb/file/CImagerFileFactory.h>

#include <zeb/file/CRawImagerFile.h>

namespace zeb {
namespace file {
namespace {

// The framework's own type: it can open a path when the pair opens.
bool RawCanOpen(IFileSystem* fileSystem, const CString& path, unsigned int flags) {
  CRawImagerFile file;
  return file.Open(fileSystem, path, flags);
}

}  // namespace

CImagerFileFactory::CType::CType()
    : create(nullptr),
      destroy(nullptr),
      canOpen(nullptr),
      canOpenFile(nullptr),
      canCreate(nullptr),
      createName(nullptr),
      createList(nullptr) {}

IImagerFile* CImagerFileFactory::CType::Create() const { return create ? create() : nullptr; }

void CImagerFileFactory::CType::Destroy(IImagerFile* file) const {
  if (destroy) destroy(file);
}

bool CImagerFileFactory::CType::CanOpen(IFileSystem* fileSystem, const CString& path,
                                        unsigned int flags) const {
  return canOpen && canOpen(fileSystem, path, flags);
}

bool CImagerFileFactory::CType::CanOpenFile(TSharedPtr<IFile> file, unsigned int flags) const {
  return canOpenFile && canOpenFile(file, flags);
}

IImagerFile::ECanCreateResult CImagerFileFactory::CType::CanCreate(
    reduce::CReduceObjectArray& objects, unsigned int flags) const {
  return canCreate ? canCreate(objects, flags) : IImagerFile::kCanCreateNo;
}

CImagerFileFactory::CImagerFileFactory() {
  Register<CRawImagerFile>(CRawImagerFile::kTypeName, &RawCanOpen, nullptr, nullptr, nullptr,
                           nullptr);
}

CImagerFileFactory::~CImagerFileFactory() = default;

bool CImagerFileFactory::RegisterType(const CString& name, CreateFunction create,
                                      DestroyFunction destroy, CanOpenFunction canOpen,
                                      CanOpenFileFunction canOpenFile,
                                      CanCreateFunction canCreate, CreateNameFunction createName,
                                      CreateListFunction createList) {
  if (name.empty() || !create || !destroy) return false;
  CType type;
  type.name = name;
  type.create = create;
  type.destroy = destroy;
  type.canOpen = canOpen;
  type.canOpenFile = canOpenFile;
  type.canCreate = canCreate;
  type.createName = createName;
  type.createList = createList;
  std::lock_guard<std::mutex> hold(m_lock);
  for (CType& existing : m_types) {
    if (existing.name.Equals(name)) {
      existing = type;
      return true;
    }
  }
  m_types.push_back(type);
  return true;
}

bool CImagerFileFactory::Unregister(const CString& name) {
  std::lock_guard<std::mutex> hold(m_lock);
  for (auto it = m_types.begin(); it != m_types.end(); ++it) {
    if (it->name.Equals(name)) {
      m_types.erase(it);
      return true;
    }
  }
  return false;
}

bool CImagerFileFactory::FindType(const CString& name, CType& type) {
  std::lock_guard<std::mutex> hold(m_lock);
  for (const CType& existing : m_types) {
    if (existing.name.Equals(name)) {
      type = existing;
      return true;
    }
  }
  return false;
}

bool CImagerFileFactory::FindTypeForPath(IFileSystem* fileSystem, const CString& path,
                                         unsigned int flags, CType& type) {
  for (const CType& candidate : Snapshot()) {
    if (candidate.CanOpen(fileSystem, path, flags)) {
      type = candidate;
      return true;
    }
  }
  return false;
}

bool CImagerFileFactory::FindTypeForFile(TSharedPtr<IFile> file, unsigned int flags,
                                         CType& type) {
  for (const CType& candidate : Snapshot()) {
    if (candidate.CanOpenFile(file, flags)) {
      type = candidate;
      return true;
    }
  }
  return false;
}

TArray<CString> CImagerFileFactory::GetTypeNames() {
  TArray<CString> names;
  for (const CType& type : Snapshot()) names.Add(type.name);
  return names;
}

std::vector<CImagerFileFactory::CType> CImagerFileFactory::Snapshot() {
  std::lock_guard<std::mutex> hold(m_lock);
  return m_types;
}

CImagerFileFactory* imagerFileFactory() {
  static CImagerFileFactory factory;
  return &factory;
}

}  // namespace file
}  // namespace zeb
