#include "client/CTrkClient.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

#include <zeb/CAutoLock.h>

#include "client/TrkProtocol.h"

namespace {

using namespace trkprotocol;

const auto kNoParams = [] {};
// Commands that return nothing succeed on any response without an error;
// "result" is not looked at.
const auto kNoResults = [](const TinyMsgPackObject&) { return true; };

const TinyMsgPackObject& Results(const TinyMsgPackObject& response) { return response.valueForKey("result"); }

// The value under `key`, which must be a positive integer (any integer form
// of zero or more); throws the object model's exception otherwise.
uint64_t PosInteger(const TinyMsgPackObject& map, const char* key) { return map.valueForKey(key).posIntegerValue(); }

// Wider numbers keep their low bits.
uint32_t Low32(uint64_t value) { return static_cast<uint32_t>(value); }
uint16_t Low16(uint64_t value) { return static_cast<uint16_t>(value); }

// A name that does not fit is dropped whole rather than cut: a cut name would
// be a different movie's name in the file system.
void CopyName(const TinyMsgPackObject& value, char (&name)[sizeof(STrkMovieInfo::name)]) {
  const char* text = value.stringValue();
  uint32_t length = value.size();
  if (text == nullptr || length >= sizeof(name)) {
    name[0] = '\0';
    return;
  }
  std::memcpy(name, text, length);
  name[length] = '\0';
}

// Field by field, in declaration order: a bad key stops the filling there
// with the exception, and the fields before it keep their new values.
void FillMovieInfo(const TinyMsgPackObject& source, STrkMovieInfo* info) {
  info->size = Low32(PosInteger(source, "size"));
  CopyName(source.valueForKey("name"), info->name);
  info->width = Low16(PosInteger(source, "width"));
  info->height = Low16(PosInteger(source, "height"));
  info->numFrames = PosInteger(source, "numFrames");
  info->number = PosInteger(source, "number");
  info->rtcTime = Low32(PosInteger(source, "rtcTime"));
  info->startTime = PosInteger(source, "startTime");
  info->endTime = PosInteger(source, "endTime");
  info->status = Low32(PosInteger(source, "status"));
}

}  // namespace

CTrkClient::CTrkClient()
    : m_socket(), m_lock(), m_connected(false), m_reader(&m_socket), m_writer(&m_socket), m_wakeFd(-1) {}

CTrkClient::~CTrkClient() { Disconnect(); }

bool CTrkClient::Connect() noexcept {
  try {
    zeb::CAutoLock lock(&m_lock);
    if (m_connected) return true;
    // A failed version check leaves its socket open. Close it here, before a
    // new socket is opened, so that connecting again never leaks the old
    // descriptor nor leaves the service holding a dead connection, whatever
    // LocalSocket::Connect itself does with a socket that is still open.
    m_socket.Disconnect();
    if (!m_socket.Connect(kServiceName)) return false;
    return CheckVersion();
  } catch (...) {
    // m_connected is still false: the client stays Idle.
    return false;
  }
}

bool CTrkClient::Adopt(LocalSocket&& socket) noexcept {
  try {
    zeb::CAutoLock lock(&m_lock);
    if (m_connected) return true;
    m_socket = std::move(socket);  // closes a socket left by a failed check
    return CheckVersion();
  } catch (...) {
    return false;
  }
}

bool CTrkClient::CheckVersion() {
  m_writer.StartMap(2);
  WriteText("act");
  WriteText("verCheck");
  WriteText("ver");
  m_writer.WritePosInteger(kVersion);
  // Any failure leaves the socket open, as designed: the client stays Idle
  // and reads nothing more from it; the next Connect closes it first.
  const TinyMsgPackObject response = m_reader.ReadObject();
  CheckError(response);
  // Any positive integer is accepted: the value is not compared.
  PosInteger(Results(response), "ver");
  m_connected = true;
  return true;
}

void CTrkClient::Disconnect() noexcept {
  try {
    zeb::CAutoLock lock(&m_lock);
    m_socket.Disconnect();
    m_connected = false;
    std::lock_guard<std::mutex> wake(m_wakeLock);
    if (m_wakeFd != -1) close(m_wakeFd);
    m_wakeFd = -1;
  } catch (...) {
    // Only taking a lock can throw; nothing was changed then.
  }
}

bool CTrkClient::PrepareShutdown() noexcept {
  try {
    zeb::CAutoLock lock(&m_lock);
    if (!m_connected || !m_socket.connected()) return false;
    std::lock_guard<std::mutex> wake(m_wakeLock);
    if (m_wakeFd != -1) close(m_wakeFd);
    m_wakeFd = fcntl(m_socket.fd(), F_DUPFD_CLOEXEC, 0);
    return m_wakeFd != -1;
  } catch (...) {
    return false;
  }
}

void CTrkClient::Shutdown() noexcept {
  try {
    std::lock_guard<std::mutex> wake(m_wakeLock);
    if (m_wakeFd != -1) shutdown(m_wakeFd, SHUT_RDWR);
  } catch (...) {
    // Only taking the lock can throw.
  }
}

template <class WriteParams, class ReadResults>
bool CTrkClient::Execute(unsigned int ordinal, uint32_t paramCount, WriteParams writeParams,
                         ReadResults readResults) noexcept {
  try {
    zeb::CAutoLock lock(&m_lock);
    if (!m_connected) return false;
    m_writer.StartMap(paramCount == 0 ? 2 : 3);
    WriteText("act");
    WriteText("exec");
    WriteText("ord");
    m_writer.WritePosInteger(ordinal);
    if (paramCount != 0) {
      WriteText("params");
      m_writer.StartMap(paramCount);
      writeParams();
    }
    const TinyMsgPackObject response = m_reader.ReadObject();
    CheckError(response);
    return readResults(response);
  } catch (...) {
    // The service's "error", a decoding failure, a broken stream or a
    // failure of the operation's own: the command failed, the client stays
    // as it was (Connected, its socket as the stream left it: an answer that
    // could not be decoded leaves its rest on the stream). The message is
    // not kept.
    return false;
  }
}

void CTrkClient::WriteText(const char* text) { m_writer.WriteString(text, std::strlen(text)); }

void CTrkClient::WriteParam(const char* key, uint64_t value) {
  WriteText(key);
  m_writer.WritePosInteger(value);
}

void CTrkClient::CheckError(const TinyMsgPackObject& response) {
  uint32_t at = response.findKey("error");
  if (at == UINT32_MAX) return;
  const TinyMsgPackObject& error = response.valueAt(at);
  if (error.type() == TinyMsgPackObject::Nil) return;
  const char* message = error.stringValue();
  throw std::runtime_error(std::string(message, error.size()));
}

bool CTrkClient::DetectDrive() noexcept {
  return Execute(kDetectDrive, 0, kNoParams, [](const TinyMsgPackObject& response) {
    return Results(response).valueForKey("detected").boolValue();
  });
}

bool CTrkClient::ListMovies(unsigned int& count) noexcept {
  return Execute(kListMovies, 0, kNoParams, [&](const TinyMsgPackObject& response) {
    count = Low32(PosInteger(Results(response), "count"));
    return true;
  });
}

bool CTrkClient::GetMovieInfo(unsigned int index, STrkMovieInfo* info) noexcept {
  // Checked before anything is sent: an answer could not be stored anyway.
  if (info == nullptr) return false;
  return Execute(
      kGetMovieInfo, 1, [&] { WriteParam("index", index); },
      [&](const TinyMsgPackObject& response) {
        FillMovieInfo(Results(response).valueForKey("info"), info);
        return true;
      });
}

bool CTrkClient::GetMovieIndex(const char* name, unsigned int& index) noexcept {
  if (name == nullptr) return false;
  return Execute(
      kGetMovieIndex, 1,
      [&] {
        WriteText("name");
        WriteText(name);
      },
      [&](const TinyMsgPackObject& response) {
        index = Low32(PosInteger(Results(response), "index"));
        return true;
      });
}

bool CTrkClient::OpenMovie(unsigned int fileId, zeb::CString& mapping) noexcept {
  return Execute(
      kOpenMovie, 1, [&] { WriteParam("fileId", fileId); },
      [&](const TinyMsgPackObject& response) {
        // A segment name holds no zero byte; the text up to the first one is
        // the whole name.
        mapping = Results(response).valueForKey("mapping").stringValue();
        return true;
      });
}

bool CTrkClient::CloseMovie(unsigned int fileId) noexcept {
  return Execute(kCloseMovie, 1, [&] { WriteParam("fileId", fileId); }, kNoResults);
}

bool CTrkClient::ReadFrame(unsigned int fileId, unsigned long frameNumber) noexcept {
  return Execute(
      kReadFrame, 2,
      [&] {
        WriteParam("fileId", fileId);
        WriteParam("frameNumber", frameNumber);
      },
      kNoResults);
}

bool CTrkClient::DeleteMovie(unsigned int fileId) noexcept {
  return Execute(kDeleteMovie, 1, [&] { WriteParam("fileId", fileId); }, kNoResults);
}

bool CTrkClient::DeleteAllMovies() noexcept { return Execute(kDeleteAllMovies, 0, kNoParams, kNoResults); }

bool CTrkClient::ReadInfoFile(unsigned int fileId, zeb::TSharedPtr<zeb::IFile> file) noexcept {
  if (!file) return false;
  return Execute(
      kReadInfoFile, 1, [&] { WriteParam("fileId", fileId); },
      [&](const TinyMsgPackObject& response) {
        const TinyMsgPackObject& data = Results(response).valueForKey("data");
        if (!file->WriteBytes(data.blobData(), data.blobSize())) throw std::runtime_error("IFile::WriteBytes failed.");
        return true;
      });
}

bool CTrkClient::CreateEventQueue(unsigned int& queueId) noexcept {
  return Execute(kCreateEventQueue, 0, kNoParams, [&](const TinyMsgPackObject& response) {
    queueId = Low32(PosInteger(Results(response), "queueId"));
    return true;
  });
}

bool CTrkClient::DestroyEventQueue(unsigned int queueId) noexcept {
  return Execute(kDestroyEventQueue, 1, [&] { WriteParam("queueId", queueId); }, kNoResults);
}

bool CTrkClient::ReadEventQueue(unsigned int queueId, STrkEvent& event) noexcept {
  return Execute(
      kReadEventQueue, 1, [&] { WriteParam("queueId", queueId); },
      [&](const TinyMsgPackObject& response) {
        const TinyMsgPackObject& source = Results(response).valueForKey("event");
        event.type = Low32(PosInteger(source, "type"));
        event.drive = Low32(PosInteger(source, "drive"));
        return true;
      });
}
