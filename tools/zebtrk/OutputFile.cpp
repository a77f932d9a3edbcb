#include "tools/zebtrk/OutputFile.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include "tools/zebtrk/CliError.h"

OutputFile::OutputFile(const std::string& path) : m_path(path), m_temporary(path + ".part") {
  const int fd = open(m_temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) Fail("cannot create");
  m_stream = fdopen(fd, "wb");
  if (!m_stream) {
    const int error = errno;
    close(fd);
    unlink(m_temporary.c_str());
    errno = error;
    Fail("cannot create");
  }
}

OutputFile::~OutputFile() {
  if (!m_stream) return;
  fclose(m_stream);
  unlink(m_temporary.c_str());
}

void OutputFile::Write(const void* data, size_t size) {
  if (size != 0 && fwrite(data, 1, size, m_stream) != size) Fail("cannot write");
}

void OutputFile::Commit() {
  const bool flushed = fflush(m_stream) == 0 && !ferror(m_stream);
  int error = errno;
  const bool closed = fclose(m_stream) == 0;
  if (flushed && !closed) error = errno;
  m_stream = nullptr;
  if (!flushed || !closed) {
    unlink(m_temporary.c_str());
    errno = error;
    Fail("cannot write");
  }
  if (rename(m_temporary.c_str(), m_path.c_str()) != 0) {
    error = errno;
    unlink(m_temporary.c_str());
    errno = error;
    Fail("cannot rename the finished file to");
  }
}

void OutputFile::Fail(const std::string& what) const {
  throw CliError(kExitOutput, what + " " + m_path + ": " + strerror(errno));
}
