// TextFormat: how the tool shows numbers, times and names to a person: byte
// sizes ("58.6 MiB"), durations ("1 min 2.345 s"), times (ISO 8601 with the
// date), names with control characters escaped, and the display width of a
// text in terminal columns.
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
  // The same as ISO 8601 with microseconds ("2024-05-01T10:20:30.250000Z");
  // "" for 0.
  static std::string IsoTime(long ticks);
  // The same in the form of TIFF's DateTime tag ("2024:05:01 10:20:30").
  static std::string TiffTime(long ticks);
  // Frames per second ("30 Hz", "29.97 Hz") of a frame period in ticks; "-"
  // for 0.
  static std::string Rate(long periodTicks);

  // `text` safe to print on a terminal and in one table cell: control
  // characters (C0, DEL, C1) and bytes that are not UTF-8 become "\n", "\t",
  // "\xNN" (an escape sequence in a movie name never reaches the terminal).
  static std::string Escaped(const std::string& text);
  // The columns a terminal gives the UTF-8 `text`: combining marks take
  // none, East Asian wide characters and emoji two, the rest one (an
  // invalid byte one).
  static size_t DisplayWidth(const std::string& text);
};
