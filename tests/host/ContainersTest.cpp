// TArray growth and removal, TSharedPtr release words, CString, CMemFile and
// number parsing.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <zeb/CMemFile.h>
#include <zeb/CString.h>
#include <zeb/Memory.h>
#include <zeb/Numbers.h>
#include <zeb/TArray.h>
#include <zeb/TSharedPtr.h>

namespace {

using zeb::CString;
using zeb::TArray;
using zeb::TSharedPtr;

// Counts live instances, to see construction and destruction in place.
struct SCounted {
  static int live;
  int value;
  explicit SCounted(int v = 0) : value(v) { ++live; }
  SCounted(const SCounted& o) : value(o.value) { ++live; }
  SCounted(SCounted&& o) noexcept : value(o.value) { ++live; }
  SCounted& operator=(const SCounted&) = default;
  SCounted& operator=(SCounted&&) = default;
  ~SCounted() { --live; }
};
int SCounted::live = 0;

std::string MessageOf(void (*action)()) {
  try {
    action();
  } catch (const zeb::COutOfRangeException& e) {
    return e.what();
  }
  return "(no exception)";
}

TEST(TArrayTest, CapacityDoublesFromOne) {
  TArray<int> array;
  std::vector<unsigned long> capacities;
  for (int i = 0; i < 9; ++i) {
    array.Add(i);
    capacities.push_back(array.capacity());
  }
  EXPECT_EQ(capacities, (std::vector<unsigned long>{1, 2, 4, 4, 8, 8, 8, 8, 16}));
  array.Clear();
  EXPECT_EQ(array.size(), 0u);
  EXPECT_EQ(array.capacity(), 16u);  // storage never shrinks
  array.Resize(40);                  // 16 doubled until it suffices
  EXPECT_EQ(array.capacity(), 64u);
  EXPECT_EQ(array[39], 0);           // value-initialised
}

TEST(TArrayTest, RemoveKeepsOrderDestroysInPlaceAndCopiesAreDeep) {
  {
    TArray<SCounted> array;
    for (int i = 0; i < 5; ++i) array.Add(SCounted(i));
    EXPECT_EQ(SCounted::live, 5);
    array.Remove(1);
    array.Remove(3);  // the former element 4
    EXPECT_EQ(SCounted::live, 3);
    array.Insert(1, SCounted(9));
    array.Add(array[0]);  // an element of the array itself, across a growth
    std::vector<int> values;
    for (const SCounted& element : array) values.push_back(element.value);
    EXPECT_EQ(values, (std::vector<int>{0, 9, 2, 3, 0}));

    TArray<SCounted> copy(array);
    copy[0].value = 7;
    EXPECT_EQ(array[0].value, 0);
    TArray<SCounted> moved(std::move(copy));
    EXPECT_EQ(copy.size(), 0u);
    EXPECT_EQ(moved[0].value, 7);
  }
  EXPECT_EQ(SCounted::live, 0);
}

// Copies and moves throw while `armed` (a type whose move may throw, as a
// copy that allocates may); counts live instances.
struct SFragile {
  static int live;
  static bool armed;
  int value;
  explicit SFragile(int v) : value(v) { ++live; }
  SFragile(const SFragile& o) : value(o.value) {
    if (armed) throw std::runtime_error("copy");
    ++live;
  }
  SFragile& operator=(const SFragile&) = default;
  ~SFragile() { --live; }
};
int SFragile::live = 0;
bool SFragile::armed = false;

// An element whose copy throws leaves count, elements and live instances as
// they were: with room to spare, across a growth, at the end and in the middle.
TEST(TArrayTest, ThrowingCopyLeavesTheArrayAsItWas) {
  struct SCase {
    const char* name;
    int elements;  // before the failing call, in a capacity of 4
    void (*action)(TArray<SFragile>&, const SFragile&);
  };
  const SCase cases[] = {
      {"add with room", 3, [](TArray<SFragile>& a, const SFragile& v) { a.Add(v); }},
      {"add growing", 4, [](TArray<SFragile>& a, const SFragile& v) { a.Add(v); }},
      {"insert at end", 3, [](TArray<SFragile>& a, const SFragile& v) { a.Insert(3, v); }},
      {"insert in middle", 3, [](TArray<SFragile>& a, const SFragile& v) { a.Insert(1, v); }},
  };
  for (const SCase& c : cases) {
    SCOPED_TRACE(c.name);
    {
      TArray<SFragile> array;
      array.Reserve(4);
      for (int i = 0; i < c.elements; ++i) array.Add(SFragile(i));
      const SFragile value(9);
      SFragile::armed = true;
      EXPECT_THROW(c.action(array, value), std::runtime_error);
      SFragile::armed = false;
      ASSERT_EQ(array.size(), static_cast<unsigned long>(c.elements));
      EXPECT_EQ(SFragile::live, c.elements + 1);
      for (int i = 0; i < c.elements; ++i) EXPECT_EQ(array[i].value, i);
    }
    EXPECT_EQ(SFragile::live, 0);
  }
}

TEST(TArrayTest, IndexErrorsCarryTheirMessages) {
  const std::pair<void (*)(), const char*> cases[] = {
      {[] { (void)TArray<int>()[0]; }, "TArray: index out of range."},
      {[] { TArray<int> a; a.Add(1); (void)a[1]; }, "TArray: index out of range."},
      {[] { TArray<CString> a; a.Add("x"); a.Remove(1); }, "TArray::remove: index out of range."},
  };
  for (const auto& c : cases) EXPECT_EQ(MessageOf(c.first), c.second);
}

// Release word: records the object pointer it was called with.
void* g_released = nullptr;
void RecordRelease(void* object) { g_released = object; }

struct SBase {
  virtual ~SBase() { ++destroyed; }
  static int destroyed;
};
int SBase::destroyed = 0;
struct SDerived : SBase {};

TEST(TSharedPtrTest, ReleaseWordDecidesWhatHappensToTheObject) {
  SBase::destroyed = 0;
  {
    TSharedPtr<SDerived> derived(new SDerived);
    TSharedPtr<SBase> base = derived;  // shares the counter
    EXPECT_EQ(base.use_count(), 2u);
    EXPECT_EQ(base.release(), nullptr);
  }
  EXPECT_EQ(SBase::destroyed, 1);  // deleted once, through the virtual destructor

  SDerived borrowed;
  {
    TSharedPtr<SBase> a = TSharedPtr<SBase>::Borrow(&borrowed);
    TSharedPtr<SBase> b = a;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(a.release()), ~uintptr_t(0));
  }
  EXPECT_EQ(SBase::destroyed, 1);  // nothing released

  SDerived owned;
  {
    TSharedPtr<SBase> a(&owned, &RecordRelease);
    TSharedPtr<SBase> b(std::move(a));
    EXPECT_FALSE(a);
    EXPECT_EQ(g_released, nullptr);
  }
  EXPECT_EQ(g_released, static_cast<void*>(static_cast<SBase*>(&owned)));
  EXPECT_EQ(SBase::destroyed, 1);

  TSharedPtr<SBase> view(new SDerived);
  EXPECT_TRUE(view.DynamicCast<SDerived>());
  EXPECT_EQ(view.use_count(), 1u);  // the cast's copy is gone again
}

TEST(CMemFileTest, ReadsWritesGrowsAndConvertsSharingTheCounter) {
  TSharedPtr<zeb::CMemFile> mem = zeb::CMemFile::Create();
  TSharedPtr<zeb::IFile> file = mem;
  EXPECT_EQ(file.counter(), mem.counter());
  EXPECT_TRUE(file->WriteBytes("abcdef", 6));
  EXPECT_TRUE(file->WriteBytes("", 0));
  EXPECT_EQ(file->Seek(2, zeb::IFile::kSeekEnd), 8);
  EXPECT_EQ(file->Write("Z", 1), 1u);  // past the end: the gap reads as zeros
  EXPECT_EQ(file->GetSize(), 9);
  EXPECT_EQ(file->SeekToBegin(), 0);
  char buffer[16] = {};
  EXPECT_EQ(file->Read(buffer, sizeof buffer), 9u);
  EXPECT_EQ(std::string(buffer, 9), std::string("abcdef\0\0Z", 9));
  EXPECT_EQ(file->Read(buffer, 1), 0u);
  EXPECT_EQ(file->Seek(-100, zeb::IFile::kSeekCurrent), 0);
  EXPECT_EQ(file->Seek(5, 7), 0);  // unknown origin: unchanged
  EXPECT_TRUE(file->SetSize(3));
  EXPECT_EQ(file->GetSize(), 3);
}

TEST(CStringTest, Operations) {
  const CString s("Run A:INFO");
  EXPECT_TRUE(s.EndsWithNoCase(":info"));
  EXPECT_FALSE(s.EndsWith(":info"));
  EXPECT_TRUE(s.StartsWith("Run"));
  EXPECT_FALSE(s.StartsWith("run"));
  EXPECT_EQ(s.find(':', 0), 5u);
  EXPECT_EQ(s.find('x', 0), CString::npos);
  EXPECT_STREQ(s.substr(6, CString::npos).c_str(), "INFO");
  EXPECT_STREQ(s.Mid(0, static_cast<int>(s.length()) - 5).c_str(), "Run A");
  EXPECT_STREQ(s.SubString(0, 3).c_str(), "Run");
  EXPECT_STREQ(CString(nullptr).c_str(), "");
  EXPECT_STREQ(CString(nullptr, -1).c_str(), "");
  EXPECT_STREQ(CString("abcdef", 3).c_str(), "abc");
  EXPECT_EQ(CString("a\0b", 3).length(), 3u);
  EXPECT_STREQ(CString::FromFormat("%lu-%s", 12UL, "Run").c_str(), "12-Run");
  EXPECT_TRUE(CString("x") != "y");
  EXPECT_STREQ((CString("a") + "b").c_str(), "ab");
}

// Short texts are formatted once into a stack buffer, longer ones twice; the
// lengths around that buffer's size, and a text formatted from itself.
TEST(CStringTest, FormatAroundTheShortTextBuffer) {
  for (size_t length : {0u, 1u, 255u, 256u, 257u, 4000u}) {
    SCOPED_TRACE(length);
    const std::string text(length, 'x');
    CString s;
    s.Format("%s", text.c_str());
    EXPECT_EQ(std::string(s.c_str(), s.length()), text);
    s.Format("<%s|%s>", s.c_str(), text.c_str());
    EXPECT_EQ(std::string(s.c_str()), "<" + text + "|" + text + ">");
  }
}

TEST(NumbersTest, ParseIsStrictAndSaturates) {
  struct SCase {
    const char* text;
    unsigned long u64;
    unsigned int u32;
    unsigned short u16;
    bool number;
  };
  const SCase cases[] = {
      {"0", 0, 0, 0, true},
      {"640", 640, 640, 640, true},
      {"65536", 65536, 65536, 65535, true},
      {"4294967296", 4294967296UL, 4294967295u, 65535, true},
      {"18446744073709551615", ~0UL, 4294967295u, 65535, true},
      {"18446744073709551616", ~0UL, 4294967295u, 65535, true},
      {"", 0, 0, 0, false},
      {"12a", 0, 0, 0, false},
      {"-1", 0, 0, 0, false},
      {" 1", 0, 0, 0, false},
      {nullptr, 0, 0, 0, false},
  };
  for (const SCase& c : cases) {
    SCOPED_TRACE(c.text ? c.text : "(null)");
    EXPECT_EQ(zeb::CUInt64::Parse(c.text), c.u64);
    EXPECT_EQ(zeb::CUInt32::Parse(c.text), c.u32);
    EXPECT_EQ(zeb::CUInt16::Parse(c.text), c.u16);
    unsigned short value = 7;
    const bool fits = c.number && c.u16 == c.u64;
    EXPECT_EQ(zeb::CUInt16::TryParse(c.text, value), fits);
    EXPECT_EQ(value, fits ? c.u16 : 7);
  }
  EXPECT_STREQ(zeb::CUInt64::ToString(~0UL).c_str(), "18446744073709551615");
  EXPECT_STREQ(zeb::CUInt16::ToString(0).c_str(), "0");
  EXPECT_STREQ(zeb::to_string(-60210988L).c_str(), "-60210988");
  EXPECT_STREQ(zeb::to_string(4294967295u).c_str(), "4294967295");
}

}  // namespace
