// CRawImagerWriter: frames appended to the data file; the information file
// written last, with the count of frames actually put.
#include <zeb/file/CRawImagerWriter.h>

#include <zeb/file/CRawImagerFile.h>

#if !defined(__BYTE_ORDER__) || __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "raw imager files store little-endian pixels in host order"
#endif

namespace zeb {
namespace file {

CRawImagerWriter::CRawImagerWriter() : m_failed(false) {}
CRawImagerWriter::~CRawImagerWriter() {
  if (m_data) Finish();
}

bool CRawImagerWriter::Create(IFileSystem* fileSystem, const CString& dataPath,
                              const SRawImagerInfo& layout) {
  if (!fileSystem) return false;
  const CString infoPath = CRawImagerFile::InfoPath(dataPath);
  if (infoPath.Equals(dataPath)) return false;
  TSharedPtr<IFile> data = fileSystem->OpenFile(dataPath, IFile::kModeCreateWrite);
  if (!data) return false;
  TSharedPtr<IFile> info = fileSystem->OpenFile(infoPath, IFile::kModeCreateWrite);
  if (!info) return false;
  return Create(data, info, layout);
}

bool CRawImagerWriter::Create(TSharedPtr<IFile> data, TSharedPtr<IFile> info,
                              const SRawImagerInfo& layout) {
  if (m_data) Finish();
  SRawImagerInfo checked = layout;
  checked.frames = 1;
  if (!data || !info || !checked.IsValid()) return false;
  m_data = data;
  m_info = info;
  m_layout = layout;
  m_layout.frames = 0;
  m_failed = false;
  return true;
}

bool CRawImagerWriter::PutFrame(const unsigned short* pixels) {
  if (!m_data || !pixels || m_failed) return false;
  SRawImagerInfo next = m_layout;
  next.frames += 1;
  if (next.frames == 0 || !next.IsValid()) return false;  // no room for a frame's time
  if (!m_data->WriteBytes(pixels, static_cast<unsigned int>(m_layout.frameBytes()))) {
    m_failed = true;  // the data file now holds part of a frame
    return false;
  }
  m_layout.frames = next.frames;
  return true;
}

bool CRawImagerWriter::Finish() {
  if (!m_data) return false;
  bool ok = !m_failed && m_layout.frames > 0;
  if (ok) {
    const CString text = m_layout.ToText();
    ok = m_info->WriteBytes(text.c_str(), static_cast<unsigned int>(text.length()));
  }
  m_data->Flush();
  m_info->Flush();
  m_data.reset();
  m_info.reset();
  return ok;
}

}  // namespace file
}  // namespace zeb
