// The single file system and the C interface, in a process of their own (the
// singleton is process-wide). Emulator mode throughout, so no service is
// involved; the tests run in the order written, the first one before anything
// has constructed the file system.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <set>
#include <sstream>
#include <string>

#include <zeb/CUriHandler.h>

#include "tests/support/ResourceSnapshot.h"
#include "tests/support/ScopedEnv.h"
#include "trk/CTrkInterface.h"
#include "trk/STrkInterfaceData.h"
#include "trk/zebtrk.h"

namespace {

// The handler target that zebtrk_AddFilesChangedHandler makes, as C hosts and
// the framework see it: callback, user data, clone, destroy, 32-bit count.
struct SExpectedTarget {
  void (*callback)(void*);
  void* userData;
  void* (*clone)(void*);
  void (*destroy)(void*);
  std::atomic<std::uint32_t> count;
};

void CountCall(void* userData) { ++*static_cast<int*>(userData); }

TEST(EntryPointsTest, LoadingConstructsNothingAndTheFirstCallDoes) {
  static testsupport::ScopedEnv emulator("ZEBTRK_ENABLE_EMULATOR", "1");
  EXPECT_EQ(zeb::CUriHandler::instance()->FileSystemForPath("trk:///"), nullptr);
  EXPECT_EQ(testsupport::ThreadCount(), 1u);
  EXPECT_TRUE(zebtrk_drivePresent());  // the first call constructs
  zeb::trk::CTrkInterface* fs = zeb::trk::instance();
  EXPECT_EQ(zeb::CUriHandler::instance()->FileSystemForPath("trk:///"), fs);
  EXPECT_EQ(zebtrk_Load(), fs);
  EXPECT_EQ(zebtrk_Load(), fs);
}

TEST(EntryPointsTest, HandlerTargetsAndTheirReferenceCounts) {
  int calls = 0;
  zebDelegate handle = zebtrk_AddFilesChangedHandler(&CountCall, &calls);
  SExpectedTarget* target = static_cast<SExpectedTarget*>(handle.target);
  ASSERT_NE(target, nullptr);
  EXPECT_EQ(target->callback, &CountCall);
  EXPECT_EQ(target->userData, &calls);
  EXPECT_EQ(handle.table, &target->clone);  // the table is the pair inside the target
  EXPECT_EQ(target->count.load(), 2u);      // the handle and the registered copy

  handle.invoker(handle.target);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(target->clone(target), target);
  EXPECT_EQ(target->count.load(), 3u);
  target->destroy(target);
  EXPECT_EQ(target->count.load(), 2u);

  zeb::trk::instance()->data()->ListMovies();  // every refresh calls the handlers
  EXPECT_EQ(calls, 2);

  // An extra reference keeps the target readable through the removal, which
  // releases the registered copy and the handle.
  target->clone(target);
  zebtrk_RemoveFilesChangedHandler(handle);
  EXPECT_EQ(target->count.load(), 1u);
  zeb::trk::instance()->data()->ListMovies();
  EXPECT_EQ(calls, 2);
  target->destroy(target);  // 0: freed (the leak checker would see otherwise)
  EXPECT_EQ(zeb::trk::instance()->data()->handlers.size(), 0u);
}

TEST(EntryPointsTest, EachAddRegistersItsOwnHandler) {
  int calls = 0;
  zebDelegate first = zebtrk_AddFilesChangedHandler(&CountCall, &calls);
  zebDelegate second = zebtrk_AddFilesChangedHandler(&CountCall, &calls);
  EXPECT_NE(first.target, second.target);
  zeb::trk::instance()->data()->ListMovies();
  EXPECT_EQ(calls, 2);
  zebtrk_RemoveFilesChangedHandler(first);
  zeb::trk::instance()->data()->ListMovies();
  EXPECT_EQ(calls, 3);
  zebtrk_RemoveFilesChangedHandler(second);
  zebtrk_RemoveFilesChangedHandler(zebDelegate{nullptr, nullptr, nullptr});  // harmless
  zeb::trk::instance()->data()->ListMovies();
  EXPECT_EQ(calls, 3);
}

TEST(EntryPointsTest, ANullCallbackRegistersNothing) {
  int data = 0;
  const zebDelegate handle = zebtrk_AddFilesChangedHandler(nullptr, &data);
  EXPECT_EQ(handle.invoker, nullptr);
  EXPECT_EQ(handle.target, nullptr);
  EXPECT_EQ(handle.table, nullptr);
  EXPECT_EQ(zeb::trk::instance()->data()->handlers.size(), 0u);
  zeb::trk::instance()->data()->ListMovies();  // would call through the null pointer
  zebtrk_RemoveFilesChangedHandler(handle);
}

// Output of a command.
std::string RunCommand(const std::string& command) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return output;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) output.append(buffer, n);
  pclose(pipe);
  return output;
}

TEST(LibraryTest, CFunctionsAreExportedUnmangled) {
  const std::string symbols = RunCommand(std::string("nm -D --defined-only '") + ZEBTRK_LIBRARY_FILE + "'");
  ASSERT_FALSE(symbols.empty());
  for (const char* name :
       {"zebtrk_Load", "zebtrk_drivePresent", "zebtrk_AddFilesChangedHandler", "zebtrk_RemoveFilesChangedHandler",
        "zebtrk_GetDirectoryListing", "zebtrk_GetInfo", "zebtrk_RemoveFile"}) {
    EXPECT_NE(symbols.find(std::string(" T ") + name + "\n"), std::string::npos) << name;
  }
  EXPECT_NE(symbols.find("_ZN3zeb3trk8instanceEv"), std::string::npos);
  // Every function of the library is exported but the cache directory's,
  // which is local to the plug-in.
  EXPECT_NE(symbols.find("_ZN3zeb3trk13CTrkInterface"), std::string::npos);
  EXPECT_EQ(symbols.find("GetCacheDir"), std::string::npos);
  EXPECT_EQ(symbols.find("CacheDirFor"), std::string::npos);
}

// The framework operations the plug-in may need from the host's libraries,
// one per line as `nm -DC` names them: the framework contract's listing
// (strings, containers, locks, events, paths, time, stores, files, file
// systems, the URI handler, imager files, reduction objects). Header code
// (templates, inline members) needs nothing from the libraries.
const char* const kFrameworkContract = R"(
zeb::Alloc(unsigned long)
zeb::Realloc(void*, unsigned long)
zeb::Free(void*)
zeb::ThrowBadAllocException()
zeb::ThrowOutOfRangeException(char const*, ...)
zeb::CString::CString()
zeb::CString::CString(zeb::CString const&)
zeb::CString::CString(zeb::CString&&)
zeb::CString::CString(char const*, int)
zeb::CString::~CString()
zeb::CString::operator=(zeb::CString const&)
zeb::CString::operator=(zeb::CString&&)
zeb::CString::operator=(char const*)
zeb::CString::c_str() const
zeb::CString::length() const
zeb::CString::empty() const
zeb::CString::Equals(zeb::CString const&) const
zeb::CString::StartsWith(char const*) const
zeb::CString::EndsWithNoCase(char const*) const
zeb::CString::find(char, unsigned long) const
zeb::CString::substr(unsigned long, unsigned long) const
zeb::CString::Mid(int, int) const
zeb::CString::SubString(int, int) const
zeb::CString::Format(char const*, ...)
zeb::CString::FromFormat(char const*, ...)
zeb::operator!=(zeb::CString const&, char const*)
zeb::operator+(zeb::CString const&, char const*)
zeb::to_string(unsigned int)
zeb::to_string(long)
zeb::CUInt16::Parse(char const*)
zeb::CUInt32::Parse(char const*)
zeb::CUInt64::Parse(char const*)
zeb::CUInt16::ToString(unsigned short)
zeb::CUInt32::ToString(unsigned int)
zeb::CUInt64::ToString(unsigned long)
zebDelegate_Destroy
zeb::CCriticalSection::CCriticalSection()
zeb::CCriticalSection::~CCriticalSection()
zeb::CAutoLock::CAutoLock(zeb::CCriticalSection*)
zeb::CAutoLock::~CAutoLock()
zeb::CEvent::CEvent(bool, bool)
zeb::CEvent::~CEvent()
zeb::CEvent::Signal()
zeb::CEvent::Wait(unsigned int)
zeb::CSRWLock::CSRWLock()
zeb::CSRWLock::~CSRWLock()
zeb::path::MakePath(zeb::CString, zeb::CString, char)
zeb::path::ExpandRelativePath(zeb::CString, zeb::CString, char)
zeb::path::GetFilename(zeb::CString)
zeb::path::RemoveExtension(zeb::CString)
zeb::path::ChangeExtension(zeb::CString, zeb::CString)
zeb::path::WildcardMatch(zeb::CString, zeb::CString)
zeb::CDateTime::CDateTime()
zeb::CDateTime::operator=(zeb::CDateTime const&)
zeb::CDateTime::NewTimestamp(long, int)
zeb::CDateTime::GetTimestamp(int) const
zeb::CDateTime::operator-(zeb::CDateTime const&) const
zeb::CDateTime::Format(char const*) const
zeb::CINIStore::CINIStore()
zeb::CINIStore::~CINIStore()
zeb::CINIStore::Load(zeb::CString const&)
zeb::CINIStore::Save(zeb::CString const&)
zeb::CMemStore::~CMemStore()
zeb::IConfigStore::~IConfigStore()
zeb::CMemStore::GetString(zeb::CString const&, zeb::CString const&)
zeb::CMemStore::SetString(zeb::CString const&, zeb::CString const&)
zeb::IFile::IFile()
zeb::IFile::~IFile()
zeb::IFile::WriteBytes(void const*, unsigned int)
zeb::IFile::SeekToBegin()
zeb::IFile::Reopen(unsigned int)
zeb::CMemFile::Create()
zeb::IFileSystem::~IFileSystem()
zeb::IFileSystem::GetCapabilities()
zeb::IFileSystem::Copy(zeb::CString const&, zeb::CString const&, bool, void (*)(long, long, void*), void*)
zeb::IFileSystem::Copy(zeb::CString const&, zeb::TSharedPtr<zeb::IFile>, void (*)(long, long, void*), void*)
zeb::IFileSystem::Copy(zeb::TSharedPtr<zeb::IFile>, zeb::CString const&, bool, void (*)(long, long, void*), void*)
zeb::IFileSystem::Copy(zeb::TSharedPtr<zeb::IFile>, zeb::CString const&, long, bool, void (*)(long, long, void*), void*)
zeb::IFileSystem::Copy(zeb::CString const&, zeb::IFileSystem*, zeb::CString const&, bool, void (*)(long, long, void*), void*)
zeb::IFileSystem::Copy(zeb::IFileSystem*, zeb::CString const&, zeb::CString const&, bool, void (*)(long, long, void*), void*)
zeb::IFileSystem::FileExists(zeb::CString const&)
zeb::IFileSystem::IsFile(zeb::CString const&)
zeb::IFileSystem::IsDirectory(zeb::CString const&)
zeb::IFileSystem::CDirectoryEntry::CDirectoryEntry()
zeb::IFileSystem::CDirectoryEntry::CDirectoryEntry(zeb::IFileSystem::CDirectoryEntry const&)
zeb::IFileSystem::CDirectoryEntry::CDirectoryEntry(zeb::IFileSystem::CDirectoryEntry&&)
zeb::IFileSystem::CDirectoryEntry::~CDirectoryEntry()
zeb::IFileSystem::CDirectoryEntry::operator=(zeb::IFileSystem::CDirectoryEntry&&)
zeb::IFileSystem::CDirectoryListing::CDirectoryListing()
zeb::IFileSystem::CDirectoryListing::CDirectoryListing(zeb::IFileSystem::CDirectoryListing&&)
zeb::IFileSystem::CDirectoryListing::~CDirectoryListing()
zeb::IFileSystem::CDirectoryListing::operator=(zeb::IFileSystem::CDirectoryListing&&)
zeb::CPropertyArray::SetValue(zeb::CString const&, zeb::CString const&)
zeb::CPropertyArray::GetValue(zeb::CString const&) const
zeb::CPropertyArray::operator[](zeb::CString const&) const
zeb::CPropertyArray::CEntry::exists() const
zeb::CPropertyArray::CEntry::value() const
zeb::CReferenceCounter::Create()
zeb::CReferenceCounter::AddRef()
zeb::CReferenceCounter::Release()
zeb::fileSystem()
zeb::CUriHandler::instance()
zeb::CUriHandler::RegisterHandler(zeb::CString, zeb::IFileSystem*)
zeb::file::CRawImagerFile::CRawImagerFile()
zeb::file::CRawImagerFile::~CRawImagerFile()
zeb::file::CRawImagerFile::GetFilename(int)
zeb::file::CRawImagerFile::GetFlags()
zeb::file::IImagerFile::Open(zeb::TSharedPtr<zeb::IFile>, unsigned int)
zeb::file::CRawImagerFile::Close()
zeb::file::CRawImagerFile::GetInitialPreset()
zeb::file::IImagerFile::GetFirstAvailablePreset()
zeb::file::CRawImagerFile::GetPreset(unsigned int)
zeb::file::CRawImagerFile::GetDaType()
zeb::file::CRawImagerFile::GetBaseUnit()
zeb::file::CRawImagerFile::GetBaseTempType()
zeb::file::CRawImagerFile::xPixels()
zeb::file::CRawImagerFile::yPixels()
zeb::file::CRawImagerFile::nFrames()
zeb::file::CRawImagerFile::IsSuperframing()
zeb::file::CRawImagerFile::IsPresetSequencing()
zeb::file::CRawImagerFile::IsAbated()
zeb::file::CRawImagerFile::GetAvailablePresets(bool*, int)
zeb::file::IImagerFile::GetNumAvailablePresets()
zeb::file::IImagerFile::GetAbatedPresets(bool*, int)
zeb::file::CRawImagerFile::GetReduceObjects(zeb::reduce::CReduceObjectArray&)
zeb::file::CRawImagerFile::GetReduceObjectsForFrame(unsigned int, unsigned char&, zeb::reduce::CReduceObjectArray&)
zeb::file::CRawImagerFile::GetFrame(void*, unsigned int, unsigned char&, zeb::reduce::CReduceObjectArray&)
zeb::file::IImagerFile::GetAbatedFrame(void*, unsigned int, unsigned char*, zeb::reduce::CReduceObjectArray&)
zeb::file::IImagerFile::GetSuperframe(void**, unsigned int, bool*, zeb::reduce::CReduceObjectArray&)
zeb::file::IImagerFile::GetSubframeNumbers(unsigned int, unsigned int*, unsigned char&, bool)
zeb::file::IImagerFile::Create(zeb::IFileSystem*, zeb::CString const&, zeb::reduce::CReduceObjectArray&, unsigned int)
zeb::file::IImagerFile::Create(zeb::TSharedPtr<zeb::IFile>, zeb::reduce::CReduceObjectArray&, unsigned int)
zeb::file::IImagerFile::ChangeName(zeb::CString const&, bool)
zeb::file::IImagerFile::PutFrame(void*, unsigned char, zeb::reduce::CReduceObjectArray&)
zeb::file::IImagerFile::PutFrame(void*, unsigned char*, zeb::reduce::CReduceObjectArray&)
zeb::file::IImagerFile::PutFrame(void*, unsigned int)
zeb::file::IImagerFile::UpdateReduceObject(zeb::TSharedPtr<zeb::reduce::IReduceObject>)
zeb::file::IImagerFile::CanUpdateReduceObject(zeb::SGuid)
zeb::file::IImagerFile::RemoveReduceObject(zeb::SGuid, int)
zeb::file::CRawImagerFile::Extract(zeb::IFileSystem*, zeb::CString, zeb::file::IImagerFile::SExtractOptions&)
zeb::file::IImagerFile::Extract(zeb::TSharedPtr<zeb::IFile>, zeb::file::IImagerFile::SExtractOptions&)
zeb::file::CRawImagerFile::Open(zeb::IFileSystem*, zeb::CString const&, unsigned int)
zeb::file::CRawImagerFile::Open(zeb::IFileSystem*, zeb::CString const&, zeb::CString const&, unsigned int)
zeb::file::CRawImagerFile::Open(zeb::TSharedPtr<zeb::IFile>, zeb::TSharedPtr<zeb::IFile>, unsigned int)
zeb::file::CRawImagerFile::UpdatePresetMap(unsigned int)
zeb::file::CRawImagerFile::GetFrame(unsigned int)
zeb::file::imagerFileFactory()
zeb::reduce::CReduceObjectArray::GetFrameInfo(unsigned char, bool)
zeb::reduce::CReduceObjectArray::~CReduceObjectArray()
)";

// The contract's classes, whose type information and virtual tables the
// plug-in may refer to (classes it derives from; the sanitizers' checks of
// dynamic types; constructors a debug build does not inline).
const char* const kFrameworkClasses = R"(
zeb::IFile
zeb::CMemFile
zeb::IFileSystem
zeb::IConfigStore
zeb::CMemStore
zeb::CINIStore
zeb::file::IImagerFile
zeb::file::CRawImagerFile
zeb::file::CImagerFileFactory
zeb::reduce::IReduceObject
zeb::reduce::CFrameInfoReduceObject
zeb::reduce::CReduceObjectArray
)";

// Every framework symbol the plug-in leaves for the host's libraries to
// resolve is in the contract: a framework that offers exactly the contract
// loads the plug-in.
TEST(LibraryTest, FrameworkSymbolsStayInsideTheContract) {
  std::set<std::string> contract;
  std::istringstream listed(kFrameworkContract);
  for (std::string line; std::getline(listed, line);) contract.insert(line);
  std::istringstream classes(kFrameworkClasses);
  for (std::string line; std::getline(classes, line);) {
    for (const char* kind : {"typeinfo for ", "vtable for "}) contract.insert(kind + line);
  }
  const std::string undefined = RunCommand(std::string("nm -DC --undefined-only '") + ZEBTRK_LIBRARY_FILE + "'");
  std::istringstream lines(undefined);
  size_t framework = 0;
  for (std::string line; std::getline(lines, line);) {
    const size_t at = line.find(" U ");
    if (at == std::string::npos) continue;
    const std::string symbol = line.substr(at + 3);
    if (symbol.find("zeb::") == std::string::npos && symbol.compare(0, 3, "zeb") != 0) continue;
    ++framework;
    EXPECT_EQ(contract.count(symbol), 1u) << "outside the framework contract: " << symbol;
  }
  EXPECT_GT(framework, 100u);  // nm ran and the plug-in does need the framework
}

TEST(LibraryTest, RunTimeSearchPath) {
  const std::string dynamic = RunCommand(std::string("readelf -d '") + ZEBTRK_LIBRARY_FILE + "'");
  ASSERT_FALSE(dynamic.empty());
  size_t found = 0;
  for (const char* tag : {"(RUNPATH)", "(RPATH)"}) {
    for (size_t at = dynamic.find(tag); at != std::string::npos; at = dynamic.find(tag, at + 1)) {
      ++found;
      const size_t end = dynamic.find('\n', at);
      EXPECT_NE(dynamic.substr(at, end - at).find("[$ORIGIN/.:$ORIGIN/../lib]"), std::string::npos)
          << dynamic.substr(at, end - at);
    }
  }
  EXPECT_EQ(found, 1u);
}

}  // namespace
