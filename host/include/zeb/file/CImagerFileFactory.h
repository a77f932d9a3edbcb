// CImagerFileFactory: the process's registry of imager file types.
//
// imagerFileFactory() gives the factory (constructed on first use, lives
// until exit); it starts with the framework's own CRawImagerFile registered
// as "Raw Imager File". Plug-ins register their types from static
// initialisers with Register<T>(...), which is header code and hands the
// type's functions to the one virtual registration operation, RegisterType.
//
// A type is found by name, or by asking each registered type, in order of
// registration, whether it can open a (file system, path) pair or a file.
// Registering a name again replaces the earlier entry (a plug-in that was
// reloaded brings new function addresses).
//
// Thread-safe: registration and look-ups may run in any thread; the types'
// callbacks are called without the factory's lock held, so they may use the
// factory themselves.
#pragma once

#include <mutex>
#include <vector>

#include <zeb/Api.h>
#include <zeb/CString.h>
#include <zeb/IFile.h>
#include <zeb/IFileSystem.h>
#include <zeb/TArray.h>
#include <zeb/TSharedPtr.h>
#include <zeb/file/IImagerFile.h>
#include <zeb/reduce/CReduceObjectArray.h>

namespace zeb {
namespace file {

class ZEB_API CImagerFileFactory {
 public:
  typedef IImagerFile* (*CreateFunction)();
  typedef void (*DestroyFunction)(IImagerFile* file);
  typedef bool (*CanOpenFunction)(IFileSystem* fileSystem, const CString& path,
                                  unsigned int flags);
  typedef bool (*CanOpenFileFunction)(TSharedPtr<IFile> file, unsigned int flags);
  typedef IImagerFile::ECanCreateResult (*CanCreateFunction)(reduce::CReduceObjectArray& objects,
                                                             unsigned int flags);
  typedef CString (*CreateNameFunction)(reduce::CReduceObjectArray& objects, unsigned int flags);
  typedef bool (*CreateListFunction)(TArray<CString>& names, IFileSystem* fileSystem,
                                     const CString& path, unsigned int flags);

  // One registered type: its name and functions (any but create and destroy
  // may be null). A plain value.
  class ZEB_API CType {
   public:
    CType();
    // A new object of the type; null when the type has no create function.
    IImagerFile* Create() const;
    // Destroys an object made by Create (null is allowed).
    void Destroy(IImagerFile* file) const;
    // The type's answers; false when it registered no such function.
    bool CanOpen(IFileSystem* fileSystem, const CString& path, unsigned int flags) const;
    bool CanOpenFile(TSharedPtr<IFile> file, unsigned int flags) const;
    // kCanCreateNo when it registered no such function.
    IImagerFile::ECanCreateResult CanCreate(reduce::CReduceObjectArray& objects,
                                            unsigned int flags) const;

    CString name;
    CreateFunction create;
    DestroyFunction destroy;
    CanOpenFunction canOpen;
    CanOpenFileFunction canOpenFile;
    CanCreateFunction canCreate;
    CreateNameFunction createName;
    CreateListFunction createList;
  };

  // Registers T under `name`. T must be default-constructible and derive
  // from IImagerFile. Returns RegisterType's result.
  template <class T>
  bool Register(const CString& name, CanOpenFunction canOpen, CanOpenFileFunction canOpenFile,
                CanCreateFunction canCreate, CreateNameFunction createName,
                CreateListFunction createList) {
    class CInner {
     public:
      static IImagerFile* Create() { return new T; }
      // Deletes only objects of type T; null and other types are left alone.
      static void Destroy(IImagerFile* file) {
        if (!file) return;
        T* object = dynamic_cast<T*>(file);
        if (object) delete object;
      }
    };
    return RegisterType(name, &CInner::Create, &CInner::Destroy, canOpen, canOpenFile, canCreate,
                        createName, createList);
  }

  CImagerFileFactory();
  virtual ~CImagerFileFactory();
  CImagerFileFactory(const CImagerFileFactory&) = delete;
  CImagerFileFactory& operator=(const CImagerFileFactory&) = delete;

  // Adds or replaces the type `name`. False (nothing registered) for an
  // empty name or a null create or destroy function.
  virtual bool RegisterType(const CString& name, CreateFunction create, DestroyFunction destroy,
                            CanOpenFunction canOpen, CanOpenFileFunction canOpenFile,
                            CanCreateFunction canCreate, CreateNameFunction createName,
                            CreateListFunction createList);

  // Withdraws a type; false when it was not registered.
  bool Unregister(const CString& name);
  // The type registered under `name` (case-sensitive); false when none.
  bool FindType(const CString& name, CType& type);
  // The first type, in order of registration, whose canOpen accepts the
  // pair; false when none does.
  bool FindTypeForPath(IFileSystem* fileSystem, const CString& path, unsigned int flags,
                       CType& type);
  // The same with canOpenFile.
  bool FindTypeForFile(TSharedPtr<IFile> file, unsigned int flags, CType& type);
  // The registered names, in order of registration.
  TArray<CString> GetTypeNames();

 private:
  std::vector<CType> Snapshot();

  std::mutex m_lock;  // guards m_types
  std::vector<CType> m_types;
};

// The process's factory.
ZEB_API CImagerFileFactory* imagerFileFactory();

}  // namespace file
}  // namespace zeb
