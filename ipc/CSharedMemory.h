// CSharedMemory: one mapping of a POSIX shared memory segment "/<name>". It
// creates a new segment (as owner, removing it again on Close), creates one
// under a random free name, or opens an existing one by name.
//
// Ownership: the object owns its descriptor and its mapping, and, when it
// created the segment, the segment itself. Movable, not copyable; a moved-from
// object is closed with an empty name, not owner and size 0, and touches no
// segment when destroyed.
//
// Threads: no lock; one thread at a time per object. When the contents of the
// mapping are valid is settled by the protocol with the other process.
#pragma once

#include <cstddef>
#include <string>

class CSharedMemory {
 public:
  // A flag set accepted by Create and CreateRandom; no value changes what they
  // do, any value is passed through.
  enum EFlags : unsigned {};

  // Closed: empty name, descriptor -1, not owner, no mapping, size 0.
  CSharedMemory();
  // Takes every member; `other` is left closed, with an empty name, not owner
  // and size 0.
  CSharedMemory(CSharedMemory&& other) noexcept;
  // Closes this object first (unless `other` is this object), then takes
  // every member as the move constructor does.
  CSharedMemory& operator=(CSharedMemory&& other) noexcept;
  CSharedMemory(const CSharedMemory&) = delete;
  CSharedMemory& operator=(const CSharedMemory&) = delete;
  // Close().
  ~CSharedMemory();

  // Makes a new segment "/<name>" of `size` bytes with mode 0666 and maps it
  // read-write, as its owner. Success: true, name() is `name`, size() is
  // `size`. Failure (the name exists, `size` is 0, any call failed): false,
  // closed, no segment of ours left behind, an existing one untouched, errno as
  // the failed call set it.
  bool Create(const char* name, size_t size, EFlags flags = EFlags());
  // Create under the name `prefix` followed by 1 to 4 upper-case hexadecimal
  // digits (the low 16 bits of rand(), no leading zeros), trying up to 10000
  // names; every kind of failure is retried. Success: true, name() holds the
  // chosen name. Failure: false, closed. Never seeds rand().
  bool CreateRandom(const char* prefix, size_t size, EFlags flags = EFlags());
  // Maps the existing segment "/<name>" read-write at its full size, not as
  // owner. Success: true, size() is the segment's size. Failure (no such
  // segment, size 0, any call failed): false, closed, the segment left alone.
  bool Open(const char* name);
  // Unmaps, closes, and removes the segment when this object created it.
  // name() and size() keep reporting the closed segment; data() is null.
  // Harmless when already closed.
  void Close();

  std::string name() const { return m_name; }
  void* data() const { return m_data; }
  size_t size() const { return m_size; }

 private:
  std::string m_name;
  int m_fd;
  bool m_owner;
  void* m_data;
  size_t m_size;
};
