#include "tools/zebtrksvc/Connection.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>

#include <zeb/file/SRawImagerInfo.h>

#include "client/TrkProtocol.h"
#include "ipc/strprintf.h"
#include "tools/zebtrksvc/Log.h"
#include "tools/zebtrksvc/StaleSegments.h"

namespace zebtrksvc {
namespace {

// An answer that is an "error": its message is sent as it stands.
class RequestError : public std::runtime_error {
 public:
  explicit RequestError(const std::string& message) : std::runtime_error(message) {}
};

using namespace trkprotocol;

unsigned long long Ull(uint64_t value) { return static_cast<unsigned long long>(value); }

void CheckParams(const Request& request) {
  if (request.params == Request::Params::NotAMap) throw RequestError("\"params\" must be a map");
}

uint64_t RequireUnsigned(const Request& request, const RequestField& field, const char* name) {
  CheckParams(request);
  if (field.kind == RequestField::Kind::Absent) {
    throw RequestError(strprintf("missing parameter \"%s\"", name));
  }
  if (field.kind != RequestField::Kind::Unsigned) {
    throw RequestError(strprintf("parameter \"%s\" must be a non-negative integer", name));
  }
  return field.number;
}

const std::string& RequireText(const Request& request, const RequestField& field, const char* name) {
  CheckParams(request);
  if (field.kind == RequestField::Kind::Absent) {
    throw RequestError(strprintf("missing parameter \"%s\"", name));
  }
  if (field.kind != RequestField::Kind::Text) {
    throw RequestError(strprintf("parameter \"%s\" must be a string", name));
  }
  return field.text;
}

// {"result": {...n entries...}}: the caller writes the entries.
void StartResult(TinyMsgPackWriter& out, uint32_t entries) {
  out.StartMap(1);
  out.WriteString("result", 6);
  out.StartMap(entries);
}

void WriteKey(TinyMsgPackWriter& out, const char* key) { out.WriteString(key, static_cast<size_t>(-1)); }

// Reads `size` bytes at `offset` of `fd` into `into`. Empty on success,
// otherwise what went wrong.
std::string ReadAt(int fd, void* into, uint64_t size, uint64_t offset) {
  unsigned char* next = static_cast<unsigned char*>(into);
  while (size > 0) {
    const ssize_t n = pread(fd, next, size, static_cast<off_t>(offset));
    if (n == -1 && errno == EINTR) continue;
    if (n == -1) return std::strerror(errno);
    if (n == 0) return "the data file is shorter than the movie";
    next += n;
    size -= static_cast<uint64_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return std::string();
}

// True when `pinned` was opened from the data file that `listed` describes
// and reads it with the same layout, so that an opening of `listed` can share
// its segment. The pinned descriptor keeps the inode alive, so device and
// inode cannot have passed to another file; the layout is compared because
// an information file rewritten in place gives the same data file other
// dimensions.
bool SameMovie(const Movie& pinned, const Movie& listed) {
  return pinned.device == listed.device && pinned.inode == listed.inode && pinned.width == listed.width &&
         pinned.height == listed.height && pinned.frames == listed.frames;
}

}  // namespace

Connection::Connection(LocalSocket socket, unsigned id, MovieCatalog& catalog, EventHub& hub)
    : m_id(id),
      m_catalog(catalog),
      m_hub(hub),
      m_socket(std::move(socket)),
      m_input(m_socket.fd()),
      m_requests(&m_input) {}

Connection::~Connection() {
  Stop();
  Join();
}

void Connection::Start() { m_thread = std::thread(&Connection::Run, this); }

void Connection::Stop() {
  std::lock_guard<std::mutex> hold(m_socketLock);
  // Shut down, not closed: the descriptor stays ours until the thread closes
  // it, so this can never reach an unrelated descriptor.
  if (m_socket.connected()) shutdown(m_socket.fd(), SHUT_RDWR);
}

void Connection::Join() {
  if (m_thread.joinable()) m_thread.join();
}

void Connection::Run() {
  Logf("connection %u: opened", m_id);
  Request request;
  while (m_requests.Read(request)) {
    if (!Serve(request)) break;
  }
  if (!m_input.ended()) {
    Logf("connection %u: request is not a map or cannot be decoded; closing", m_id);
  }
  Release();
  {
    std::lock_guard<std::mutex> hold(m_socketLock);
    m_socket.Disconnect();
  }
  Logf("connection %u: closed", m_id);
  m_finished = true;
}

void Connection::Release() {
  size_t segments = 0;
  for (const auto& opening : m_openings) segments += opening.second.movies.size();
  if (segments > 0) Logf("connection %u: releasing %zu open movie segment(s)", m_id, segments);
  m_openings.clear();  // unmaps and removes each segment, closes each data file
  m_hub.DestroyOwnedBy(this);
}

bool Connection::Serve(const Request& request) {
  m_output.clear();
  TinyMsgPackWriter out(&m_output);
  try {
    if (!Dispatch(request, out)) return false;
  } catch (const RequestError& error) {
    Logf("connection %u: error: %s", m_id, error.what());
    m_output.clear();
    out.StartMap(1);
    WriteKey(out, "error");
    out.WriteString(error.what(), static_cast<size_t>(-1));
  } catch (const std::bad_alloc&) {
    m_output.clear();
    out.StartMap(1);
    WriteKey(out, "error");
    WriteKey(out, "out of memory");
  } catch (const std::exception& failure) {
    // Anything else (a framework exception while rescanning, say) fails this
    // request only; the connection and the service go on.
    Logf("connection %u: request failed: %s", m_id, failure.what());
    m_output.clear();
    out.StartMap(1);
    WriteKey(out, "error");
    out.WriteString(strprintf("internal error: %s", failure.what()));
  }
  return Send();
}

bool Connection::Send() {
  const std::vector<unsigned char>& bytes = m_output.bytes();
  return m_socket.Write(bytes.data(), bytes.size()) == bytes.size();
}

bool Connection::Dispatch(const Request& request, TinyMsgPackWriter& out) {
  if (request.act.kind == RequestField::Kind::Absent) throw RequestError("missing \"act\"");
  if (request.act.kind != RequestField::Kind::Text) throw RequestError("\"act\" must be a string");
  if (request.act.text == "verCheck") {
    if (request.ver.kind == RequestField::Kind::Absent) throw RequestError("missing \"ver\"");
    if (request.ver.kind != RequestField::Kind::Unsigned) {
      throw RequestError("\"ver\" must be a non-negative integer");
    }
    Logf("connection %u: version check (client version %llu)", m_id, Ull(request.ver.number));
    StartResult(out, 1);
    WriteKey(out, "ver");
    out.WritePosInteger(kVersion);
    return true;
  }
  if (request.act.text != "exec") {
    throw RequestError(strprintf("unknown act \"%s\"", request.act.text.c_str()));
  }
  if (request.ord.kind == RequestField::Kind::Absent) throw RequestError("missing \"ord\"");
  if (request.ord.kind != RequestField::Kind::Unsigned) {
    throw RequestError("\"ord\" must be a non-negative integer");
  }
  return Execute(request.ord.number, request, out);
}

bool Connection::Execute(uint64_t ordinal, const Request& request, TinyMsgPackWriter& out) {
  switch (ordinal) {
    case kDetectDrive: DetectDrive(out); return true;
    case kListMovies: ListMovies(out); return true;
    case kGetMovieInfo: GetMovieInfo(request, out); return true;
    case kGetMovieIndex: GetMovieIndex(request, out); return true;
    case kOpenMovie: OpenMovie(request, out); return true;
    case kCloseMovie: CloseMovie(request, out); return true;
    case kReadFrame: ReadFrame(request, out); return true;
    case kDeleteMovie: DeleteMovie(request, out); return true;
    case kDeleteAllMovies: DeleteAllMovies(out); return true;
    case kReadInfoFile: ReadInfoFile(request, out); return true;
    case kCreateEventQueue: CreateEventQueue(out); return true;
    case kDestroyEventQueue: DestroyEventQueue(request, out); return true;
    case kReadEventQueue: return ReadEventQueue(request, out);
    default: throw RequestError(strprintf("unknown ordinal %llu", Ull(ordinal)));
  }
}

const Movie& Connection::MovieAt(const MovieCatalog::Snapshot& snapshot, uint64_t index) {
  if (index >= snapshot.movies.size()) throw RequestError(strprintf("no movie at index %llu", Ull(index)));
  return snapshot.movies[index];
}

void Connection::DetectDrive(TinyMsgPackWriter& out) {
  StartResult(out, 1);
  WriteKey(out, "detected");
  out.WriteBool(m_catalog.snapshot()->present);
}

void Connection::ListMovies(TinyMsgPackWriter& out) {
  StartResult(out, 1);
  WriteKey(out, "count");
  out.WritePosInteger(m_catalog.snapshot()->movies.size());
}

void Connection::GetMovieInfo(const Request& request, TinyMsgPackWriter& out) {
  const uint64_t index = RequireUnsigned(request, request.index, "index");
  // Snapshots are immutable: holding one keeps the movie valid, no copy needed.
  const std::shared_ptr<const MovieCatalog::Snapshot> snapshot = m_catalog.snapshot();
  const Movie& movie = MovieAt(*snapshot, index);
  StartResult(out, 1);
  WriteKey(out, "info");
  out.StartMap(10);
  WriteKey(out, "size");
  out.WritePosInteger(movie.sizeValue());
  WriteKey(out, "name");
  out.WriteString(movie.name);
  WriteKey(out, "width");
  out.WritePosInteger(movie.width);
  WriteKey(out, "height");
  out.WritePosInteger(movie.height);
  WriteKey(out, "numFrames");
  out.WritePosInteger(movie.frames);
  WriteKey(out, "number");
  out.WritePosInteger(movie.number);
  WriteKey(out, "rtcTime");
  out.WritePosInteger(movie.rtcTime());
  WriteKey(out, "startTime");
  out.WritePosInteger(movie.startTime());
  WriteKey(out, "endTime");
  out.WritePosInteger(movie.endTime());
  WriteKey(out, "status");
  out.WritePosInteger(0);
}

void Connection::GetMovieIndex(const Request& request, TinyMsgPackWriter& out) {
  const std::string& name = RequireText(request, request.name, "name");
  std::shared_ptr<const MovieCatalog::Snapshot> snapshot = m_catalog.snapshot();
  const std::vector<Movie>& movies = snapshot->movies;
  // The listed name "<number>-<name>" names one movie; a bare name may be
  // shared, and then the first in list order answers.
  size_t found = movies.size();
  for (size_t i = 0; i < movies.size() && found == movies.size(); ++i) {
    if (movies[i].stem == name) found = i;
  }
  for (size_t i = 0; i < movies.size() && found == movies.size(); ++i) {
    if (movies[i].name == name) found = i;
  }
  if (found == movies.size()) throw RequestError(strprintf("no movie named \"%s\"", name.c_str()));
  StartResult(out, 1);
  WriteKey(out, "index");
  out.WritePosInteger(found);
}

std::unique_ptr<Connection::PinnedMovie> Connection::Pin(const Movie& movie, uint64_t fileId) {
  auto pinned = std::make_unique<PinnedMovie>();
  pinned->movie = movie;
  pinned->data.reset(open(movie.dataPath.c_str(), O_RDONLY | O_CLOEXEC));
  if (!pinned->data.valid()) {
    throw RequestError(strprintf("cannot open movie %llu: %s", Ull(fileId), std::strerror(errno)));
  }
  // The pinned file must still be the listed one (not replaced meanwhile),
  // or frames would be read with another movie's dimensions.
  struct stat status;
  if (fstat(pinned->data.get(), &status) != 0 || status.st_dev != movie.device || status.st_ino != movie.inode) {
    throw RequestError(strprintf("cannot open movie %llu: it changed on the drive", Ull(fileId)));
  }
  // Frames are copied out of a mapping of the data file (see FileMapping);
  // where the file cannot be mapped they are read with pread instead.
  pinned->mapping.Map(pinned->data.get(), static_cast<uint64_t>(status.st_size));
  if (!pinned->segment.CreateRandom(StaleSegments::OwnPrefix().c_str(), movie.frameBytes())) {
    throw RequestError(strprintf("cannot make a shared memory segment for movie %llu: %s", Ull(fileId),
                                 std::strerror(errno)));
  }
  return pinned;
}

void Connection::OpenMovie(const Request& request, TinyMsgPackWriter& out) {
  const uint64_t fileId = RequireUnsigned(request, request.fileId, "fileId");
  const std::shared_ptr<const MovieCatalog::Snapshot> snapshot = m_catalog.snapshot();
  const Movie& listed = MovieAt(*snapshot, fileId);
  const auto found = m_openings.find(fileId);
  if (found != m_openings.end()) {
    for (const auto& pinned : found->second.movies) {
      if (!SameMovie(pinned->movie, listed)) continue;
      StartResult(out, 1);
      WriteKey(out, "mapping");
      out.WriteString(pinned->segment.name());
      ++found->second.references;
      Logf("connection %u: opened movie %llu \"%s\" again, in segment %s (%llu openings)", m_id, Ull(fileId),
           listed.stem.c_str(), pinned->segment.name().c_str(), Ull(found->second.references));
      return;
    }
  }
  // A movie not open under this fileId yet (or no longer the one that the
  // fileId named when it was opened before): a segment of its own. The answer
  // is written before anything is kept, so a failure leaves nothing behind.
  std::unique_ptr<PinnedMovie> pinned = Pin(listed, fileId);
  StartResult(out, 1);
  WriteKey(out, "mapping");
  out.WriteString(pinned->segment.name());
  Logf("connection %u: opened movie %llu \"%s\" in segment %s", m_id, Ull(fileId), listed.stem.c_str(),
       pinned->segment.name().c_str());
  const auto [opening, made] = m_openings.try_emplace(fileId);
  try {
    opening->second.movies.push_back(std::move(pinned));
  } catch (...) {
    if (made) m_openings.erase(opening);
    throw;
  }
  ++opening->second.references;
}

void Connection::CloseMovie(const Request& request, TinyMsgPackWriter& out) {
  const uint64_t fileId = RequireUnsigned(request, request.fileId, "fileId");
  const auto found = m_openings.find(fileId);
  if (found == m_openings.end()) {
    throw RequestError(strprintf("movie %llu is not open on this connection", Ull(fileId)));
  }
  StartResult(out, 0);
  Opening& opening = found->second;
  if (--opening.references > 0) {
    Logf("connection %u: closed movie %llu (%llu openings left)", m_id, Ull(fileId), Ull(opening.references));
    return;
  }
  for (const auto& pinned : opening.movies) {
    Logf("connection %u: closed movie %llu (segment %s)", m_id, Ull(fileId), pinned->segment.name().c_str());
  }
  m_openings.erase(found);  // unmaps and removes the segments, closes the data files
}

void Connection::Fill(PinnedMovie& pinned, uint64_t fileId, uint64_t frame) {
  const Movie& movie = pinned.movie;
  // Straight from the file into the segment: no buffer in between.
  const std::string failure =
      pinned.mapping.mapped()
          ? pinned.mapping.CopyOut(pinned.segment.data(), movie.frameBytes(), movie.frameOffset(frame))
          : ReadAt(pinned.data.get(), pinned.segment.data(), movie.frameBytes(), movie.frameOffset(frame));
  if (!failure.empty()) {
    throw RequestError(
        strprintf("cannot read frame %llu of movie %llu: %s", Ull(frame), Ull(fileId), failure.c_str()));
  }
}

// With one movie under the fileId (the usual case) this is one copy into
// one segment. With several, each segment gets the frame of its own movie, as
// far as that movie reaches: the request cannot say whose file asked, and a
// file asks only for frames of its own movie. The frame is past the end only
// when it is past the end of all of them.
void Connection::ReadFrame(const Request& request, TinyMsgPackWriter& out) {
  const uint64_t fileId = RequireUnsigned(request, request.fileId, "fileId");
  const uint64_t frame = RequireUnsigned(request, request.frameNumber, "frameNumber");
  const auto found = m_openings.find(fileId);
  if (found == m_openings.end()) {
    throw RequestError(strprintf("movie %llu is not open on this connection", Ull(fileId)));
  }
  const std::vector<std::unique_ptr<PinnedMovie>>& movies = found->second.movies;
  uint32_t frames = 0;
  for (const auto& pinned : movies) frames = std::max(frames, pinned->movie.frames);
  if (frame >= frames) {
    throw RequestError(strprintf("frame %llu is past the end of movie %llu (%u frames)", Ull(frame),
                                 Ull(fileId), frames));
  }
  for (auto it = movies.rbegin(); it != movies.rend(); ++it) {
    if (frame < (*it)->movie.frames) Fill(**it, fileId, frame);
  }
  StartResult(out, 0);
}

void Connection::DeleteMovie(const Request& request, TinyMsgPackWriter& out) {
  const uint64_t fileId = RequireUnsigned(request, request.fileId, "fileId");
  std::string error;
  if (!m_catalog.Delete(fileId, error)) throw RequestError(error);
  Logf("connection %u: deleted movie %llu", m_id, Ull(fileId));
  StartResult(out, 0);
}

void Connection::DeleteAllMovies(TinyMsgPackWriter& out) {
  std::string error;
  if (!m_catalog.DeleteAll(error)) throw RequestError(error);
  Logf("connection %u: deleted all movies", m_id);
  StartResult(out, 0);
}

void Connection::ReadInfoFile(const Request& request, TinyMsgPackWriter& out) {
  const uint64_t fileId = RequireUnsigned(request, request.fileId, "fileId");
  const Movie movie = MovieAt(*m_catalog.snapshot(), fileId);
  UniqueFd file(open(movie.infoPath.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat status;
  if (!file.valid() || fstat(file.get(), &status) != 0) {
    throw RequestError(strprintf("cannot read the information file of movie %llu: %s", Ull(fileId),
                                 std::strerror(errno)));
  }
  // The framework reads no larger information file, so no movie has one.
  if (static_cast<uint64_t>(status.st_size) > zeb::file::SRawImagerInfo::kMaxInfoBytes) {
    throw RequestError(strprintf("the information file of movie %llu is larger than 1 MiB", Ull(fileId)));
  }
  m_infoBytes.resize(static_cast<size_t>(status.st_size));
  size_t length = 0;
  while (length < m_infoBytes.size()) {
    const ssize_t n = read(file.get(), m_infoBytes.data() + length, m_infoBytes.size() - length);
    if (n == -1 && errno == EINTR) continue;
    if (n == -1) {
      throw RequestError(strprintf("cannot read the information file of movie %llu: %s", Ull(fileId),
                                   std::strerror(errno)));
    }
    if (n == 0) break;  // shortened meanwhile: send what is there
    length += static_cast<size_t>(n);
  }
  StartResult(out, 1);
  WriteKey(out, "data");
  out.WriteBlob(m_infoBytes.data(), static_cast<uint32_t>(length));
}

void Connection::CreateEventQueue(TinyMsgPackWriter& out) {
  const uint32_t id = m_hub.Create(this);
  Logf("connection %u: created event queue %u", m_id, id);
  StartResult(out, 1);
  WriteKey(out, "queueId");
  out.WritePosInteger(id);
}

void Connection::DestroyEventQueue(const Request& request, TinyMsgPackWriter& out) {
  const uint64_t id = RequireUnsigned(request, request.queueId, "queueId");
  if (id > 0xFFFFFFFFu || !m_hub.Destroy(static_cast<uint32_t>(id))) {
    throw RequestError(strprintf("no event queue %llu", Ull(id)));
  }
  Logf("connection %u: destroyed event queue %llu", m_id, Ull(id));
  StartResult(out, 0);
}

bool Connection::ReadEventQueue(const Request& request, TinyMsgPackWriter& out) {
  const uint64_t id = RequireUnsigned(request, request.queueId, "queueId");
  uint32_t type = 0;
  EventHub::WaitResult result = EventHub::WaitResult::NoQueue;
  if (id <= 0xFFFFFFFFu) result = m_hub.Wait(static_cast<uint32_t>(id), type, [this] { return PeerGone(); });
  switch (result) {
    case EventHub::WaitResult::NoQueue:
      throw RequestError(strprintf("no event queue %llu", Ull(id)));
    case EventHub::WaitResult::Abandoned:
      return false;  // the client left while waiting
    case EventHub::WaitResult::Closed:
      type = 0;
      break;
    case EventHub::WaitResult::Event:
      break;
  }
  Logf("connection %u: event %u from queue %llu", m_id, type, Ull(id));
  StartResult(out, 1);
  WriteKey(out, "event");
  out.StartMap(2);
  WriteKey(out, "type");
  out.WritePosInteger(type);
  WriteKey(out, "drive");
  out.WritePosInteger(0);
  return true;
}

bool Connection::PeerGone() const {
  pollfd watched = {m_socket.fd(), 0, 0};
  // POLLHUP: both directions are shut, i.e. the client closed its socket.
  return poll(&watched, 1, 0) == 1 && (watched.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0;
}

}  // namespace zebtrksvc
