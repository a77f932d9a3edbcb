// The community MessagePack test-suite vectors (tests/msgpack/data, MIT): every
// listed encoding decodes to its value (ext and timestamp items are refused),
// re-encodes in the smallest listed form of that value (float 32 aside: floats
// go out as float 64), and WriteExt reproduces the ext encodings.
#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "msgpack/MemoryStream.h"
#include "msgpack/TinyMsgPackReader.h"
#include "msgpack/TinyMsgPackWriter.h"
#include "tests/msgpack/TestUtil.h"

namespace {

struct SuiteForm {
  const char* group;
  int number;
  const char* hex;
  const char* expect;
  const char* ext;  // "TYPE:PAYLOAD" on the first form of an ext item
};

const SuiteForm kSuite[] = {
#include "tests/msgpack/data/SuiteTable.inc"
};

TEST(Suite, EveryEncodingDecodesAndReencodesSmallest) {
  // Smallest listed length per (group, case, value), float 32 forms left out.
  std::map<std::string, size_t> smallest;
  auto key = [](const SuiteForm& f) { return std::string(f.group) + "/" + std::to_string(f.number) + "/" + f.expect; };
  for (const SuiteForm& f : kSuite) {
    if (std::string(f.hex).compare(0, 2, "ca") == 0) continue;
    const size_t length = std::strlen(f.hex) / 2;
    auto it = smallest.find(key(f));
    if (it == smallest.end() || length < it->second) smallest[key(f)] = length;
  }
  size_t decoded = 0, refused = 0;
  for (const SuiteForm& f : kSuite) {
    SCOPED_TRACE(std::string(f.group) + " " + f.hex);
    if (std::string(f.expect) == "refused") {
      EXPECT_EQ(msgpacktest::Thrown([&] { msgpacktest::Decode(f.hex); }), "runtime_error: Failed to read.");
      ++refused;
      continue;
    }
    const TinyMsgPackObject value = msgpacktest::Decode(f.hex);
    EXPECT_EQ(msgpacktest::Render(value), f.expect);
    const std::string again = msgpacktest::Encode(value);
    EXPECT_EQ(again.size() / 2, smallest[key(f)]);
    EXPECT_EQ(msgpacktest::Render(msgpacktest::Decode(again)), f.expect);
    ++decoded;
  }
  EXPECT_GT(decoded, 150u);
  EXPECT_GT(refused, 20u);
}

TEST(Suite, WriteExtReproducesExtEncodings) {
  size_t checked = 0;
  for (const SuiteForm& f : kSuite) {
    if (!*f.ext) continue;
    const std::string ext = f.ext;
    const size_t colon = ext.find(':');
    const msgpacktest::Bytes payload = msgpacktest::Hex(ext.substr(colon + 1));
    MemoryStream stream;
    TinyMsgPackWriter(&stream).WriteExt(static_cast<int8_t>(std::stoi(ext.substr(0, colon))), payload.data(),
                                        static_cast<uint32_t>(payload.size()));
    EXPECT_EQ(msgpacktest::ToHex(stream.bytes()), f.hex);
    ++checked;
  }
  EXPECT_EQ(checked, 26u);  // 19 timestamps and 7 ext items
}

}  // namespace
