// Virtual slot order of IFile, IFileSystem and IImagerFile. Code compiled
// against the framework calls through these slots, so the order is part of
// the framework's binary interface. Under the Itanium C++ ABI a pointer to a
// virtual member holds 1 + the slot's byte offset in the vtable; the
// destructor takes two slots (complete and deleting), so the operation listed
// as slot k (destructor = slot 1) sits at vtable index k.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include <zeb/IFile.h>
#include <zeb/IFileSystem.h>
#include <zeb/file/IImagerFile.h>

namespace {

using namespace zeb;
using file::IImagerFile;
using reduce::CReduceObjectArray;

struct SSlot {
  long index;
  long expected;
  const char* name;
};

template <class PMF>
long IndexOf(PMF pmf) {
  struct {
    std::uintptr_t ptr;
    std::ptrdiff_t adj;
  } rep;
  static_assert(sizeof(pmf) == sizeof(rep), "Itanium member pointer");
  std::memcpy(&rep, &pmf, sizeof rep);
  if ((rep.ptr & 1) == 0) return -1;  // not virtual
  return static_cast<long>((rep.ptr - 1) / sizeof(void*));
}

#define SLOT(n, type, cls, name) SSlot{IndexOf(static_cast<type>(&cls::name)), n, #name "@" #n}

void Check(const std::vector<SSlot>& slots) {
  for (const SSlot& slot : slots) EXPECT_EQ(slot.index, slot.expected) << slot.name;
}

TEST(SlotOrderTest, IFile) {
  Check({
      SLOT(2, CString (IFile::*)(), IFile, filename),
      SLOT(3, IFileSystem* (IFile::*)(), IFile, fileSystem),
      SLOT(4, unsigned (IFile::*)(const void*, unsigned), IFile, Write),
      SLOT(5, unsigned (IFile::*)(void*, unsigned), IFile, Read),
      SLOT(6, long (IFile::*)(), IFile, GetSize),
      SLOT(7, long (IFile::*)(), IFile, GetPosition),
      SLOT(8, long (IFile::*)(long, unsigned), IFile, Seek),
      SLOT(9, bool (IFile::*)(long), IFile, SetSize),
      SLOT(10, void (IFile::*)(), IFile, Flush),
      SLOT(11, bool (IFile::*)(), IFile, Close),
      SLOT(12, bool (IFile::*)(), IFile, canRead),
      SLOT(13, bool (IFile::*)(), IFile, canWrite),
      SLOT(14, bool (IFile::*)(unsigned), IFile, Reopen),
  });
}

TEST(SlotOrderTest, IFileSystem) {
  typedef IFileSystem::ProgressFunction P;
  typedef IFileSystem FS;
  Check({
      SLOT(2, unsigned (FS::*)(), FS, GetCapabilities),
      SLOT(3, TSharedPtr<IFile> (FS::*)(const CString&, unsigned), FS, OpenFile),
      SLOT(4, bool (FS::*)(const CString&, const CString&, bool, P, void*), FS, Copy),
      SLOT(5, bool (FS::*)(const CString&, TSharedPtr<IFile>, P, void*), FS, Copy),
      SLOT(6, bool (FS::*)(TSharedPtr<IFile>, const CString&, bool, P, void*), FS, Copy),
      SLOT(7, bool (FS::*)(TSharedPtr<IFile>, const CString&, long, bool, P, void*), FS, Copy),
      SLOT(8, bool (FS::*)(const CString&, FS*, const CString&, bool, P, void*), FS, Copy),
      SLOT(9, bool (FS::*)(FS*, const CString&, const CString&, bool, P, void*), FS, Copy),
      SLOT(10, FS::CDirectoryListing (FS::*)(const CString&, const CString&), FS, GetDirectoryListing),
      SLOT(11, FS::CDirectoryEntry (FS::*)(const CString&), FS, GetInfo),
      SLOT(12, bool (FS::*)(const CString&), FS, RemoveFile),
      SLOT(13, bool (FS::*)(const CString&, bool), FS, MakeDir),
      SLOT(14, bool (FS::*)(const CString&, bool), FS, RemoveDir),
      SLOT(15, bool (FS::*)(const CString&), FS, SetCurrentWorkingDirectory),
      SLOT(16, bool (FS::*)(const CString&), FS, FileExists),
      SLOT(17, bool (FS::*)(const CString&), FS, IsFile),
      SLOT(18, bool (FS::*)(const CString&), FS, IsDirectory),
      SLOT(19, CString (FS::*)(), FS, GetCurrentWorkingDirectory),
      SLOT(20, CString (FS::*)(const CString&), FS, GetFullPath),
  });
}

TEST(SlotOrderTest, IImagerFile) {
  typedef IImagerFile I;
  typedef CReduceObjectArray A;
  Check({
      SLOT(2, const char* (I::*)(), I, GetName),
      SLOT(3, CString (I::*)(int), I, GetFilename),
      SLOT(4, unsigned (I::*)(), I, GetFlags),
      SLOT(5, bool (I::*)(IFileSystem*, const CString&, unsigned), I, Open),
      SLOT(6, bool (I::*)(TSharedPtr<IFile>, unsigned), I, Open),
      SLOT(7, void (I::*)(), I, Close),
      SLOT(8, unsigned char (I::*)(), I, GetInitialPreset),
      SLOT(9, unsigned char (I::*)(), I, GetFirstAvailablePreset),
      SLOT(10, unsigned char (I::*)(unsigned), I, GetPreset),
      SLOT(11, unsigned (I::*)(), I, GetDaType),
      SLOT(12, unsigned (I::*)(), I, GetBaseUnit),
      SLOT(13, unsigned (I::*)(), I, GetBaseTempType),
      SLOT(14, unsigned (I::*)(), I, xPixels),
      SLOT(15, unsigned (I::*)(), I, yPixels),
      SLOT(16, unsigned (I::*)(), I, nFrames),
      SLOT(17, bool (I::*)(), I, IsSuperframing),
      SLOT(18, bool (I::*)(), I, IsPresetSequencing),
      SLOT(19, bool (I::*)(), I, IsAbated),
      SLOT(20, int (I::*)(bool*, int), I, GetAvailablePresets),
      SLOT(21, int (I::*)(), I, GetNumAvailablePresets),
      SLOT(22, int (I::*)(bool*, int), I, GetAbatedPresets),
      SLOT(23, bool (I::*)(A&), I, GetReduceObjects),
      SLOT(24, bool (I::*)(unsigned, unsigned char&, A&), I, GetReduceObjectsForFrame),
      SLOT(25, bool (I::*)(void*, unsigned, unsigned char&, A&), I, GetFrame),
      SLOT(26, bool (I::*)(void*, unsigned, unsigned char*, A&), I, GetAbatedFrame),
      SLOT(27, bool (I::*)(void**, unsigned, bool*, A&), I, GetSuperframe),
      SLOT(28, bool (I::*)(unsigned, unsigned*, unsigned char&, bool), I, GetSubframeNumbers),
      SLOT(29, bool (I::*)(IFileSystem*, const CString&, A&, unsigned), I, Create),
      SLOT(30, bool (I::*)(TSharedPtr<IFile>, A&, unsigned), I, Create),
      SLOT(31, bool (I::*)(const CString&, bool), I, ChangeName),
      SLOT(32, bool (I::*)(void*, unsigned char, A&), I, PutFrame),
      SLOT(33, bool (I::*)(void*, unsigned char*, A&), I, PutFrame),
      SLOT(34, bool (I::*)(void*, unsigned), I, PutFrame),
      SLOT(35, bool (I::*)(TSharedPtr<reduce::IReduceObject>), I, UpdateReduceObject),
      SLOT(36, bool (I::*)(SGuid), I, CanUpdateReduceObject),
      SLOT(37, bool (I::*)(SGuid, int), I, RemoveReduceObject),
      SLOT(38, bool (I::*)(IFileSystem*, CString, I::SExtractOptions&), I, Extract),
      SLOT(39, bool (I::*)(TSharedPtr<IFile>, I::SExtractOptions&), I, Extract),
      SLOT(40, bool (I::*)(IFileSystem*, const CString&, const CString&, unsigned), I, Open),
      SLOT(41, bool (I::*)(TSharedPtr<IFile>, TSharedPtr<IFile>, unsigned), I, Open),
      SLOT(42, bool (I::*)(unsigned), I, UpdatePresetMap),
      SLOT(43, const void* (I::*)(unsigned), I, GetFrame),
  });
}

}  // namespace
