#include "tools/zebtrk/TextFormat.h"

#include <cstdio>

#include <zeb/CDateTime.h>

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
  return zeb::CDateTime::NewTimestamp(ticks, 0).Format("%Y-%m-%d %H:%M:%S UTC").c_str();
}

std::string TextFormat::IsoTime(long ticks) {
  if (ticks == 0) return "";
  return zeb::CDateTime::NewTimestamp(ticks, 0).Format("%Y-%m-%dT%H:%M:%SZ").c_str();
}
