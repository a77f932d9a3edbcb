#include "tools/zebtrk/TextFormat.h"

#include <time.h>

#include <cstdint>
#include <cstdio>

namespace {

constexpr long kUnixEpochTicks = 116444736000000000L;  // 1970-01-01 in ticks since 1601
constexpr long kTicksPerSecond = 10000000L;

// `ticks` as broken-down UTC time and the microseconds within the second.
bool Split(long ticks, tm& parts, long& microseconds) {
  long since1970 = ticks - kUnixEpochTicks;
  long seconds = since1970 / kTicksPerSecond;
  long rest = since1970 % kTicksPerSecond;
  if (rest < 0) {
    rest += kTicksPerSecond;
    --seconds;
  }
  microseconds = rest / 10;
  const time_t whole = static_cast<time_t>(seconds);
  return gmtime_r(&whole, &parts) != nullptr;
}

std::string Format(long ticks, const char* format, bool fraction) {
  tm parts{};
  long microseconds = 0;
  if (!Split(ticks, parts, microseconds)) return "";
  char text[64];
  const size_t n = strftime(text, sizeof(text), format, &parts);
  std::string result(text, n);
  if (fraction) {
    snprintf(text, sizeof(text), ".%06ldZ", microseconds);
    result += text;
  }
  return result;
}

// The code point of the UTF-8 sequence at `text[i]` and its length; length 0
// for a byte that starts no valid sequence.
uint32_t Decode(const std::string& text, size_t i, size_t& length) {
  const unsigned char lead = static_cast<unsigned char>(text[i]);
  length = 0;
  if (lead < 0x80) {
    length = 1;
    return lead;
  }
  size_t need;
  uint32_t point;
  if (lead >= 0xC2 && lead <= 0xDF) {
    need = 1;
    point = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    need = 2;
    point = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    need = 3;
    point = lead & 0x07;
  } else {
    return 0;
  }
  if (i + need >= text.size()) return 0;
  for (size_t k = 1; k <= need; ++k) {
    const unsigned char next = static_cast<unsigned char>(text[i + k]);
    if ((next & 0xC0) != 0x80) return 0;
    point = point << 6 | (next & 0x3F);
  }
  // Overlong forms, surrogates and points past U+10FFFF are not UTF-8.
  static const uint32_t kMinimum[] = {0, 0x80, 0x800, 0x10000};
  if (point < kMinimum[need] || (point >= 0xD800 && point <= 0xDFFF) || point > 0x10FFFF) return 0;
  length = need + 1;
  return point;
}

bool Within(uint32_t point, uint32_t first, uint32_t last) { return point >= first && point <= last; }

unsigned Columns(uint32_t point) {
  if (Within(point, 0x0300, 0x036F) || Within(point, 0x1AB0, 0x1AFF) || Within(point, 0x1DC0, 0x1DFF) ||
      Within(point, 0x20D0, 0x20FF) || Within(point, 0xFE00, 0xFE0F) || Within(point, 0xFE20, 0xFE2F) ||
      point == 0x200B || point == 0x200D) {
    return 0;
  }
  if (Within(point, 0x1100, 0x115F) || Within(point, 0x2E80, 0x303E) || Within(point, 0x3041, 0x33FF) ||
      Within(point, 0x3400, 0x4DBF) || Within(point, 0x4E00, 0x9FFF) || Within(point, 0xA000, 0xA4CF) ||
      Within(point, 0xAC00, 0xD7A3) || Within(point, 0xF900, 0xFAFF) || Within(point, 0xFE30, 0xFE4F) ||
      Within(point, 0xFF00, 0xFF60) || Within(point, 0xFFE0, 0xFFE6) || Within(point, 0x1F300, 0x1F64F) ||
      Within(point, 0x1F900, 0x1F9FF) || Within(point, 0x20000, 0x3FFFD)) {
    return 2;
  }
  return 1;
}

}  // namespace

std::string TextFormat::Size(unsigned long bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes);
  int unit = 0;
  while (value >= 1024.0 && unit < 6) {
    value /= 1024.0;
    ++unit;
  }
  char text[32];
  snprintf(text, sizeof(text), "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string TextFormat::Duration(unsigned long microseconds) {
  const unsigned long hours = microseconds / 3600000000UL;
  const unsigned long minutes = microseconds / 60000000UL % 60;
  const unsigned long seconds = microseconds / 1000000UL % 60;
  const unsigned long milliseconds = microseconds / 1000UL % 1000;
  char text[64];
  if (hours > 0) {
    snprintf(text, sizeof(text), "%lu h %lu min %lu.%03lu s", hours, minutes, seconds, milliseconds);
  } else if (minutes > 0) {
    snprintf(text, sizeof(text), "%lu min %lu.%03lu s", minutes, seconds, milliseconds);
  } else {
    snprintf(text, sizeof(text), "%lu.%03lu s", seconds, milliseconds);
  }
  return text;
}

std::string TextFormat::Time(long ticks) {
  if (ticks == 0) return "-";
  return Format(ticks, "%Y-%m-%d %H:%M:%S UTC", false);
}

std::string TextFormat::IsoTime(long ticks) {
  if (ticks == 0) return "";
  return Format(ticks, "%Y-%m-%dT%H:%M:%S", true);
}

std::string TextFormat::TiffTime(long ticks) { return Format(ticks, "%Y:%m:%d %H:%M:%S", false); }

std::string TextFormat::Rate(long periodTicks) {
  if (periodTicks <= 0) return "-";
  char text[32];
  snprintf(text, sizeof(text), "%.6g Hz", static_cast<double>(kTicksPerSecond) / static_cast<double>(periodTicks));
  return text;
}

std::string TextFormat::Escaped(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    size_t length = 0;
    const uint32_t point = Decode(text, i, length);
    const bool control = length != 0 && (point < 0x20 || point == 0x7F || Within(point, 0x80, 0x9F));
    if (length != 0 && !control) {
      out.append(text, i, length);
      i += length;
      continue;
    }
    const unsigned char byte = static_cast<unsigned char>(text[i]);
    char escape[8];
    if (byte == '\n') {
      out += "\\n";
    } else if (byte == '\t') {
      out += "\\t";
    } else {
      // A C1 control point is two bytes; both are shown.
      for (size_t k = 0; k < (length == 0 ? 1 : length); ++k) {
        snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned char>(text[i + k]));
        out += escape;
      }
    }
    i += length == 0 ? 1 : length;
  }
  return out;
}

size_t TextFormat::DisplayWidth(const std::string& text) {
  size_t width = 0;
  for (size_t i = 0; i < text.size();) {
    size_t length = 0;
    const uint32_t point = Decode(text, i, length);
    width += length == 0 ? 1 : Columns(point);
    i += length == 0 ? 1 : length;
  }
  return width;
}
