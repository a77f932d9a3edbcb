#include "trk/EntryMetadata.h"

#include <zeb/CDateTime.h>
#include <zeb/CINIStore.h>
#include <zeb/CLocalFileSystem.h>
#include <zeb/Numbers.h>
#include <zeb/Path.h>
#include <zeb/file/CRawImagerFile.h>
#include <zeb/reduce/CReduceObjectArray.h>

#include "trk/CacheDir.h"
#include "trk/Text.h"

namespace zeb {
namespace trk {

namespace {

// 1970-01-01 in 100-ns ticks since 1601-01-01, and ticks per second.
constexpr long kUnixEpochTicks = 116444736000000000L;
constexpr long kTicksPerSecond = 10000000L;

constexpr std::uint64_t kMicrosecondsPerDay = 86400000000ULL;
constexpr std::uint64_t kMicrosecondsPerHour = 3600000000ULL;
constexpr std::uint64_t kMicrosecondsPerMinute = 60000000ULL;
constexpr std::uint64_t kMicrosecondsPerSecond = 1000000ULL;

}  // namespace

SPackedTime DecodePackedTime(std::uint64_t packed) {
  const std::uint32_t w0 = packed & 0xFFFF;
  const std::uint32_t w1 = (packed >> 16) & 0xFFFF;
  const std::uint32_t w2 = (packed >> 32) & 0xFFFF;
  const std::uint32_t w3 = (packed >> 48) & 0xFFFF;
  const std::uint32_t clock = (w0 << 16) | w1;
  const std::uint32_t fraction = (w2 << 16) | w3;
  SPackedTime time;
  time.second = clock & 0x3F;
  time.minute = (clock >> 6) & 0x3F;
  time.hour = (clock >> 12) & 0x3F;
  time.day = (clock >> 18) & 0x1FF;
  time.millisecond = static_cast<std::uint16_t>(fraction / 1000);
  time.microsecond = fraction % 1000;
  return time;
}

zeb::CString FormatPackedTime(const SPackedTime& time) {
  return zeb::CString::FromFormat("%03d:%02d:%02d:%02d.%03d%03d", time.day, time.hour, time.minute, time.second,
                                  time.millisecond, static_cast<int>(time.microsecond));
}

std::uint64_t TotalMicroseconds(const SPackedTime& time) {
  return time.day * kMicrosecondsPerDay + time.hour * kMicrosecondsPerHour + time.minute * kMicrosecondsPerMinute +
         time.second * kMicrosecondsPerSecond + time.millisecond * 1000ULL + time.microsecond;
}

void FillMovieEntry(zeb::IFileSystem::CDirectoryEntry& entry, const STrkMovieInfo& movie, std::uint32_t index) {
  // Copies out of the packed record first: its 64-bit fields are unaligned.
  const std::uint16_t width = movie.width;
  const std::uint16_t height = movie.height;
  const std::uint64_t numFrames = movie.numFrames;
  const std::uint32_t rtcTime = movie.rtcTime;
  const std::uint64_t startTime = movie.startTime;
  const std::uint64_t endTime = movie.endTime;

  entry.type = 2;
  entry.time = zeb::CDateTime::NewTimestamp(static_cast<long>(rtcTime) * kTicksPerSecond + kUnixEpochTicks, 0);
  entry.size = static_cast<std::uint64_t>(width) * numFrames * height * 2;

  zeb::CPropertyArray& properties = entry.properties;
  properties.SetValue(zeb::trk::Text("width"), zeb::CUInt16::ToString(width));
  properties.SetValue(zeb::trk::Text("height"), zeb::CUInt16::ToString(height));
  properties.SetValue(zeb::trk::Text("numFrames"), zeb::CUInt64::ToString(numFrames));
  properties.SetValue(zeb::trk::Text("index"), zeb::CUInt32::ToString(index));
  const SPackedTime start = DecodePackedTime(startTime);
  const SPackedTime end = DecodePackedTime(endTime);
  properties.SetValue(zeb::trk::Text("startTime"), FormatPackedTime(start));
  properties.SetValue(zeb::trk::Text("endTime"), FormatPackedTime(end));
  // Unsigned on purpose: an end before the start wraps and is shown as the
  // large number, as the recorder's own tools show it.
  properties.SetValue(zeb::trk::Text("duration"), zeb::CUInt64::ToString(TotalMicroseconds(end) - TotalMicroseconds(start)));
}

}  // namespace trk
}  // namespace zeb

namespace {

const char* const kTimeFormat = "%j:%(irig)";

// One property, its store key and the default when the store lacks the key,
// in the order the properties are set.
struct SMetaKey {
  const char* property;
  const char* key;
  const char* fallback;
};

const SMetaKey kMetaKeys[] = {
    {"index", "meta/index", "0"},
    {"width", "meta/width", "0"},
    {"height", "meta/height", "0"},
    {"numFrames", "meta/numFrames", "0"},
    {"startTime", "meta/startTime", "000:00:00:00.000.000"},
    {"endTime", "meta/endTime", "000:00:00:00.000.000"},
    {"duration", "meta/duration", "0"},
};

// The time stamp of `frame` into `stamp`; false when the frame cannot be read
// or carries no frame information (`stamp` then unchanged).
bool FrameTime(zeb::file::CRawImagerFile& raw, unsigned int frame, unsigned char& preset,
               zeb::reduce::CReduceObjectArray& objects, zeb::CDateTime& stamp) {
  if (!raw.GetReduceObjectsForFrame(frame, preset, objects)) return false;
  zeb::TSharedPtr<zeb::reduce::CFrameInfoReduceObject> info = objects.GetFrameInfo(preset, false);
  if (!info) return false;
  stamp = info->timestamp();
  return true;
}

// Makes the store of the entry `name` from the raw imager file `dataPath` and
// saves it at `storePath`. False, with nothing written, when the raw file
// does not open.
bool MakeStore(zeb::CINIStore& store, const zeb::CString& name, const zeb::CString& storePath,
               const zeb::CString& dataPath) {
  zeb::file::CRawImagerFile raw;
  if (!raw.Open(zeb::fileSystem(), dataPath, 0u)) return false;
  store.SetString(zeb::trk::Text("meta/width"), zeb::to_string(raw.xPixels()));
  store.SetString(zeb::trk::Text("meta/height"), zeb::to_string(raw.yPixels()));
  store.SetString(zeb::trk::Text("meta/numFrames"), zeb::to_string(raw.nFrames()));

  zeb::CDateTime start;
  zeb::CDateTime end;
  unsigned char preset = 0;
  zeb::reduce::CReduceObjectArray objects;
  if (FrameTime(raw, 0, preset, objects, end)) {
    start = end;
    store.SetString(zeb::trk::Text("meta/startTime"), start.Format(kTimeFormat));
  }
  // nFrames() - 1 wraps for an empty file; the read then fails harmlessly.
  if (FrameTime(raw, raw.nFrames() - 1u, preset, objects, end)) {
    store.SetString(zeb::trk::Text("meta/endTime"), end.Format(kTimeFormat));
  }
  store.SetString(zeb::trk::Text("meta/duration"), zeb::to_string((end - start).GetTimestamp(1)));

  const unsigned long hyphen = name.find('-', 0);
  if (hyphen == zeb::CString::npos) {
    store.SetString(zeb::trk::Text("meta/index"), zeb::trk::Text("0"));
  } else {
    store.SetString(zeb::trk::Text("meta/index"), name.SubString(0, static_cast<int>(hyphen)));
  }
  store.Save(storePath);
  raw.Close();
  return true;
}

}  // namespace

bool GetDirectoryEntryMeta(zeb::IFileSystem::CDirectoryEntry& entry) {
  const zeb::CString cacheDir = zeb::trk::GetCacheDir();
  if (cacheDir.empty()) return false;  // no home directory: no cache directory
  const zeb::CString storePath = zeb::path::MakePath(cacheDir, entry.name + ".meta", '/');

  zeb::CINIStore store;
  if (!store.Load(storePath)) {
    const zeb::CString dataPath = zeb::path::ChangeExtension(storePath, zeb::trk::Text(".dat"));
    if (!MakeStore(store, entry.name, storePath, dataPath)) return false;
  }
  for (const SMetaKey& key : kMetaKeys) {
    entry.properties.SetValue(zeb::trk::Text(key.property),
                              store.GetString(zeb::trk::Text(key.key), zeb::trk::Text(key.fallback)));
  }
  return true;
}
