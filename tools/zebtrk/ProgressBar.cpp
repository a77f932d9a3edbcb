#include "tools/zebtrk/ProgressBar.h"

#include <unistd.h>

ProgressBar::ProgressBar(FILE* stream, std::string label, unsigned long total, bool enabled)
    : m_stream(stream), m_label(std::move(label)), m_total(total), m_enabled(enabled),
      m_start(std::chrono::steady_clock::now()) {}

ProgressBar::~ProgressBar() { Finish(); }

bool ProgressBar::IsTerminal(FILE* stream) { return isatty(fileno(stream)) == 1; }

std::string ProgressBar::Line(const std::string& label, unsigned long done, unsigned long total, unsigned int width,
                              double seconds) {
  if (done > total) done = total;
  const unsigned long filled =
      total == 0 ? width : static_cast<unsigned long>(static_cast<double>(done) / static_cast<double>(total) * width);
  std::string line = label + "  [";
  line.append(filled, '#');
  line.append(width - filled, '.');
  line += "]  " + std::to_string(done) + "/" + std::to_string(total) + " frames";
  if (seconds > 0 && done > 0) {
    const double rate = static_cast<double>(done) / seconds;
    const unsigned long left = static_cast<unsigned long>(static_cast<double>(total - done) / rate + 0.5);
    char text[64];
    snprintf(text, sizeof(text), "  %.0f frames/s  %lu:%02lu left", rate, left / 60, left % 60);
    line += text;
  }
  return line;
}

void ProgressBar::Update(unsigned long done) {
  if (!m_enabled) return;
  const auto now = std::chrono::steady_clock::now();
  if (m_drawn && done < m_total && now - m_lastDraw < std::chrono::milliseconds(100)) return;
  m_lastDraw = now;
  const double seconds = std::chrono::duration<double>(now - m_start).count();
  fprintf(m_stream, "\r%s\033[K", Line(m_label, done, m_total, 30, seconds).c_str());
  fflush(m_stream);
  m_drawn = true;
}

void ProgressBar::Finish() {
  if (!m_drawn) return;
  fprintf(m_stream, "\r\033[K");
  fflush(m_stream);
  m_drawn = false;
}
