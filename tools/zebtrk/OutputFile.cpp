#include "tools/zebtrk/OutputFile.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <mutex>
#include <set>

#include "tools/zebtrk/CliError.h"

namespace {

std::mutex g_lock;  // guards g_unfinished
std::set<std::string>* g_unfinished = new std::set<std::string>();  // never destroyed: used up to _exit

void List(const std::string& path) {
  std::lock_guard<std::mutex> guard(g_lock);
  g_unfinished->insert(path);
}

void Unlist(const std::string& path) {
  std::lock_guard<std::mutex> guard(g_lock);
  g_unfinished->erase(path);
}

// Deletes the temporary and forgets it, keeping errno.
void Discard(const std::string& path) {
  const int error = errno;
  unlink(path.c_str());
  Unlist(path);
  errno = error;
}

}  // namespace

void OutputFile::RemoveUnfinished() {
  std::lock_guard<std::mutex> guard(g_lock);
  for (const std::string& path : *g_unfinished) unlink(path.c_str());
  g_unfinished->clear();
}

OutputFile::OutputFile(const std::string& path) : m_path(path), m_temporary(path + ".part") {
  const int fd = open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) Fail("cannot create");
  List(m_temporary);
  m_stream = fdopen(fd, "wb");
  if (!m_stream) {
    const int error = errno;
    close(fd);
    errno = error;
    Discard(m_temporary);
    Fail("cannot create");
  }
}

OutputFile::~OutputFile() {
  if (!m_stream) return;
  fclose(m_stream);
  Discard(m_temporary);
}

void OutputFile::Write(const void* data, size_t size) {
  if (size != 0 && fwrite(data, 1, size, m_stream) != size) Fail("cannot write");
}

void OutputFile::Commit(bool replace) {
  const bool flushed = fflush(m_stream) == 0 && !ferror(m_stream);
  int error = errno;
  const bool closed = fclose(m_stream) == 0;
  if (flushed && !closed) error = errno;
  m_stream = nullptr;
  if (!flushed || !closed) {
    errno = error;
    Discard(m_temporary);
    Fail("cannot write");
  }
  const int renamed = replace ? rename(m_temporary.c_str(), m_path.c_str())
                              : renameat2(AT_FDCWD, m_temporary.c_str(), AT_FDCWD, m_path.c_str(), RENAME_NOREPLACE);
  if (renamed != 0) {
    const bool exists = errno == EEXIST;
    Discard(m_temporary);
    if (exists) throw CliError(kExitOutput, m_path + " exists already (--force replaces it)");
    Fail("cannot rename the finished file to");
  }
  Unlist(m_temporary);
}

void OutputFile::Fail(const std::string& what) const {
  throw CliError(kExitOutput, what + " " + m_path + ": " + strerror(errno));
}
