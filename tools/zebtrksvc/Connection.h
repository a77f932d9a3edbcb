// Connection: serves one client of the movie service: reads its requests one
// after another, answers each with one map written in one piece, and owns the
// client's open movies (a shared memory segment per open movie) and its event
// queues.
//
// Requests are decoded straight from the socket (RequestReader); a request
// that is not a map or cannot be decoded closes the connection, while every
// other fault (unknown "act" or ordinal, a missing or mistyped parameter, a
// "fileId" that names no movie) is answered with an "error" string and the
// connection goes on. When the client goes away (or the service stops) the
// connection releases its segments and destroys its event queues.
//
// Open movies: the protocol names an opening only by its fileId, so the
// openings of one fileId on a connection (two files of one movie in one
// client) cannot be told apart, and they share: OpenMovie of a fileId already
// open here answers the same one-frame segment, ReadFrame fills it once,
// CloseMovie drops one reference and the segment goes with the last. An
// opening pins the movie's data file, so reads go on from the same file even
// when the movie list changes or the movie is deleted meanwhile. When the
// fileId names another movie by the time it is opened again (the list
// shifted), that movie gets a segment of its own beside the first, and
// ReadFrame fills each movie's segment from its own file: the files of both
// read right frames. All of a fileId's segments live until its last opening
// closes, since a CloseMovie cannot say whose file it ends.
//
// Threads: the connection runs its own thread (Start .. Join). Stop may be
// called from any thread: it shuts the socket down, which ends a receive or
// send in progress; a wait for an event ends through EventHub::Shutdown.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ipc/CSharedMemory.h"
#include "ipc/LocalSocket.h"
#include "msgpack/MemoryStream.h"
#include "msgpack/TinyMsgPackWriter.h"
#include "tools/zebtrksvc/EventHub.h"
#include "tools/zebtrksvc/FileMapping.h"
#include "tools/zebtrksvc/Movie.h"
#include "tools/zebtrksvc/MovieCatalog.h"
#include "tools/zebtrksvc/RequestReader.h"
#include "tools/zebtrksvc/SocketInput.h"
#include "tools/zebtrksvc/UniqueFd.h"

namespace zebtrksvc {

class Connection {
 public:
  // Takes the accepted socket; `id` only names the connection in log lines.
  Connection(LocalSocket socket, unsigned id, MovieCatalog& catalog, EventHub& hub);
  // Stops and joins the thread if it still runs.
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // Starts serving on a new thread. Throws std::system_error when the thread
  // cannot be started.
  void Start();
  // Asks the connection to end (any thread).
  void Stop();
  // Waits for the thread to end.
  void Join();
  // True once the thread has released everything and closed the socket.
  bool finished() const { return m_finished; }

 private:
  // One movie open under a fileId: its pinned data file and its segment.
  struct PinnedMovie {
    Movie movie;
    UniqueFd data;
    FileMapping mapping;  // of `data`; empty when it could not be mapped
    CSharedMemory segment;
  };
  // Everything open under one fileId: the OpenMovie calls not yet closed,
  // and the movies they opened (one, unless the list shifted between them),
  // oldest first.
  struct Opening {
    uint64_t references = 0;
    std::vector<std::unique_ptr<PinnedMovie>> movies;
  };

  void Run();
  // Answers one request; false when the connection must close.
  bool Serve(const Request& request);
  // Writes the answer into m_output; false to close without an answer.
  // Throws RequestError for answers that are errors.
  bool Dispatch(const Request& request, TinyMsgPackWriter& out);
  bool Execute(uint64_t ordinal, const Request& request, TinyMsgPackWriter& out);

  void DetectDrive(TinyMsgPackWriter& out);
  void ListMovies(TinyMsgPackWriter& out);
  void GetMovieInfo(const Request& request, TinyMsgPackWriter& out);
  void GetMovieIndex(const Request& request, TinyMsgPackWriter& out);
  void OpenMovie(const Request& request, TinyMsgPackWriter& out);
  void CloseMovie(const Request& request, TinyMsgPackWriter& out);
  void ReadFrame(const Request& request, TinyMsgPackWriter& out);
  void DeleteMovie(const Request& request, TinyMsgPackWriter& out);
  void DeleteAllMovies(TinyMsgPackWriter& out);
  void ReadInfoFile(const Request& request, TinyMsgPackWriter& out);
  void CreateEventQueue(TinyMsgPackWriter& out);
  void DestroyEventQueue(const Request& request, TinyMsgPackWriter& out);
  bool ReadEventQueue(const Request& request, TinyMsgPackWriter& out);

  // The movie at `index` of `snapshot`; throws "no movie at index N".
  static const Movie& MovieAt(const MovieCatalog::Snapshot& snapshot, uint64_t index);
  // Pins the data file of `movie` (listed at `fileId`) and makes its segment.
  // Throws RequestError when the file cannot be opened or has been replaced,
  // or no segment can be made.
  static std::unique_ptr<PinnedMovie> Pin(const Movie& movie, uint64_t fileId);
  // Copies `frame` of `pinned`'s movie into its segment. Throws RequestError
  // when the data file cannot give it.
  static void Fill(PinnedMovie& pinned, uint64_t fileId, uint64_t frame);
  // Sends m_output with one write; false when it did not go out whole.
  bool Send();
  // True when the client has closed its end (checked while waiting).
  bool PeerGone() const;
  // Releases every opening and destroys the connection's event queues.
  void Release();

  const unsigned m_id;
  MovieCatalog& m_catalog;
  EventHub& m_hub;
  LocalSocket m_socket;
  std::mutex m_socketLock;  // between Stop() and the thread closing m_socket
  SocketInput m_input;
  RequestReader m_requests;
  MemoryStream m_output;                 // the answer being built, reused
  std::vector<unsigned char> m_infoBytes;  // ReadInfoFile's buffer, reused
  std::map<uint64_t, Opening> m_openings;  // by fileId
  std::thread m_thread;
  std::atomic<bool> m_finished{false};
};

}  // namespace zebtrksvc
