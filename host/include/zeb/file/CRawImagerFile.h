// CRawImagerFile: the framework's raw imager file: a frame data file of
// 16-bit pixels and an information file beside it (format: SRawImagerInfo,
// docs/raw-imager-format.md).
//
// Opening checks that the information file describes the data: an
// information file that does not parse, has zero or absurd dimensions, or
// whose frames do not add up to the data file's size exactly is rejected.
// Every frame has preset 0. Frames of an information file with timing carry
// a CFrameInfoReduceObject with the frame's time stamp; without timing they
// carry none. Open flags are kept (GetFlags) and not interpreted.
//
// Owns shared references to its two files while open; Close releases them.
// One object is used by one thread at a time.
#pragma once

#include <vector>

#include <zeb/Api.h>
#include <zeb/file/IImagerFile.h>
#include <zeb/file/SRawImagerInfo.h>

namespace zeb {
namespace file {

class ZEB_API CRawImagerFile : public IImagerFile {
 public:
  // The name of this type ("Raw Imager File").
  static const char* const kTypeName;
  // The mode in which both files are opened: read-only, sharing reads.
  static constexpr unsigned int kOpenMode = IFile::kModeRead | IFile::kModeShareRead;

  // The information file's path for a data path: its extension changed to
  // ".info" ("a/12-Run.dat" gives "a/12-Run.info").
  static CString InfoPath(const CString& dataPath);

  CRawImagerFile();
  ~CRawImagerFile() override;

  using IImagerFile::Extract;
  using IImagerFile::GetFrame;
  using IImagerFile::Open;

  const char* GetName() override;
  // 0: the data file's name, 1: the information file's; empty otherwise or
  // while closed.
  CString GetFilename(int index) override;
  unsigned int GetFlags() override;
  // Opens the data file at `path` and the information file InfoPath(path)
  // on `fileSystem` (mode kOpenMode). Closes first. True when both opened
  // and agree.
  bool Open(IFileSystem* fileSystem, const CString& path, unsigned int flags) override;
  void Close() override;
  unsigned char GetInitialPreset() override;
  unsigned char GetPreset(unsigned int frame) override;
  unsigned int GetDaType() override;
  unsigned int GetBaseUnit() override;
  unsigned int GetBaseTempType() override;
  unsigned int xPixels() override;
  unsigned int yPixels() override;
  unsigned int nFrames() override;
  bool IsSuperframing() override;
  bool IsPresetSequencing() override;
  bool IsAbated() override;
  // Preset 0 only, while open.
  int GetAvailablePresets(bool* presets, int count) override;
  // Empties the array (a raw file has no file-level objects); true while open.
  bool GetReduceObjects(reduce::CReduceObjectArray& objects) override;
  // Replaces the array's contents with the frame's objects (its frame
  // information, when the file has timing) and sets `preset` to 0. False
  // while closed or for a frame past the end.
  bool GetReduceObjectsForFrame(unsigned int frame, unsigned char& preset,
                                reduce::CReduceObjectArray& objects) override;
  // Reads the frame's xPixels() x yPixels() pixels into `buffer` (Seek and
  // Read until complete), then as GetReduceObjectsForFrame. False while
  // closed, for a frame past the end, or when the data file reads short.
  bool GetFrame(void* buffer, unsigned int frame, unsigned char& preset,
                reduce::CReduceObjectArray& objects) override;
  // Writes frames firstFrame..lastFrame (every step-th) as a new raw pair at
  // `path` on `fileSystem` (replacing it), keeping their time stamps.
  bool Extract(IFileSystem* fileSystem, CString path, SExtractOptions& options) override;
  // Opens `dataPath` and `infoPath` on `fileSystem`. Closes first.
  bool Open(IFileSystem* fileSystem, const CString& dataPath, const CString& infoPath,
            unsigned int flags) override;
  // Uses two open files. Closes first. True when the information file
  // describes the data file (see above).
  bool Open(TSharedPtr<IFile> data, TSharedPtr<IFile> info, unsigned int flags) override;
  // Nothing to map: true while open.
  bool UpdatePresetMap(unsigned int flags) override;
  // The frame's pixels in a buffer of the object; null on failure.
  const void* GetFrame(unsigned int frame) override;

  // The information in use (all zero while closed).
  const SRawImagerInfo& info() const { return m_info; }
  bool IsOpen() const { return static_cast<bool>(m_dataFile); }

 private:
  TSharedPtr<IFile> m_dataFile;
  TSharedPtr<IFile> m_infoFile;
  SRawImagerInfo m_info;
  unsigned int m_flags;
  std::vector<unsigned char> m_frameBuffer;
};

}  // namespace file
}  // namespace zeb
