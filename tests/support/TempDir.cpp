#include "tests/support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

#include <ftw.h>
#include <stdio.h>

namespace testsupport {

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); }

}  // namespace

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/zebtrk-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) {
    ADD_FAILURE() << "mkdtemp failed for " << pattern;
    return;
  }
  m_path = buffer.data();
}

TempDir::~TempDir() {
  if (!m_path.empty()) nftw(m_path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

bool WriteFile(const std::string& path, const void* data, size_t size) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(static_cast<const char*>(data), static_cast<std::streamsize>(size));
  return static_cast<bool>(out);
}

bool WriteFile(const std::string& path, const std::string& text) { return WriteFile(path, text.data(), text.size()); }

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace testsupport
