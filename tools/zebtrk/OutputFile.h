// OutputFile: a file written under a temporary name ("<path>.part") and
// renamed to its final path by Commit, so that an export that fails or is
// interrupted never leaves a truncated file under a real name.
//
// Every temporary is also listed process-wide until it is committed or
// deleted, so that a command that must end at once (a silent service, a
// second Ctrl-C) removes them all with RemoveUnfinished before it exits.
//
// Ownership: owns the stdio stream and the temporary file; the destructor of
// an uncommitted file closes and deletes the temporary. One thread per
// object; RemoveUnfinished from any thread.
#pragma once

#include <cstdio>
#include <string>

class OutputFile {
 public:
  // Creates "<path>.part" (replacing one left over). Failure: CliError
  // kExitOutput naming the path and the system's reason.
  explicit OutputFile(const std::string& path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // The stream to write to (valid until Commit).
  FILE* stream() const { return m_stream; }
  const std::string& path() const { return m_path; }
  // "<path>.part": for writers that open the file by name (libtiff).
  const std::string& temporaryPath() const { return m_temporary; }

  // Writes `size` bytes. Failure: CliError kExitOutput.
  void Write(const void* data, size_t size);
  // Flushes, closes and renames to the final path; an existing file there is
  // replaced only with `replace`. Failure (a write error that showed late,
  // such as a full disk, or a file that appeared at the path meanwhile):
  // CliError kExitOutput, and the temporary is deleted.
  void Commit(bool replace = true);
  // Deletes the temporaries of every OutputFile not committed yet (the
  // objects stay; their destructors find nothing left to delete).
  static void RemoveUnfinished();
  // Throws CliError kExitOutput for the last system error, naming the file.
  [[noreturn]] void Fail(const std::string& what) const;

 private:
  std::string m_path;
  std::string m_temporary;
  FILE* m_stream = nullptr;
};
