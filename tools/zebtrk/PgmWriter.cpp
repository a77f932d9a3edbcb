#include "tools/zebtrk/PgmWriter.h"

std::string PgmWriter::Encode(const uint8_t* frame, unsigned int width, unsigned int height) {
  std::string data = "P5\n" + std::to_string(width) + " " + std::to_string(height) + "\n65535\n";
  const size_t header = data.size();
  const size_t bytes = static_cast<size_t>(width) * height * 2;
  data.resize(header + bytes);
  for (size_t i = 0; i < bytes; i += 2) {
    data[header + i] = static_cast<char>(frame[i + 1]);
    data[header + i + 1] = static_cast<char>(frame[i]);
  }
  return data;
}
