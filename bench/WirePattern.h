// WirePattern: the exact pieces in which one request and its response cross
// the socket, as our client and the simulator move them.
//
// The client writes a request through TinyMsgPackWriter onto LocalSocket, one
// send per header and one per payload, and reads the response through
// TinyMsgPackReader::ReadObject, one recv per item header, argument and string.
// The simulator receives into a 4 KiB buffer (each recv takes whatever has
// arrived, so one or a few per request) and answers with one send of the
// whole encoded response. A WirePattern is derived by running our own codec
// over recording streams, so a raw exchange that replays it makes the same
// system calls with the same sizes as the real one, minus all the work
// between them.
//
// Ownership: plain value. Threads: none.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

class TinyMsgPackWriter;

struct WirePattern {
  using Bytes = std::vector<unsigned char>;

  Bytes request;                    // every byte the client sends
  Bytes response;                   // every byte the server sends
  std::vector<size_t> clientSends;  // one entry per client send
  std::vector<size_t> serverRecvs;  // one entry per exact server read, or
  size_t serverBuffer = 0;          // when not 0: the server receives into a
                                    // buffer this large until the whole
                                    // request is in (as the simulator does)
  std::vector<size_t> serverSends;  // one entry per server send
  std::vector<size_t> clientRecvs;  // one entry per exact client read

  // The pattern of a request written by `writeRequest` and answered with
  // `response`, the server receiving as the simulator does and answering in
  // one send.
  static WirePattern ForExchange(const std::function<void(TinyMsgPackWriter&)>& writeRequest, const Bytes& response);
  // One byte each way, one call each: the bare cost of a wake-up pair.
  static WirePattern PingPong();

  // The requests of the commands measured, and the simulator's answers to
  // them: {"result": {"detected": true}}, {"result": {}} and
  // {"result": {"info": {...ten keys...}}} for a movie like those of the
  // listing drives ("<n>-Run <n> outdoor", 8x8, 2 frames).
  static void WriteDetectDriveRequest(TinyMsgPackWriter& w);
  static void WriteReadFrameRequest(TinyMsgPackWriter& w, unsigned fileId, unsigned long frame);
  static void WriteGetMovieInfoRequest(TinyMsgPackWriter& w, unsigned index);
  static Bytes DetectDriveResponse();
  static Bytes EmptyResultResponse();
  static Bytes GetMovieInfoResponse(unsigned number);
};
