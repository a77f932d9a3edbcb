// TinyMsgPackObject: growth, deep copy, move, lookups, ownership hand-over and
// the accessors' messages.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <type_traits>

#include "msgpack/TinyMsgPackObject.h"
#include "tests/msgpack/TestUtil.h"

using msgpacktest::Render;
using msgpacktest::Thrown;
using O = TinyMsgPackObject;

namespace {

// The factories' raw constructor is one of the operations (explicit: no
// nullptr becomes a value that holds nothing by accident).
static_assert(std::is_constructible<O, std::nullptr_t>::value, "raw constructor");
static_assert(!std::is_convertible<std::nullptr_t, O>::value, "explicit raw constructor");

O Str(const char* text) { return O::CreateString(text, UINT32_MAX); }

O ArrayOf(std::initializer_list<int> values, uint32_t capacity) {
  O array = O::CreateArray(capacity);
  for (int v : values) array.push_back(O::CreatePosInteger(v));
  return array;
}

// Capacities double from 2, or from the preallocated count.
TEST(Object, GrowthSequence) {
  O array = O::CreateArray(0);
  std::vector<uint32_t> seen;
  for (int i = 0; i < 9; ++i) {
    array.push_back(O::CreatePosInteger(i));
    seen.push_back(array.capacity());
  }
  EXPECT_EQ(seen, (std::vector<uint32_t>{2, 2, 4, 4, 8, 8, 8, 8, 16}));
  EXPECT_EQ(Render(array), "[+0,+1,+2,+3,+4,+5,+6,+7,+8]");

  O map = O::CreateMap(3);
  seen.clear();
  for (int i = 0; i < 7; ++i) {
    map.insert(std::to_string(i).c_str(), O::CreatePosInteger(i));
    seen.push_back(map.capacity());
  }
  EXPECT_EQ(seen, (std::vector<uint32_t>{3, 3, 3, 6, 6, 6, 12}));
  EXPECT_EQ(map.size(), 7u);
  EXPECT_EQ(map.valueForKey("6").posIntegerValue(), 6u);
  EXPECT_EQ(O::CreateMap(0).capacity(), 0u);
  EXPECT_EQ(Str("abc").capacity(), 0u);
}

TEST(Object, LookupsFirstKeyWinsCaseSensitive) {
  O map = O::CreateMap(2);
  map.insert("k", Str("x")).insert("k", Str("y"));
  EXPECT_EQ(map.size(), 2u);
  EXPECT_STREQ(map.valueForKey("k").stringValue(), "x");
  EXPECT_EQ(map.findKey("k"), 0u);
  EXPECT_STREQ(map.keyAt(1), "k");
  EXPECT_STREQ(map.valueAt(1).stringValue(), "y");
  EXPECT_FALSE(map.hasKey("K"));
  EXPECT_EQ(Thrown([&] { map.valueForKey("K"); }), "runtime_error: Key not found in map.");
  map.valueForKey("k") = O::CreateBool(true);  // non-const forms hand out the stored value
  map.valueAt(1) = O::CreateNil();
  EXPECT_EQ(Render(map), "{s:6b:true,s:6b:nil}");

  const O empty = O::CreateMap(0);
  EXPECT_EQ(empty.findKey("a"), UINT32_MAX);
  EXPECT_EQ(Thrown([&] { empty.valueForKey("a"); }), "runtime_error: Key not found in map.");
}

TEST(Object, DeepCopyHasCapacityEqualToSize) {
  O array = ArrayOf({1, 2, 3, 4, 5}, 8);
  O map = O::CreateMap(4);
  map.insert("list", O(array)).insert("name", Str("run"));
  O copy(map);
  EXPECT_EQ(copy.capacity(), 2u);
  EXPECT_EQ(copy.valueForKey("list").capacity(), 5u);
  EXPECT_EQ(Render(copy), Render(map));
  EXPECT_NE(copy.keyAt(0), map.keyAt(0));  // keys and texts are copies
  EXPECT_NE(copy.valueForKey("name").stringValue(), map.valueForKey("name").stringValue());

  O emptyWithRoom = O::CreateArray(4);
  O assigned = Str("old");
  assigned = emptyWithRoom;
  EXPECT_EQ(assigned.type(), O::Array);
  EXPECT_EQ(assigned.capacity(), 0u);
}

// A length of UINT32_MAX means strlen, a shorter one cuts the text; copies
// carry every byte, also those behind a zero byte.
TEST(Object, StringLengthsAndZeroBytes) {
  EXPECT_EQ(O::CreateString("abc", UINT32_MAX).size(), 3u);
  const O cut = O::CreateString("abcdef", 3);
  EXPECT_STREQ(cut.stringValue(), "abc");
  EXPECT_EQ(cut.size(), 3u);
  EXPECT_EQ(Render(O::CreateString(nullptr, 5)), "s:");
  const O text = O::CreateString("ab\0cd", 5);
  O copy(text);
  O assigned;
  assigned = text;
  for (const O* o : {&copy, &assigned}) {
    ASSERT_EQ(o->size(), 5u);
    EXPECT_EQ(std::memcmp(o->stringValue(), "ab\0cd", 6), 0);
  }
}

TEST(Object, MoveLeavesNilAndSelfAssignmentChangesNothing) {
  O a = ArrayOf({1, 2}, 2);
  O b(std::move(a));
  EXPECT_EQ(a.type(), O::Nil);
  EXPECT_EQ(Thrown([&] { a.size(); }), "runtime_error: Object does not have size, array/map/string/blob expected.");
  O c = Str("x");
  c = std::move(b);
  EXPECT_EQ(b.type(), O::Nil);
  EXPECT_EQ(Render(c), "[+1,+2]");
  O& alias = c;
  c = alias;
  c = std::move(alias);
  EXPECT_EQ(Render(c), "[+1,+2]");
}

// Assigning a value from inside the target's own tree reads it before the
// target releases it (checked by the sanitizer build); an element moved within
// its own container keeps working across growth; a container cannot hold itself.
TEST(Object, ValuesFromTheirOwnTree) {
  O tree = O::CreateMap(1);
  tree.insert("a", ArrayOf({7, 8}, 2));
  tree = tree.valueForKey("a");
  EXPECT_EQ(Render(tree), "[+7,+8]");
  O outer = O::CreateMap(1);
  outer.insert("b", Str("inner"));
  outer = std::move(outer.valueAt(0));
  EXPECT_EQ(Render(outer), "s:696e6e6572");
  O map = O::CreateMap(1);
  map.insert("a", Str("v"));
  map.insert("b", std::move(map.valueAt(0)));  // the block grows underneath
  EXPECT_EQ(Render(map), "{s:61:nil,s:62:s:76}");
  EXPECT_EQ(Thrown([&] { map.insert("self", std::move(map)); }), "other: Object cannot contain itself.");
  O array = O::CreateArray(0);
  EXPECT_EQ(Thrown([&] { array.push_back(std::move(array)); }), "other: Object cannot contain itself.");
  EXPECT_EQ(array.type(), O::Array);
}

TEST(Object, BlobOwnership) {
  const unsigned char bytes[] = {1, 2, 3};
  O blob = O::CreateBlob(bytes, 3);
  EXPECT_NE(blob.blobData(), bytes);
  std::unique_ptr<unsigned char[]> released(blob.ReleaseBlobData());
  EXPECT_EQ(msgpacktest::ToHex(released.get(), 3), "010203");
  EXPECT_EQ(blob.type(), O::Blob);
  EXPECT_EQ(blob.blobSize(), 0u);
  EXPECT_EQ(blob.blobData(), nullptr);
  O adopted = O::CreateBlobNoCopy(released.release(), 3);
  EXPECT_EQ(Render(adopted), "b:010203");
  O copy(blob);
  EXPECT_EQ(Render(copy), "b:");
}

TEST(Object, IntegerValue) {
  EXPECT_EQ(O::CreateNegInteger(-5).integerValue(), -5);
  EXPECT_EQ(O::CreatePosInteger(7).integerValue(), 7);
  EXPECT_EQ(O::CreatePosInteger(uint64_t(INT64_MAX)).integerValue(), INT64_MAX);
  EXPECT_EQ(Thrown([] { O::CreatePosInteger(uint64_t(1) << 63).integerValue(); }),
            "runtime_error: Integer value out of range, expected int64_t.");
  EXPECT_EQ(Thrown([] { Str("7").integerValue(); }),
            "runtime_error: Object type is not an integer, but an integer was expected.");
}

struct MessageCase {
  std::function<void()> call;
  std::string outcome;
};

TEST(Object, AccessorMessages) {
  const O nil, map = O::CreateMap(0), array = O::CreateArray(0), text = Str("t");
  const O one = ArrayOf({1}, 1);
  O keyed = O::CreateMap(1);
  keyed.insert("k", O());
  const std::string notBlob = "runtime_error: Object type is not blob, but blob expected.";
  const MessageCase cases[] = {
      {[&] { text.boolValue(); }, "runtime_error: Object type is not bool, but bool expected."},
      {[&] { O::CreateNegInteger(-1).posIntegerValue(); },
       "runtime_error: Object type is not positive integer, but positive integer expected."},
      {[&] { O::CreatePosInteger(1).negIntegerValue(); },
       "runtime_error: Object type is not negative integer, but negative integer expected."},
      {[&] { nil.floatValue(); }, "runtime_error: Object type is not float, but float expected."},
      {[&] { O::CreateBlob(nullptr, 0).stringValue(); },
       "runtime_error: Object type is not string, but string expected."},
      {[&] { text.blobData(); }, notBlob},
      {[&] { text.blobSize(); }, notBlob},
      {[&] { O(text).ReleaseBlobData(); }, notBlob},
      {[&] { O::CreateFloat(1).size(); }, "runtime_error: Object does not have size, array/map/string/blob expected."},
      {[&] { O(map).push_back(O()); }, "runtime_error: Object is not an array."},
      {[&] { map.at(0); }, "runtime_error: Object is not an array."},
      {[&] { array.at(0); }, "out_of_range: Index out of array range."},
      {[&] { one.at(1); }, "out_of_range: Index out of array range."},
      {[&] { O(array).insert("k", O()); }, "runtime_error: Object is not a map."},
      {[&] { array.keyAt(0); }, "runtime_error: Object is not a map."},
      {[&] { keyed.keyAt(1); }, "out_of_range: Index out of map range."},
      {[&] { keyed.valueAt(1); }, "out_of_range: Index out of map range."},
      {[&] { O(keyed).valueAt(1); }, "out_of_range: Index out of map range."},
      {[&] { text.findKey("k"); }, "runtime_error: Object is not a map."},
      {[&] { text.hasKey("k"); }, "runtime_error: Object is not a map."},
      {[&] { nil.valueForKey("k"); }, "runtime_error: Object is not a map."},
      {[&] { O(nil).valueForKey("k"); }, "runtime_error: Object is not a map."},
  };
  for (size_t i = 0; i < std::size(cases); ++i) EXPECT_EQ(Thrown(cases[i].call), cases[i].outcome) << "case " << i;
}

}  // namespace
