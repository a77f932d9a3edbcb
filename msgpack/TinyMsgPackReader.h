// TinyMsgPackReader: streaming MessagePack decoder over a Stream.
//
// Read() consumes one item header from the stream, and with it the whole of a
// string, and leaves the item in the current-item state that the accessors
// expose. Containers are not descended into: a map or array header reports its
// element count and the elements follow as further items. Blob payloads stay in
// the stream until ReadBlobData. The typed reads insist on one item type; on
// top of them ReadObject builds a whole TinyMsgPackObject tree, Skip passes
// over one value and SkipToMapField walks a map to a named field.
//
// Accepted: every MessagePack type except ext (C7-C9, D4-D8) and the unused
// byte C1, for which Read() returns false having consumed only the type byte.
// An unsigned integer form always reads as PosInteger; a signed form reads as
// PosInteger when its value is zero or more. Counts and lengths announced by
// the stream are trusted: a container or blob is allocated at its announced
// size before its elements are read (a failed allocation throws
// std::bad_alloc). Nesting is bounded by kMaxDepth for ReadObject and Skip.
//
// Errors: Read() returns false on a short stream or a refused type byte; all
// other operations throw std::runtime_error with fixed messages. After a false
// result or an exception the stream is out of step with item boundaries and
// the caller abandons it.
//
// Ownership: m_stream is not owned and must outlive the reader. Threads: one
// thread at a time per reader and stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "msgpack/Stream.h"
#include "msgpack/TinyMsgPackObject.h"

class TinyMsgPackReader {
 public:
  using EType = TinyMsgPackObject::EType;

  // Most containers open at once that ReadObject and Skip accept from the
  // stream (the outermost one included); one more throws "Nesting too deep.".
  // Each level costs one stack frame of the recursion: the bound keeps a
  // hostile peer from overflowing the stack of the thread that reads, also a
  // small one, while the protocol itself nests three levels.
  static constexpr uint32_t kMaxDepth = 64;
  // Text storage kept between items; a longer text's storage is released
  // once it is no longer needed (see ReadStringItem).
  static constexpr size_t kKeptTextCapacity = 64 * 1024;

  explicit TinyMsgPackReader(Stream* stream);

  // True when the stream's Read returned exactly `size` bytes.
  // Inline: every type byte, argument and text comes through here.
  bool ReadBytes(unsigned char* data, size_t size) { return m_stream->Read(data, size) == size; }

  // Decodes one item into the current-item state. False when the stream ends
  // early or the type byte is not accepted; the type is then left as it was
  // (it is set only after the whole item has been read).
  bool Read();

  // The current item. No checks: after an item of another type a field holds
  // whatever it held last.
  EType type() const { return m_type; }
  uint32_t count() const { return m_count; }
  bool boolValue() const { return m_bool; }
  int64_t negIntegerValue() const { return m_negInteger; }
  uint64_t posIntegerValue() const { return m_posInteger; }
  double floatValue() const { return m_float; }
  std::string stringValue() const { return m_string; }

  // Reads the payload of the current blob: exactly count() bytes into `data`.
  // Throws "Not a blob.", "Must read entire blob." or "Failed to read.".
  void ReadBlobData(void* data, uint32_t size);

  // Typed reads: Read(), then insist on the type. Throw "Failed to read." when
  // Read() fails and the operation's own message when the type differs.
  bool ReadBool();
  uint32_t ReadMapCount();
  uint32_t ReadArrayCount();
  uint64_t ReadPosInteger();
  int64_t ReadNegInteger();
  // NegInteger, or PosInteger up to INT64_MAX ("Integer value out of range,
  // expected int64_t." above).
  int64_t ReadInteger();
  // The blob's length; the caller then calls ReadBlobData with it.
  uint32_t ReadBlobSize();
  std::string ReadString();

  // One complete value as a tree. On any exception the partly built tree is
  // freed and the exception passes unchanged.
  TinyMsgPackObject ReadObject();
  // Consumes one complete value; map keys may be of any type.
  void Skip();
  // With `remaining` entries of a map left and the reader at the next key:
  // consumes entries until the key `name` (exact bytes) and stops before its
  // value, `remaining` no longer counting that entry. Throws "Map field not
  // found." when the entries run out (at once, reading nothing, when
  // `remaining` is 0).
  void SkipToMapField(uint32_t& remaining, const char* name);

 private:
  // Reads a big-endian argument of `width` bytes into the scratch buffer.
  bool ReadArgument(size_t width, uint64_t& value);
  bool ReadStringItem(size_t lengthWidth, uint32_t length);
  bool ReadUnsigned(size_t width);
  bool ReadSigned(size_t width);
  bool ReadContainer(EType type, size_t width);
  bool ReadFloatItem(size_t width);
  void ReadExpecting(EType type, const char* message);
  // Decodes one complete value into `slot`, a Nil value that owns nothing.
  // Success: `slot` holds the value. Failure: the exception passes on and
  // `slot` holds the part built so far, a whole value for its owner to free.
  void ReadObjectInto(TinyMsgPackObject& slot, uint32_t depth);
  void ReadMapInto(TinyMsgPackObject& slot, uint32_t depth);
  void ReadArrayInto(TinyMsgPackObject& slot, uint32_t depth);
  void SkipAt(uint32_t depth);
  static void CheckDepth(uint32_t depth);

  Stream* m_stream;
  uint32_t m_count;
  int64_t m_negInteger;
  uint64_t m_posInteger;
  std::string m_string;
  bool m_bool;
  double m_float;
  unsigned char m_buffer[9];
  EType m_type;
};
