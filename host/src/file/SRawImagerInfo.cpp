// SRawImagerInfo: the information file's keys, written and checked.
#include <zeb/file/SRawImagerInfo.h>

#include <climits>

#include <zeb/CINIStore.h>
#include <zeb/Numbers.h>

namespace zeb {
namespace file {
namespace {

const char kVersion[] = "raw/version";
const char kWidth[] = "raw/width";
const char kHeight[] = "raw/height";
const char kFrames[] = "raw/frames";
const char kPixelFormat[] = "raw/pixelFormat";
const char kFirstFrameTime[] = "raw/firstFrameTime";
const char kFramePeriod[] = "raw/framePeriod";
const char kUInt16Le[] = "uint16le";

bool ReadTicks(CINIStore& store, const char* key, long& value) {
  unsigned long parsed = 0;
  if (!CUInt64::TryParse(store.GetString(key, "").c_str(), parsed)) return false;
  if (parsed > static_cast<unsigned long>(LONG_MAX)) return false;
  value = static_cast<long>(parsed);
  return true;
}

}  // namespace

unsigned long SRawImagerInfo::frameBytes() const {
  return static_cast<unsigned long>(width) * height * 2;
}

unsigned long SRawImagerInfo::dataBytes() const { return frameBytes() * frames; }

CDateTime SRawImagerInfo::FrameTime(unsigned int frame) const {
  if (!hasTiming) return CDateTime();
  return CDateTime::NewTimestamp(firstFrameTicks + static_cast<long>(frame) * framePeriodTicks, 0);
}

bool SRawImagerInfo::IsValid() const {
  if (width < 1 || width > 0xFFFF || height < 1 || height > 0xFFFF) return false;
  if (frameBytes() > kMaxFrameBytes || frames < 1) return false;
  if (!hasTiming) return true;
  if (firstFrameTicks < 0 || framePeriodTicks < 0) return false;
  long span;
  long last;
  return !__builtin_mul_overflow(static_cast<long>(frames - 1), framePeriodTicks, &span) &&
         !__builtin_add_overflow(firstFrameTicks, span, &last);
}

CString SRawImagerInfo::ToText() const {
  CINIStore store;
  store.SetString(kVersion, "1");
  store.SetString(kWidth, to_string(width));
  store.SetString(kHeight, to_string(height));
  store.SetString(kFrames, to_string(frames));
  store.SetString(kPixelFormat, kUInt16Le);
  if (hasTiming) {
    store.SetString(kFirstFrameTime, to_string(firstFrameTicks));
    store.SetString(kFramePeriod, to_string(framePeriodTicks));
  }
  return store.ToText();
}

bool SRawImagerInfo::FromText(const char* text, unsigned long length, SRawImagerInfo& info) {
  CINIStore store;
  store.Parse(text, length);
  if (store.HasKey(kVersion) && store.GetString(kVersion, "") != "1") return false;
  if (store.GetString(kPixelFormat, "") != kUInt16Le) return false;
  SRawImagerInfo read;
  if (!CUInt32::TryParse(store.GetString(kWidth, "").c_str(), read.width) ||
      !CUInt32::TryParse(store.GetString(kHeight, "").c_str(), read.height) ||
      !CUInt32::TryParse(store.GetString(kFrames, "").c_str(), read.frames)) {
    return false;
  }
  const bool hasFirst = store.HasKey(kFirstFrameTime);
  if (hasFirst != store.HasKey(kFramePeriod)) return false;  // half a timing
  if (hasFirst) {
    if (!ReadTicks(store, kFirstFrameTime, read.firstFrameTicks) ||
        !ReadTicks(store, kFramePeriod, read.framePeriodTicks)) {
      return false;
    }
    read.hasTiming = true;
  }
  if (!read.IsValid()) return false;
  info = read;
  return true;
}

}  // namespace file
}  // namespace zeb
