#include "bench/WirePattern.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "msgpack/MemoryStream.h"
#include "msgpack/Stream.h"
#include "msgpack/TinyMsgPackReader.h"
#include "msgpack/TinyMsgPackWriter.h"

namespace {

// A Stream that notes the size of every Read and Write call: writes are kept,
// reads are served from a fixed input.
class RecordingStream : public Stream {
 public:
  explicit RecordingStream(const WirePattern::Bytes* input = nullptr) : m_input(input) {}

  size_t Read(void* data, size_t size) override {
    if (size == 0) return 0;
    size_t n = std::min(size, m_input->size() - m_position);
    std::memcpy(data, m_input->data() + m_position, n);
    m_position += n;
    calls.push_back(n);
    return n;
  }
  size_t Write(const void* data, size_t size) override {
    if (size == 0) return 0;  // LocalSocket makes no call for 0 bytes
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    written.insert(written.end(), bytes, bytes + size);
    calls.push_back(size);
    return size;
  }

  std::vector<size_t> calls;
  WirePattern::Bytes written;

 private:
  const WirePattern::Bytes* m_input;
  size_t m_position = 0;
};

// The simulator's receive buffer (tools/zebtrksvc/SocketInput.h).
constexpr size_t kSimulatorReceiveBuffer = 4096;

// The sizes of the reads that ReadObject makes to decode `bytes`.
std::vector<size_t> ReadPieces(const WirePattern::Bytes& bytes) {
  RecordingStream in(&bytes);
  TinyMsgPackReader reader(&in);
  reader.ReadObject();
  return in.calls;
}

}  // namespace

WirePattern WirePattern::ForExchange(const std::function<void(TinyMsgPackWriter&)>& writeRequest, const Bytes& response) {
  RecordingStream out;
  TinyMsgPackWriter writer(&out);
  writeRequest(writer);
  WirePattern p;
  p.request = out.written;
  p.clientSends = out.calls;
  p.serverBuffer = kSimulatorReceiveBuffer;
  p.response = response;
  p.serverSends = {response.size()};
  p.clientRecvs = ReadPieces(response);
  return p;
}

WirePattern WirePattern::PingPong() {
  WirePattern p;
  p.request = {0x2A};
  p.response = {0x2A};
  p.clientSends = p.serverRecvs = p.serverSends = p.clientRecvs = {1};
  return p;
}

void WirePattern::WriteDetectDriveRequest(TinyMsgPackWriter& w) {
  w.StartMap(2);
  w.WriteString("act", size_t(-1));
  w.WriteString("exec", size_t(-1));
  w.WriteString("ord", size_t(-1));
  w.WritePosInteger(0);
}

void WirePattern::WriteReadFrameRequest(TinyMsgPackWriter& w, unsigned fileId, unsigned long frame) {
  w.StartMap(3);
  w.WriteString("act", size_t(-1));
  w.WriteString("exec", size_t(-1));
  w.WriteString("ord", size_t(-1));
  w.WritePosInteger(6);
  w.WriteString("params", size_t(-1));
  w.StartMap(2);
  w.WriteString("fileId", size_t(-1));
  w.WritePosInteger(fileId);
  w.WriteString("frameNumber", size_t(-1));
  w.WritePosInteger(frame);
}

void WirePattern::WriteGetMovieInfoRequest(TinyMsgPackWriter& w, unsigned index) {
  w.StartMap(3);
  w.WriteString("act", size_t(-1));
  w.WriteString("exec", size_t(-1));
  w.WriteString("ord", size_t(-1));
  w.WritePosInteger(2);
  w.WriteString("params", size_t(-1));
  w.StartMap(1);
  w.WriteString("index", size_t(-1));
  w.WritePosInteger(index);
}

WirePattern::Bytes WirePattern::GetMovieInfoResponse(unsigned number) {
  MemoryStream out;
  TinyMsgPackWriter w(&out);
  w.StartMap(1);
  w.WriteString("result", size_t(-1));
  w.StartMap(1);
  w.WriteString("info", size_t(-1));
  w.StartMap(10);
  std::string name = "Run " + std::to_string(number) + " outdoor";
  const char* keys[] = {"size", "name", "width", "height", "numFrames", "number", "rtcTime", "startTime", "endTime", "status"};
  const uint64_t values[] = {1, 0, 8, 8, 2, number, 1714636800, 0x800001ECull, 0x82350000800001ECull, 0};
  for (int i = 0; i < 10; ++i) {
    w.WriteString(keys[i], size_t(-1));
    if (i == 1) {
      w.WriteString(name);
    } else {
      w.WritePosInteger(values[i]);
    }
  }
  return out.bytes();
}

WirePattern::Bytes WirePattern::DetectDriveResponse() {
  MemoryStream out;
  TinyMsgPackWriter w(&out);
  w.StartMap(1);
  w.WriteString("result", size_t(-1));
  w.StartMap(1);
  w.WriteString("detected", size_t(-1));
  w.WriteBool(true);
  return out.bytes();
}

WirePattern::Bytes WirePattern::EmptyResultResponse() {
  MemoryStream out;
  TinyMsgPackWriter w(&out);
  w.StartMap(1);
  w.WriteString("result", size_t(-1));
  w.StartMap(0);
  return out.bytes();
}
