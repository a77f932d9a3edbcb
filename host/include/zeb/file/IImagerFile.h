// IImagerFile: the framework's imager file, a sequence of camera frames with
// their presets, reduction objects and pixel format.
//
// Implementations: CRawImagerFile and the types of plug-ins, made and
// destroyed through CImagerFileFactory. An imager file object is used by one
// thread at a time.
//
// The virtual operations are declared in the framework's slot order; code
// compiled against the framework relies on it, so never reorder them. The
// defaults given here say "not supported": false, 0, empty, or nothing done.
#pragma once

#include <zeb/Api.h>
#include <zeb/CString.h>
#include <zeb/IFile.h>
#include <zeb/IFileSystem.h>
#include <zeb/SGuid.h>
#include <zeb/TSharedPtr.h>
#include <zeb/reduce/CReduceObjectArray.h>
#include <zeb/reduce/IReduceObject.h>

namespace zeb {
namespace file {

class ZEB_API IImagerFile {
 public:
  // What a type answers when asked whether it can create a file from a set
  // of reduction objects.
  enum ECanCreateResult : int {
    kCanCreateNo = 0,
    kCanCreateYes = 1,
    kCanCreateWithLoss = 2,  // possible, but some information is dropped
  };

  // Which frames Extract copies: first to last inclusive, every `step`-th.
  struct SExtractOptions {
    unsigned int firstFrame;
    unsigned int lastFrame;
    unsigned int step;  // 0 counts as 1
    unsigned int flags;  // open flags for the new file's type
  };

  // Pixel data types (GetDaType).
  static constexpr unsigned int kDaTypeUInt16 = 2;

  IImagerFile();
  // Slot 1.
  virtual ~IImagerFile();
  // Slot 2: the type's name (static text).
  virtual const char* GetName() = 0;
  // Slot 3: the name of the file's part `index` (0 the frame data); empty
  // when there is no such part.
  virtual CString GetFilename(int index);
  // Slot 4: the flags the file was opened with.
  virtual unsigned int GetFlags();
  // Slot 5: opens the file at `path` on `fileSystem`. True on success.
  virtual bool Open(IFileSystem* fileSystem, const CString& path, unsigned int flags);
  // Slot 6: opens from one file object. Default: false.
  virtual bool Open(TSharedPtr<IFile> file, unsigned int flags);
  // Slot 7: releases everything opened; the object can be opened again.
  virtual void Close();
  // Slots 8 to 10: presets (camera settings) are numbered 0 to 255.
  virtual unsigned char GetInitialPreset();
  // Default: the lowest preset that GetAvailablePresets marks (0 if none).
  virtual unsigned char GetFirstAvailablePreset();
  virtual unsigned char GetPreset(unsigned int frame);
  // Slots 11 to 13: pixel data type, base unit and base temperature type.
  virtual unsigned int GetDaType();
  virtual unsigned int GetBaseUnit();
  virtual unsigned int GetBaseTempType();
  // Slots 14 to 16: frame width and height in pixels, number of frames
  // (0 while closed).
  virtual unsigned int xPixels();
  virtual unsigned int yPixels();
  virtual unsigned int nFrames();
  // Slots 17 to 19.
  virtual bool IsSuperframing();
  virtual bool IsPresetSequencing();
  virtual bool IsAbated();
  // Slot 20: marks presets[p] true for each available preset p < count;
  // returns how many are available.
  virtual int GetAvailablePresets(bool* presets, int count);
  // Slot 21: default counts what GetAvailablePresets marks.
  virtual int GetNumAvailablePresets();
  // Slot 22: like slot 20 for abated presets. Default: none.
  virtual int GetAbatedPresets(bool* presets, int count);
  // Slot 23: the file's reduction objects (replacing the array's contents).
  virtual bool GetReduceObjects(reduce::CReduceObjectArray& objects);
  // Slot 24: the reduction objects of `frame` (replacing the array's
  // contents) and its preset.
  virtual bool GetReduceObjectsForFrame(unsigned int frame, unsigned char& preset,
                                        reduce::CReduceObjectArray& objects);
  // Slot 25: reads the pixels of `frame` into `buffer` (xPixels * yPixels
  // pixels of the data type), with its preset and reduction objects.
  virtual bool GetFrame(void* buffer, unsigned int frame, unsigned char& preset,
                        reduce::CReduceObjectArray& objects);
  // Slots 26 to 28. Default: false.
  virtual bool GetAbatedFrame(void* buffer, unsigned int frame, unsigned char* presets,
                              reduce::CReduceObjectArray& objects);
  virtual bool GetSuperframe(void** buffers, unsigned int frame, bool* presets,
                             reduce::CReduceObjectArray& objects);
  virtual bool GetSubframeNumbers(unsigned int frame, unsigned int* subframes,
                                  unsigned char& preset, bool abated);
  // Slots 29 to 31: making files. Default: false.
  virtual bool Create(IFileSystem* fileSystem, const CString& path,
                      reduce::CReduceObjectArray& objects, unsigned int flags);
  virtual bool Create(TSharedPtr<IFile> file, reduce::CReduceObjectArray& objects,
                      unsigned int flags);
  virtual bool ChangeName(const CString& name, bool keepOld);
  // Slots 32 to 34: writing frames. Default: false.
  virtual bool PutFrame(void* buffer, unsigned char preset, reduce::CReduceObjectArray& objects);
  virtual bool PutFrame(void* buffer, unsigned char* presets, reduce::CReduceObjectArray& objects);
  virtual bool PutFrame(void* buffer, unsigned int frame);
  // Slots 35 to 37: editing reduction objects. Default: false.
  virtual bool UpdateReduceObject(TSharedPtr<reduce::IReduceObject> object);
  virtual bool CanUpdateReduceObject(SGuid id);
  virtual bool RemoveReduceObject(SGuid id, int index);
  // Slots 38, 39: copying frames into a new file. Default: false.
  virtual bool Extract(IFileSystem* fileSystem, CString path, SExtractOptions& options);
  virtual bool Extract(TSharedPtr<IFile> file, SExtractOptions& options);
  // Slots 40, 41: opening from two parts (frame data and information).
  // Default: false.
  virtual bool Open(IFileSystem* fileSystem, const CString& dataPath, const CString& infoPath,
                    unsigned int flags);
  virtual bool Open(TSharedPtr<IFile> data, TSharedPtr<IFile> info, unsigned int flags);
  // Slot 42. Default: false.
  virtual bool UpdatePresetMap(unsigned int flags);
  // Slot 43: the pixels of `frame` in a buffer that the object owns, valid
  // until the next call or Close; null on failure. Default: null.
  virtual const void* GetFrame(unsigned int frame);

  IImagerFile(const IImagerFile&) = delete;
  IImagerFile& operator=(const IImagerFile&) = delete;
};

}  // namespace file
}  // namespace zeb
