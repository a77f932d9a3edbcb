// FileMapping: a read-only mapping of a whole movie data file, from which
// ReadFrame copies frames into their segment.
//
// Why a mapping rather than pread: pread copies in the kernel page by page,
// looking each page up in the page cache; the mapping's page tables are set up
// once, after which a frame is one plain memcpy, which is what a frame read of
// the plug-in waits for (about twice as fast for megabyte frames read again).
//
// A file that shrinks while mapped (rewritten in place) would make the copy
// fault with SIGBUS; CopyOut catches that in the copying thread and reports
// the shortened file instead of ending the service. The handler is installed
// once per process and passes any other SIGBUS on to the default action.
//
// Ownership: owns the mapping (unmapped on destruction); the descriptor it
// was made from stays the caller's. Movable, not copyable. Threads: CopyOut
// may run in several threads at once (each guards its own copy).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace zebtrksvc {

class FileMapping {
 public:
  FileMapping() = default;
  FileMapping(FileMapping&& other) noexcept;
  FileMapping& operator=(FileMapping&& other) noexcept;
  FileMapping(const FileMapping&) = delete;
  FileMapping& operator=(const FileMapping&) = delete;
  ~FileMapping() { Reset(); }

  // Maps the first `size` bytes of `fd` read-only. True on success; false
  // (nothing mapped) when `size` is 0 or mmap fails, errno as mmap left it.
  bool Map(int fd, uint64_t size);
  // True while something is mapped.
  bool mapped() const { return m_data != nullptr; }
  uint64_t size() const { return m_size; }

  // Copies `size` bytes at `offset` of the file into `into`. Empty on
  // success; otherwise what went wrong ("the data file is shorter than the
  // movie", as pread would find), with `into` partly written.
  std::string CopyOut(void* into, uint64_t size, uint64_t offset) const;

 private:
  void Reset();

  void* m_data = nullptr;
  uint64_t m_size = 0;
};

}  // namespace zebtrksvc
