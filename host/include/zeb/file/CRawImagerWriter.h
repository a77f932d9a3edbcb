// CRawImagerWriter: writes a raw imager file pair (frame data and
// information file) frame by frame, for tools and tests.
//
// Usage:
//   SRawImagerInfo layout;  // width, height, optional timing; frames ignored
//   CRawImagerWriter writer;
//   writer.Create(zeb::fileSystem(), "/x/12-Run.dat", layout);
//   writer.PutFrame(pixels);  ...
//   writer.Finish();          // writes the information file
// The information file is written by Finish (or the destructor) with the
// number of frames put, so a pair is never described as longer than its
// data. Owns shared references to both files until Finish. One object is used
// by one thread at a time.
#pragma once

#include <zeb/Api.h>
#include <zeb/IFileSystem.h>
#include <zeb/TSharedPtr.h>
#include <zeb/file/SRawImagerInfo.h>

namespace zeb {
namespace file {

class ZEB_API CRawImagerWriter {
 public:
  CRawImagerWriter();
  // Finishes an unfinished pair (ignoring the result).
  ~CRawImagerWriter();
  CRawImagerWriter(const CRawImagerWriter&) = delete;
  CRawImagerWriter& operator=(const CRawImagerWriter&) = delete;

  // Creates (or truncates) `dataPath` and CRawImagerFile::InfoPath(dataPath)
  // on `fileSystem`. False when the layout's width/height are unusable or a
  // file cannot be created.
  bool Create(IFileSystem* fileSystem, const CString& dataPath, const SRawImagerInfo& layout);
  // Writes into two open files from their current positions.
  bool Create(TSharedPtr<IFile> data, TSharedPtr<IFile> info, const SRawImagerInfo& layout);
  // Appends one frame of width x height pixels (host order; this framework
  // runs on little-endian machines only). False when not created or the data
  // file took fewer bytes.
  bool PutFrame(const unsigned short* pixels);
  // Writes the information file and releases both files. False when nothing
  // was created, no frame was put, or the write failed.
  bool Finish();

  unsigned int frames() const { return m_layout.frames; }

 private:
  TSharedPtr<IFile> m_data;
  TSharedPtr<IFile> m_info;
  SRawImagerInfo m_layout;
  bool m_failed;
};

}  // namespace file
}  // namespace zeb
