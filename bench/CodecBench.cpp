// Codec benchmarks: decoding and encoding whole value trees with our codec
// (TinyMsgPackReader::ReadObject and TinyMsgPackWriter::WriteObject over a
// MemoryStream) next to msgpack-c's C++ unpack and pack of the very same bytes.
//
// Two documents: one GetMovieInfo response as the simulator sends it, and an
// array of 1,000 movie-info maps (the shape of a large listing). Each
// benchmark iteration decodes or encodes one whole document; the counter
// "bytes" is its size, so GB/s follow from the time.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "msgpack/MemoryStream.h"
#include "msgpack/TinyMsgPackObject.h"
#include "msgpack/TinyMsgPackReader.h"
#include "msgpack/TinyMsgPackWriter.h"

#ifdef ZEBTRK_BENCH_HAVE_MSGPACK_CXX
#include <msgpack.hpp>
#endif

namespace {

using Bytes = std::vector<unsigned char>;

// One movie's "info" map with the ten keys the client reads, values varied by
// `i` so that integers take several widths.
void WriteMovieInfo(TinyMsgPackWriter& w, uint64_t i) {
  char name[40];
  std::snprintf(name, sizeof name, "Run %llu outdoor", static_cast<unsigned long long>(i));
  w.StartMap(10);
  w.WriteString("size", size_t(-1));
  w.WritePosInteger(1280ull * 1024 * 2 * (100 + i % 900));
  w.WriteString("name", size_t(-1));
  w.WriteString(name, size_t(-1));
  w.WriteString("width", size_t(-1));
  w.WritePosInteger(1280);
  w.WriteString("height", size_t(-1));
  w.WritePosInteger(1024);
  w.WriteString("numFrames", size_t(-1));
  w.WritePosInteger(100 + i % 900);
  w.WriteString("number", size_t(-1));
  w.WritePosInteger(i + 1);
  w.WriteString("rtcTime", size_t(-1));
  w.WritePosInteger(1700000000 + i * 60);
  w.WriteString("startTime", size_t(-1));
  w.WritePosInteger(0x0A14000C414601ECull + i);
  w.WriteString("endTime", size_t(-1));
  w.WritePosInteger(0x0A14000C418701ECull + i);
  w.WriteString("status", size_t(-1));
  w.WritePosInteger(i % 3);
}

// {"error": nil, "result": {"info": {...}}}
Bytes MovieInfoResponse() {
  MemoryStream out;
  TinyMsgPackWriter w(&out);
  w.StartMap(2);
  w.WriteString("error", size_t(-1));
  w.WriteNil();
  w.WriteString("result", size_t(-1));
  w.StartMap(1);
  w.WriteString("info", size_t(-1));
  WriteMovieInfo(w, 11);
  return out.bytes();
}

Bytes MovieInfoArray(uint32_t count) {
  MemoryStream out;
  TinyMsgPackWriter w(&out);
  w.StartArray(count);
  for (uint32_t i = 0; i < count; ++i) WriteMovieInfo(w, i);
  return out.bytes();
}

const Bytes& Document(int which) {
  static const Bytes response = MovieInfoResponse();
  static const Bytes array = MovieInfoArray(1000);
  return which == 0 ? response : array;
}

const char* DocumentName(int which) { return which == 0 ? "GetMovieInfoResponse" : "Array1000Maps"; }

TinyMsgPackObject Decode(const Bytes& bytes) {
  MemoryStream in(bytes.data(), bytes.size());
  TinyMsgPackReader reader(&in);
  return reader.ReadObject();
}

void SetCounters(benchmark::State& state, const Bytes& bytes) {
  state.counters["bytes"] = double(bytes.size());
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes.size()));
}

void OursDecode(benchmark::State& state, int which) {
  const Bytes& bytes = Document(which);
  for (auto _ : state) {
    MemoryStream in(bytes.data(), bytes.size());
    TinyMsgPackReader reader(&in);
    TinyMsgPackObject tree = reader.ReadObject();
    benchmark::DoNotOptimize(tree);
  }
  SetCounters(state, bytes);
}

void OursEncode(benchmark::State& state, int which) {
  const Bytes& bytes = Document(which);
  TinyMsgPackObject tree = Decode(bytes);
  MemoryStream out;
  TinyMsgPackWriter writer(&out);
  writer.WriteObject(tree);
  if (out.bytes() != bytes) {
    state.SkipWithError("WriteObject does not reproduce the input bytes");
    return;
  }
  for (auto _ : state) {
    out.clear();
    writer.WriteObject(tree);
    benchmark::DoNotOptimize(out.bytes().data());
  }
  SetCounters(state, bytes);
}

#ifdef ZEBTRK_BENCH_HAVE_MSGPACK_CXX
// msgpack-c's default unpack copies strings into its zone, as ours copies them
// into the tree: both results stand on their own after the input is gone.
void TheirsDecode(benchmark::State& state, int which) {
  const Bytes& bytes = Document(which);
  const char* data = reinterpret_cast<const char*>(bytes.data());
  for (auto _ : state) {
    msgpack::object_handle handle = msgpack::unpack(data, bytes.size());
    benchmark::DoNotOptimize(handle.get());
  }
  SetCounters(state, bytes);
}

void TheirsEncode(benchmark::State& state, int which) {
  const Bytes& bytes = Document(which);
  msgpack::object_handle handle = msgpack::unpack(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  msgpack::sbuffer buffer;
  msgpack::pack(buffer, handle.get());
  if (buffer.size() != bytes.size() || !std::equal(bytes.begin(), bytes.end(), reinterpret_cast<const unsigned char*>(buffer.data()))) {
    state.SkipWithError("msgpack::pack does not reproduce the input bytes");
    return;
  }
  for (auto _ : state) {
    buffer.clear();
    msgpack::pack(buffer, handle.get());
    benchmark::DoNotOptimize(buffer.data());
  }
  SetCounters(state, bytes);
}
#endif

void Register() {
  Document(0);  // build the documents now, outside any measurement
  for (int which = 0; which < 2; ++which) {
    std::string doc = DocumentName(which);
    benchmark::RegisterBenchmark(("Codec/Decode/Ours/" + doc).c_str(), OursDecode, which);
    benchmark::RegisterBenchmark(("Codec/Encode/Ours/" + doc).c_str(), OursEncode, which);
#ifdef ZEBTRK_BENCH_HAVE_MSGPACK_CXX
    benchmark::RegisterBenchmark(("Codec/Decode/MsgpackC/" + doc).c_str(), TheirsDecode, which);
    benchmark::RegisterBenchmark(("Codec/Encode/MsgpackC/" + doc).c_str(), TheirsEncode, which);
#endif
  }
}

const bool registered = (Register(), true);

}  // namespace
