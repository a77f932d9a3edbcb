// TinyMsgPackWriter: MessagePack encoder that writes straight to a Stream.
//
// Turns one value at a time into MessagePack bytes in the smallest form that
// holds it. It keeps no state besides the stream, buffers nothing and does not
// track nesting: a container is written as a header announcing its element
// count, after which the caller writes exactly that many elements (for a map,
// that many key and value pairs, key first).
//
// Every operation hands its header (at most 9 bytes) to Stream::Write in one
// call, and a payload (string, bin, ext) in a second, separate call, even when
// it is empty. The writer never looks at what Write returns and reports
// nothing: a stream that fails part-way leaves a truncated item behind, which
// the peer notices. Exceptions thrown by the stream pass through.
//
// Ownership: m_stream is not owned and must outlive the writer; a copy of the
// writer writes to the same stream. Threads: one thread at a time per stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "msgpack/Stream.h"

class TinyMsgPackObject;

class TinyMsgPackWriter {
 public:
  explicit TinyMsgPackWriter(Stream* stream) : m_stream(stream) {}

  // The bytes unchanged, in one Write call.
  void WriteBytes(const unsigned char* data, size_t size);

  void WriteNil();
  void WriteBool(bool value);
  // Smallest unsigned form: fixint, then CC, CD, CE, CF.
  void WritePosInteger(uint64_t value);
  // A value of 0 or more exactly as WritePosInteger; a negative one in the
  // smallest signed form: negative fixint, then D0, D1, D2, D3.
  void WriteNegInteger(int64_t value);
  void WriteFloat(float value);    // float 32
  void WriteDouble(double value);  // float 64

  // String header and the text as it is (no terminating zero, no UTF-8 check).
  // A length of (size_t)-1 means strlen(text); a null text with that length is
  // empty. The length field holds its low 32 bits: keep texts below 4 GiB.
  void WriteString(const char* text, size_t length);
  void WriteString(const std::string& text);
  // Bin header (C4, C5, C6; there is no one-byte form) and the bytes.
  void WriteBlob(const void* data, uint32_t size);
  // Ext header by payload size, fixed sizes 1, 2, 4, 8, 16 first, then the
  // payload. The type code is written as its two's complement byte.
  void WriteExt(int8_t type, const void* data, uint32_t size);
  // Container headers; the caller writes `count` elements (pairs) after them.
  void StartArray(uint32_t count);
  void StartMap(uint32_t count);

  // Writes `value` and everything below it (see the .cpp for the forms).
  // Throws std::runtime_error "unrecognized object type." for a value whose
  // type is none of TinyMsgPackObject::EType, having written what came before.
  // Recurses once per level: trees from TinyMsgPackReader::ReadObject are
  // bounded in depth; deeper trees built by a program cost its own stack.
  void WriteObject(const TinyMsgPackObject& value);

 private:
  void WriteHeader(const unsigned char* header, size_t size);
  void WritePayload(const void* data, size_t size);
  // Type byte `small` (if not 0) with a 1-byte, `medium` with a 2-byte or
  // `large` with a 4-byte big-endian length, the smallest that holds `length`;
  // the 4-byte field carries the low 32 bits of a longer length.
  void WriteLengthHeader(uint64_t length, unsigned char small, unsigned char medium, unsigned char large);

  Stream* m_stream;
};
