// TempDir: a fresh directory under $TMPDIR (or /tmp) that is removed with
// everything in it when the object is destroyed. Used for drives of the
// simulator and for a temporary HOME.
//
// Not copyable; one owner. Construction aborts the test (ADD_FAILURE) when no
// directory can be made, leaving path() empty.
#pragma once

#include <string>

namespace testsupport {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return m_path; }
  // path() joined with a relative name.
  std::string operator/(const std::string& name) const { return m_path + "/" + name; }

 private:
  std::string m_path;
};

// Writes `size` bytes of `data` to `path`, replacing it. True on success.
bool WriteFile(const std::string& path, const void* data, size_t size);
bool WriteFile(const std::string& path, const std::string& text);
// Reads a whole file; empty when it cannot be read.
std::string ReadFile(const std::string& path);

}  // namespace testsupport
