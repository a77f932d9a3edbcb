// CRawImagerFile: frames read straight from the data file at
// frame x frameBytes, described by the information file.
#include <zeb/file/CRawImagerFile.h>

#include <new>

#include <zeb/Path.h>
#include <zeb/file/CRawImagerWriter.h>
#include <zeb/reduce/CFrameInfoReduceObject.h>

namespace zeb {
namespace file {
namespace {

// The whole information file, at most kMaxInfoBytes; false when it is larger
// or cannot be read.
bool ReadInfoText(IFile& file, std::vector<char>& text) {
  const long size = file.GetSize();
  if (size < 0 || static_cast<unsigned long>(size) > SRawImagerInfo::kMaxInfoBytes) return false;
  if (file.Seek(0, IFile::kSeekBegin) != 0) return false;
  text.resize(static_cast<unsigned long>(size));
  return size == 0 || file.ReadBytes(text.data(), static_cast<unsigned int>(size));
}

}  // namespace

const char* const CRawImagerFile::kTypeName = "Raw Imager File";

CString CRawImagerFile::InfoPath(const CString& dataPath) {
  return path::ChangeExtension(dataPath, ".info");
}

CRawImagerFile::CRawImagerFile() : m_flags(0) {}
CRawImagerFile::~CRawImagerFile() { CRawImagerFile::Close(); }

const char* CRawImagerFile::GetName() { return kTypeName; }

CString CRawImagerFile::GetFilename(int index) {
  if (index == 0 && m_dataFile) return m_dataFile->filename();
  if (index == 1 && m_infoFile) return m_infoFile->filename();
  return CString();
}

unsigned int CRawImagerFile::GetFlags() { return m_flags; }

bool CRawImagerFile::Open(IFileSystem* fileSystem, const CString& path, unsigned int flags) {
  return Open(fileSystem, path, InfoPath(path), flags);
}

bool CRawImagerFile::Open(IFileSystem* fileSystem, const CString& dataPath,
                          const CString& infoPath, unsigned int flags) {
  Close();
  if (!fileSystem || dataPath.Equals(infoPath)) return false;
  TSharedPtr<IFile> data = fileSystem->OpenFile(dataPath, kOpenMode);
  if (!data) return false;
  TSharedPtr<IFile> info = fileSystem->OpenFile(infoPath, kOpenMode);
  if (!info) return false;
  return Open(data, info, flags);
}

bool CRawImagerFile::Open(TSharedPtr<IFile> data, TSharedPtr<IFile> info, unsigned int flags) {
  Close();
  if (!data || !info) return false;
  std::vector<char> text;
  SRawImagerInfo described;
  try {
    if (!ReadInfoText(*info, text)) return false;
  } catch (const std::bad_alloc&) {
    return false;
  }
  if (!SRawImagerInfo::FromText(text.data(), text.size(), described)) return false;
  const long size = data->GetSize();
  // dataBytes() cannot overflow: a frame is below 2^31 bytes, frames below 2^32.
  if (size < 0 || static_cast<unsigned long>(size) != described.dataBytes()) return false;
  m_dataFile = data;
  m_infoFile = info;
  m_info = described;
  m_flags = flags;
  return true;
}

void CRawImagerFile::Close() {
  m_dataFile.reset();
  m_infoFile.reset();
  m_info = SRawImagerInfo();
  m_flags = 0;
  std::vector<unsigned char>().swap(m_frameBuffer);
}

unsigned char CRawImagerFile::GetInitialPreset() { return 0; }
unsigned char CRawImagerFile::GetPreset(unsigned int) { return 0; }
unsigned int CRawImagerFile::GetDaType() { return kDaTypeUInt16; }
unsigned int CRawImagerFile::GetBaseUnit() { return 0; }
unsigned int CRawImagerFile::GetBaseTempType() { return 0; }
unsigned int CRawImagerFile::xPixels() { return m_info.width; }
unsigned int CRawImagerFile::yPixels() { return m_info.height; }
unsigned int CRawImagerFile::nFrames() { return m_info.frames; }
bool CRawImagerFile::IsSuperframing() { return false; }
bool CRawImagerFile::IsPresetSequencing() { return false; }
bool CRawImagerFile::IsAbated() { return false; }

int CRawImagerFile::GetAvailablePresets(bool* presets, int count) {
  for (int p = 0; presets && p < count; ++p) presets[p] = (p == 0 && IsOpen());
  return IsOpen() ? 1 : 0;
}

bool CRawImagerFile::GetReduceObjects(reduce::CReduceObjectArray& objects) {
  objects.Clear();
  return IsOpen();
}

bool CRawImagerFile::GetReduceObjectsForFrame(unsigned int frame, unsigned char& preset,
                                              reduce::CReduceObjectArray& objects) {
  if (!IsOpen() || frame >= m_info.frames) return false;
  objects.Clear();
  preset = 0;
  if (m_info.hasTiming) {
    objects.Add(TSharedPtr<reduce::IReduceObject>(
        new reduce::CFrameInfoReduceObject(m_info.FrameTime(frame), frame, 0)));
  }
  return true;
}

bool CRawImagerFile::GetFrame(void* buffer, unsigned int frame, unsigned char& preset,
                              reduce::CReduceObjectArray& objects) {
  if (!IsOpen() || !buffer || frame >= m_info.frames) return false;
  const long offset = static_cast<long>(frame * m_info.frameBytes());
  if (m_dataFile->Seek(offset, IFile::kSeekBegin) != offset) return false;
  if (!m_dataFile->ReadBytes(buffer, static_cast<unsigned int>(m_info.frameBytes()))) return false;
  return GetReduceObjectsForFrame(frame, preset, objects);
}

bool CRawImagerFile::Extract(IFileSystem* fileSystem, CString path, SExtractOptions& options) {
  if (!IsOpen() || !fileSystem) return false;
  const unsigned int step = options.step ? options.step : 1;
  if (options.firstFrame > options.lastFrame || options.lastFrame >= m_info.frames) return false;
  SRawImagerInfo layout = m_info;
  layout.frames = 0;
  if (m_info.hasTiming) {
    layout.firstFrameTicks = m_info.FrameTime(options.firstFrame).ticks();
    layout.framePeriodTicks = m_info.framePeriodTicks * step;
  }
  CRawImagerWriter writer;
  if (!writer.Create(fileSystem, path, layout)) return false;
  std::vector<unsigned short> pixels;
  try {
    pixels.resize(m_info.frameBytes() / 2);
  } catch (const std::bad_alloc&) {
    return false;
  }
  reduce::CReduceObjectArray objects;
  unsigned char preset = 0;
  for (unsigned long frame = options.firstFrame; frame <= options.lastFrame; frame += step) {
    if (!GetFrame(pixels.data(), static_cast<unsigned int>(frame), preset, objects) ||
        !writer.PutFrame(pixels.data())) {
      return false;
    }
  }
  return writer.Finish();
}

bool CRawImagerFile::UpdatePresetMap(unsigned int) { return IsOpen(); }

const void* CRawImagerFile::GetFrame(unsigned int frame) {
  if (!IsOpen() || frame >= m_info.frames) return nullptr;
  try {
    m_frameBuffer.resize(m_info.frameBytes());
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
  reduce::CReduceObjectArray objects;
  unsigned char preset = 0;
  if (!GetFrame(m_frameBuffer.data(), frame, preset, objects)) return nullptr;
  return m_frameBuffer.data();
}

}  // namespace file
}  // namespace zeb
