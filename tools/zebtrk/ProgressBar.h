// ProgressBar: a one-line progress display for long exports, redrawn in
// place on a terminal:
//   "export 12-Run A  [#########.........]  450/1000 frames  212 frames/s  0:03 left"
//
// It draws only when enabled (the caller enables it when stderr is a
// terminal and --quiet was not given), at most ten times a second, and
// erases itself on Finish, so piped and redirected output stays clean.
//
// Ownership: borrows the stream. One thread.
#pragma once

#include <chrono>
#include <cstdio>
#include <string>

class ProgressBar {
 public:
  ProgressBar(FILE* stream, std::string label, unsigned long total, bool enabled);
  // Finish().
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  // Reports `done` of `total` units finished.
  void Update(unsigned long done);
  // Erases the bar (once).
  void Finish();

  // The line drawn for `done` of `total` with a bar of `width` cells after
  // `seconds` (rate and time left are shown once seconds > 0 and done > 0).
  static std::string Line(const std::string& label, unsigned long done, unsigned long total, unsigned int width,
                          double seconds = 0);
  // True when `stream` is a terminal.
  static bool IsTerminal(FILE* stream);

 private:
  FILE* m_stream;
  std::string m_label;
  unsigned long m_total;
  bool m_enabled;
  bool m_drawn = false;
  std::chrono::steady_clock::time_point m_start;
  std::chrono::steady_clock::time_point m_lastDraw;
};
