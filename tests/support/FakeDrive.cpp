#include "tests/support/FakeDrive.h"

#include <utility>

namespace testsupport {

unsigned char PatternByte(unsigned int fileId, unsigned long frame, size_t offset) {
  return static_cast<unsigned char>(fileId * 131 + frame * 31 + offset * 7 + (offset >> 8));
}

FakeDrive::FakeDrive(FakeService& fake) : m_fake(fake) {
  m_fake.SetHandler([this](const Request& request) { return Answer(request); });
}

FakeDrive::~FakeDrive() {
  Close();
  m_fake.Stop();
  m_fake.SetHandler(nullptr);
}

void FakeDrive::SetMovies(std::vector<Movie> movies) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_movies = std::move(movies);
}

void FakeDrive::SetDrive(bool present) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_drive = present;
}

void FakeDrive::SetWriteFrames(bool write) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_writeFrames = write;
}

void FakeDrive::FaultOnce(long long ord, Reply reply) {
  std::lock_guard<std::mutex> guard(m_mutex);
  m_once[ord].push_back(std::move(reply));
}

void FakeDrive::FaultAlways(long long ord, std::optional<Reply> reply) {
  std::lock_guard<std::mutex> guard(m_mutex);
  if (reply) {
    m_always.insert_or_assign(ord, *reply);
  } else {
    m_always.erase(ord);
  }
}

void FakeDrive::Post(unsigned int type, unsigned int count) {
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_events.insert(m_events.end(), count, type);
  }
  m_changed.notify_all();
}

void FakeDrive::Close() {
  {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_closed = true;
  }
  m_changed.notify_all();
}

size_t FakeDrive::OpenSegments() const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return m_openings.size();
}

long FakeDrive::Count(long long ord) const { return static_cast<long>(Sent(ord).size()); }

std::vector<long long> FakeDrive::Sent(long long ord, const char* key) const {
  std::vector<long long> values;
  for (const Request& request : m_fake.Requests()) {
    if (request.act() == "exec" && request.ord() == ord) values.push_back(request.param(key));
  }
  return values;
}

std::vector<long long> FakeDrive::Ords() const {
  std::vector<long long> ords;
  for (const Request& request : m_fake.Requests()) {
    if (request.act() == "exec") ords.push_back(request.ord());
  }
  return ords;
}

bool FakeDrive::WaitFor(long long ord, long n) const {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  for (;;) {
    const size_t seen = m_fake.RequestCount();
    if (Count(ord) >= n) return true;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0 || !m_fake.WaitForRequests(seen + 1, left)) return Count(ord) >= n;
  }
}

std::string FakeDrive::Path(size_t i) const {
  std::lock_guard<std::mutex> guard(m_mutex);
  return "/" + std::to_string(m_movies.at(i).number) + "-" + m_movies.at(i).name;
}

TinyMsgPackObject FakeDrive::Info(const Movie& movie) {
  return FakeService::Map({{"size", 1u},
                           {"name", movie.name},
                           {"width", static_cast<unsigned int>(movie.width)},
                           {"height", static_cast<unsigned int>(movie.height)},
                           {"numFrames", movie.frames},
                           {"number", movie.number},
                           {"rtcTime", 0u},
                           {"startTime", 0u},
                           {"endTime", 0u},
                           {"status", 0u}});
}

FakeDrive::Reply FakeDrive::Answer(const Request& request) {
  std::unique_lock<std::mutex> guard(m_mutex);
  const long long ord = request.ord();
  auto once = m_once.find(ord);
  if (once != m_once.end() && !once->second.empty()) {
    Reply reply = once->second.front();
    once->second.pop_front();
    return reply;
  }
  auto always = m_always.find(ord);
  if (always != m_always.end()) return always->second;

  const long long fileId = request.param("fileId");
  switch (ord) {
    case kDetect:
      return Reply::Result({{"detected", m_drive}});
    case kList:
      return Reply::Result({{"count", static_cast<unsigned long>(m_movies.size())}});
    case kInfo: {
      const long long index = request.param("index");
      if (index < 0 || static_cast<size_t>(index) >= m_movies.size()) return Reply::Error("no movie at index");
      return Reply::Result({{"info", Info(m_movies[static_cast<size_t>(index)])}});
    }
    case kOpen:
      return OpenMovie(static_cast<unsigned int>(fileId));
    case kClose:
      return CloseMovie(static_cast<unsigned int>(fileId));
    case kFrame:
      return ReadFrame(static_cast<unsigned int>(fileId), static_cast<unsigned long>(request.param("frameNumber")));
    case kDelete:
      if (fileId < 0 || static_cast<size_t>(fileId) >= m_movies.size()) return Reply::Error("no movie at index");
      m_movies.erase(m_movies.begin() + fileId);
      return Reply::Result();
    case kReadInfo:
      return Reply::Result({{"data", FakeService::Blob({'w', '=', '4'})}});
    case kCreateQueue:
      // A new queue: nothing destroyed, nothing queued yet.
      m_destroyed = false;
      m_events.clear();
      return Reply::Result({{"queueId", kQueueId}});
    case kDestroyQueue:
      m_destroyed = true;
      m_changed.notify_all();
      return Reply::Result();
    case kReadQueue:
      return ReadEvent(guard);
    default:
      return Reply::Error("unknown ordinal");
  }
}

FakeDrive::Reply FakeDrive::OpenMovie(unsigned int fileId) {
  if (fileId >= m_movies.size()) return Reply::Error("no movie at index");
  const Movie& movie = m_movies[fileId];
  const size_t bytes = movie.segmentBytes ? movie.segmentBytes : size_t{movie.width} * movie.height * 2;
  std::unique_ptr<Opening> opening(new Opening{fileId, CSharedMemory()});
  if (!opening->segment.CreateRandom("zebtrk-fake-", bytes)) return Reply::Error("no segment");
  const std::string name = opening->segment.name();
  m_openings.push_back(std::move(opening));
  return Reply::Result({{"mapping", name}});
}

FakeDrive::Reply FakeDrive::ReadFrame(unsigned int fileId, unsigned long frame) {
  if (fileId >= m_movies.size() || frame >= m_movies[fileId].frames) return Reply::Error("no such frame");
  if (!m_writeFrames) return Reply::Result();
  const size_t frameBytes = size_t{m_movies[fileId].width} * m_movies[fileId].height * 2;
  for (const std::unique_ptr<Opening>& opening : m_openings) {
    if (opening->fileId != fileId) continue;
    unsigned char* data = static_cast<unsigned char*>(opening->segment.data());
    for (size_t i = 0; i < frameBytes && i < opening->segment.size(); ++i) data[i] = PatternByte(fileId, frame, i);
  }
  return Reply::Result();
}

FakeDrive::Reply FakeDrive::CloseMovie(unsigned int fileId) {
  for (auto it = m_openings.begin(); it != m_openings.end(); ++it) {
    if ((*it)->fileId != fileId) continue;
    m_openings.erase(it);
    return Reply::Result();
  }
  return Reply::Error("movie not open");
}

FakeDrive::Reply FakeDrive::ReadEvent(std::unique_lock<std::mutex>& guard) {
  m_changed.wait(guard, [&] { return !m_events.empty() || m_destroyed || m_closed; });
  if (m_closed) return Reply::Close();  // the service is going away
  // A destroyed queue answers type 0 at once, also with events still queued.
  if (m_destroyed) return Reply::Result({{"event", FakeService::Map({{"type", 0u}, {"drive", 0u}})}});
  if (!m_events.empty()) {
    const unsigned int type = m_events.front();
    m_events.pop_front();
    return Reply::Result({{"event", FakeService::Map({{"type", type}, {"drive", 0u}})}});
  }
  return Reply::Error("no event");  // not reached: the wait ends on one of the above
}

}  // namespace testsupport
