// IImagerFile: defaults that say "not supported".
#include <zeb/file/IImagerFile.h>

namespace zeb {
namespace file {

using reduce::CReduceObjectArray;

IImagerFile::IImagerFile() = default;
IImagerFile::~IImagerFile() = default;

CString IImagerFile::GetFilename(int) { return CString(); }
unsigned int IImagerFile::GetFlags() { return 0; }
bool IImagerFile::Open(IFileSystem*, const CString&, unsigned int) { return false; }
bool IImagerFile::Open(TSharedPtr<IFile>, unsigned int) { return false; }
void IImagerFile::Close() {}
unsigned char IImagerFile::GetInitialPreset() { return 0; }

unsigned char IImagerFile::GetFirstAvailablePreset() {
  bool presets[256] = {};
  GetAvailablePresets(presets, 256);
  for (int p = 0; p < 256; ++p) {
    if (presets[p]) return static_cast<unsigned char>(p);
  }
  return 0;
}

unsigned char IImagerFile::GetPreset(unsigned int) { return 0; }
unsigned int IImagerFile::GetDaType() { return 0; }
unsigned int IImagerFile::GetBaseUnit() { return 0; }
unsigned int IImagerFile::GetBaseTempType() { return 0; }
unsigned int IImagerFile::xPixels() { return 0; }
unsigned int IImagerFile::yPixels() { return 0; }
unsigned int IImagerFile::nFrames() { return 0; }
bool IImagerFile::IsSuperframing() { return false; }
bool IImagerFile::IsPresetSequencing() { return false; }
bool IImagerFile::IsAbated() { return false; }

int IImagerFile::GetAvailablePresets(bool* presets, int count) {
  for (int p = 0; presets && p < count; ++p) presets[p] = false;
  return 0;
}

int IImagerFile::GetNumAvailablePresets() {
  bool presets[256] = {};
  GetAvailablePresets(presets, 256);
  int n = 0;
  for (bool available : presets) n += available ? 1 : 0;
  return n;
}

int IImagerFile::GetAbatedPresets(bool* presets, int count) {
  for (int p = 0; presets && p < count; ++p) presets[p] = false;
  return 0;
}

bool IImagerFile::GetReduceObjects(CReduceObjectArray&) { return false; }
bool IImagerFile::GetReduceObjectsForFrame(unsigned int, unsigned char&, CReduceObjectArray&) {
  return false;
}
bool IImagerFile::GetFrame(void*, unsigned int, unsigned char&, CReduceObjectArray&) {
  return false;
}
bool IImagerFile::GetAbatedFrame(void*, unsigned int, unsigned char*, CReduceObjectArray&) {
  return false;
}
bool IImagerFile::GetSuperframe(void**, unsigned int, bool*, CReduceObjectArray&) { return false; }
bool IImagerFile::GetSubframeNumbers(unsigned int, unsigned int*, unsigned char&, bool) {
  return false;
}
bool IImagerFile::Create(IFileSystem*, const CString&, CReduceObjectArray&, unsigned int) {
  return false;
}
bool IImagerFile::Create(TSharedPtr<IFile>, CReduceObjectArray&, unsigned int) { return false; }
bool IImagerFile::ChangeName(const CString&, bool) { return false; }
bool IImagerFile::PutFrame(void*, unsigned char, CReduceObjectArray&) { return false; }
bool IImagerFile::PutFrame(void*, unsigned char*, CReduceObjectArray&) { return false; }
bool IImagerFile::PutFrame(void*, unsigned int) { return false; }
bool IImagerFile::UpdateReduceObject(TSharedPtr<reduce::IReduceObject>) { return false; }
bool IImagerFile::CanUpdateReduceObject(SGuid) { return false; }
bool IImagerFile::RemoveReduceObject(SGuid, int) { return false; }
bool IImagerFile::Extract(IFileSystem*, CString, SExtractOptions&) { return false; }
bool IImagerFile::Extract(TSharedPtr<IFile>, SExtractOptions&) { return false; }
bool IImagerFile::Open(IFileSystem*, const CString&, const CString&, unsigned int) { return false; }
bool IImagerFile::Open(TSharedPtr<IFile>, TSharedPtr<IFile>, unsigned int) { return false; }
bool IImagerFile::UpdatePresetMap(unsigned int) { return false; }
const void* IImagerFile::GetFrame(unsigned int) { return nullptr; }

}  // namespace file
}  // namespace zeb
