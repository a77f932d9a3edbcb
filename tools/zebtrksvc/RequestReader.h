// RequestReader: decodes one request map of the movie protocol straight from
// a stream with the streaming MessagePack reader, keeping only the keys that
// the service understands.
//
// A request is a map: "act" (string), "ord" (unsigned integer), "ver"
// (unsigned integer, version check) and "params" (a map holding "fileId",
// "index", "frameNumber", "queueId" and "name"). Other keys are skipped at
// either level; of a key given twice the first value counts. Values of any
// type are accepted here and recorded with their kind, so that the service
// can answer a mistyped parameter with an error instead of dropping the
// connection. Nothing is allocated per request beyond the text of strings.
//
// Ownership: the stream is borrowed and must outlive the reader. Threads: one
// thread at a time.
#pragma once

#include <cstdint>
#include <string>

#include "msgpack/Stream.h"
#include "msgpack/TinyMsgPackReader.h"

namespace zebtrksvc {

// One value of a request as it arrived.
struct RequestField {
  enum class Kind { Absent, Unsigned, Text, Other };
  Kind kind = Kind::Absent;
  uint64_t number = 0;  // with Unsigned
  std::string text;     // with Text
};

struct Request {
  enum class Params { Absent, Map, NotAMap };

  RequestField act;
  RequestField ord;
  RequestField ver;
  Params params = Params::Absent;
  RequestField fileId;
  RequestField index;
  RequestField frameNumber;
  RequestField queueId;
  RequestField name;

  // Back to an empty request (strings keep their capacity).
  void Clear();
};

class RequestReader {
 public:
  explicit RequestReader(Stream* stream) : m_reader(stream) {}

  // Reads the next request into `request`. True when one whole map was read.
  // False when the stream ended or failed, or the bytes are not a map or not
  // valid MessagePack (an ext type, a key that is not a string, nesting deeper
  // than the reader's bound, an allocation that failed): the stream is then
  // out of step and the connection must be closed.
  bool Read(Request& request);

 private:
  void ReadItem();
  void ReadKey();
  void ReadField(RequestField& field);
  void ReadParams(Request& request);
  // After the header of the current item: consumes what belongs to it (a
  // container's elements, a blob's bytes).
  void SkipContents();

  TinyMsgPackReader m_reader;
  std::string m_key;
};

}  // namespace zebtrksvc
