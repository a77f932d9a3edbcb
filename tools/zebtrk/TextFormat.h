// TextFormat: how the tool shows numbers and times to a person: byte sizes
// ("58.6 MiB"), durations ("1 min 2.345 s") and recording times
// ("2024-05-01 10:20:30 UTC").
//
// Stateless; pure functions; any thread.
#pragma once

#include <string>

class TextFormat {
 public:
  // Bytes in binary units with one decimal ("512 B", "1.5 KiB", "58.6 MiB").
  static std::string Size(unsigned long bytes);
  // Microseconds as seconds with millisecond precision, with minutes and
  // hours in front when needed ("0.500 s", "1 min 2.345 s", "2 h 0 min 1.000 s").
  static std::string Duration(unsigned long microseconds);
  // 100-ns ticks since 1601 as "YYYY-MM-DD HH:MM:SS UTC"; "-" for 0.
  static std::string Time(long ticks);
  // The same as an ISO 8601 text ("2024-05-01T10:20:30Z"); "" for 0.
  static std::string IsoTime(long ticks);
};
