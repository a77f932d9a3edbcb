#include "tools/zebtrk/ProgressBar.h"

#include <unistd.h>

ProgressBar::ProgressBar(FILE* stream, std::string label, unsigned long total, bool enabled)
    : m_stream(stream), m_label(std::move(label)), m_total(total), m_enabled(enabled) {}

ProgressBar::~ProgressBar() { Finish(); }

bool ProgressBar::IsTerminal(FILE* stream) { return isatty(fileno(stream)) == 1; }

std::string ProgressBar::Line(const std::string& label, unsigned long done, unsigned long total, unsigned int width) {
  if (done > total) done = total;
  const unsigned long filled =
      total == 0 ? width : static_cast<unsigned long>(static_cast<double>(done) / static_cast<double>(total) * width);
  std::string line = label + "  [";
  line.append(filled, '#');
  line.append(width - filled, '.');
  line += "]  " + std::to_string(done) + "/" + std::to_string(total) + " frames";
  return line;
}

void ProgressBar::Update(unsigned long done) {
  if (!m_enabled) return;
  const long permille = m_total == 0 ? 1000 : static_cast<long>(done * 1000 / m_total);
  if (permille / 10 == m_lastPermille / 10 && m_drawn) return;
  m_lastPermille = permille;
  fprintf(m_stream, "\r%s\033[K", Line(m_label, done, m_total, 30).c_str());
  fflush(m_stream);
  m_drawn = true;
}

void ProgressBar::Finish() {
  if (!m_drawn) return;
  fprintf(m_stream, "\r\033[K");
  fflush(m_stream);
  m_drawn = false;
}
