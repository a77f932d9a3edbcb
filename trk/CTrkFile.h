// CTrkFile: one movie on the recorder's drive as a read-only zeb::IFile. Its
// bytes are the movie's frames back to back, each width x height pixels of 16
// bits. The frames never travel over the socket: the file asks the service to
// place one frame at the start of the movie's shared memory segment
// ("ReadFrame") and copies what it needs out of the mapping, remembering which
// frame the segment holds so that reads within one frame cost one request.
//
// Ownership: made by CTrkInterface::OpenFile and held by the caller through a
// zeb::TSharedPtr<zeb::IFile>. The file owns its name and its mapping of the
// segment; the file system and the request client are borrowed and must
// outlive it (the file system lives until the process exits).
//
// Threads: one file is used by one thread at a time. Several files share the
// one request client, whose own lock serialises their requests. Files of the
// same movie (same client and position) also share a read lock, held from a
// frame request until its bytes are copied out, and a count of the frame
// requests sent for the movie: the service may fill every opening of a movie
// on a frame request (it cannot tell openings on one connection apart), so a
// file trusts the frame it holds only while no other file of the movie has
// asked for a frame since.
#pragma once

#include <memory>

#include <zeb/CString.h>
#include <zeb/IFile.h>

#include "client/CTrkClient.h"
#include "ipc/CSharedMemory.h"

namespace zeb {
namespace trk {

class CTrkInterface;
struct STrkMovieReads;

class CTrkFile : public zeb::IFile {
 public:
  // Opens movie `fileId` (its position in the service's movie list) on the
  // service ("OpenMovie") and maps the segment that the service names. Never
  // fails towards the caller: a movie that could not be opened, whose
  // segment is shorter than one frame, or whose dimensions cannot be served
  // (see the definition) gives a file of size 0 from which nothing is read.
  CTrkFile(CTrkInterface* fileSystem, CTrkClient* client, unsigned int fileId,
           zeb::CString filename, unsigned short width, unsigned short height,
           unsigned long numFrames);
  // Close(), then releases the mapping.
  ~CTrkFile() override;
  CTrkFile(const CTrkFile&) = delete;
  CTrkFile& operator=(const CTrkFile&) = delete;

  // A copy of the name given at construction.
  zeb::CString filename() override;
  // The file system that opened the file.
  zeb::IFileSystem* fileSystem() override;
  // Read-only: writes nothing and returns 0.
  unsigned int Write(const void* data, unsigned int count) override;
  // Copies up to `count` bytes from the position into `data`, never past the
  // end of the file, and advances the position by the bytes copied. Returns
  // that number: `count` cut at the end of the file on success; fewer when a
  // frame request fails (the bytes of the frames before it stay copied); 0 at
  // or past the end and for a file that did not open.
  unsigned int Read(void* data, unsigned int count) override;
  // Length in bytes: width x height x numFrames x 2; 0 for a file that did
  // not open.
  long GetSize() override;
  long GetPosition() override;
  // Moves the position (origin 1 from the start, 2 from the current
  // position, 3 from the end), clamped to 0 .. GetSize(), and returns it. Any
  // other origin leaves the position unchanged and returns it.
  long Seek(long offset, unsigned int origin) override;
  // Read-only: changes nothing and returns false.
  bool SetSize(long size) override;
  // Nothing to flush.
  void Flush() override;
  // Closes the movie on the service ("CloseMovie") and returns the service's
  // answer. The mapping stays, so a read within the frame already held still
  // succeeds. Called again by the destructor. A file that never asked to open
  // its movie (unservable dimensions, no client) sends nothing and returns
  // false.
  bool Close() override;
  // True / false: the file is read-only.
  bool canRead() override;
  bool canWrite() override;

 private:
  // Copies `count` bytes from offset `offset` of the frame `frame`,
  // requesting the frame first unless the segment holds it. False, with
  // nothing copied, when the request fails. Called with the movie's read lock
  // held.
  bool CopyFromFrame(unsigned long frame, unsigned long offset, unsigned char* data,
                     unsigned long count);

  CTrkInterface* m_fileSystem;
  CTrkClient* m_client;
  unsigned int m_fileId;
  long m_size;
  long m_position;
  unsigned int m_frameSize;
  zeb::CString m_filename;
  CSharedMemory m_sharedMemory;
  unsigned long m_currentFrame;
  // Whether OpenMovie was sent, so that Close sends CloseMovie only for a
  // movie that this file asked the service to open.
  bool m_openRequested;
  // Shared with the other files of the movie (null when the file did not
  // open); and the movie's request count when this file fetched
  // m_currentFrame.
  std::shared_ptr<STrkMovieReads> m_reads;
  unsigned long m_readsSeen;
};

}  // namespace trk
}  // namespace zeb
