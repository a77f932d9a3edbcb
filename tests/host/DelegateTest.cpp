// delegate<void()>: words, copies, moves, equality and the FromLamda target.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include <zeb/delegate.h>
#include <zeb/zebDelegate.h>

namespace {

using Delegate = zeb::delegate<void()>;

// The reference count that FromLamda keeps right after the clone/destroy pair.
uint32_t CountOf(const Delegate& d) {
  const char* pair = reinterpret_cast<const char*>(d.table());
  return reinterpret_cast<const std::atomic<uint32_t>*>(pair + 2 * sizeof(void*))->load();
}

// A function object of known layout, to find it at the start of the target.
struct SCounter {
  int* calls;
  std::shared_ptr<int> alive;
  void operator()() const { *calls += *alive == 0x5eed ? 1 : 100; }
};

TEST(DelegateTest, FromLamdaLayoutAndCloneCount) {
  int calls = 0;
  auto alive = std::make_shared<int>(0x5eed);
  std::weak_ptr<int> watch = alive;
  {
    Delegate d = Delegate::FromLamda(SCounter{&calls, alive});
    alive.reset();
    ASSERT_NE(d.table(), nullptr);
    // The function object comes first in the target, the pair right after it.
    EXPECT_EQ(*static_cast<int**>(d.target()), &calls);
    EXPECT_EQ(CountOf(d), 1u);
    d();
    EXPECT_EQ(calls, 1);

    Delegate copy(d);
    EXPECT_EQ(CountOf(d), 2u);
    EXPECT_TRUE(copy == d);  // clone returns the same target
    Delegate assigned;
    assigned = copy;
    EXPECT_EQ(CountOf(d), 3u);

    Delegate moved(std::move(copy));
    EXPECT_EQ(copy.invoker(), nullptr);
    EXPECT_EQ(copy.target(), nullptr);
    EXPECT_EQ(copy.table(), nullptr);
    EXPECT_EQ(CountOf(d), 3u);  // a move takes no reference
    copy();                     // empty: does nothing
    moved();
    EXPECT_EQ(calls, 2);

    // Through the C view: the handle owns one reference and gives it back.
    zebDelegate handle = zeb::ToC(Delegate(d));
    EXPECT_EQ(CountOf(d), 4u);
    zebDelegate_Destroy(handle);
    EXPECT_EQ(CountOf(d), 3u);
    EXPECT_FALSE(watch.expired());
  }
  EXPECT_TRUE(watch.expired());  // last destroy freed the target and its capture
  zebDelegate_Destroy(zebDelegate{nullptr, nullptr, nullptr});  // empty: nothing
}

// Handler lists (move in, equal copies, removal) are checked with the file
// system's handlers; here only what they rest on.
TEST(DelegateTest, EqualityIsAllThreeWords) {
  auto noop = [] { return Delegate::FromLamda([] {}); };  // one closure type
  EXPECT_FALSE(noop() == noop());  // one invoker, two targets
  EXPECT_TRUE(Delegate() == Delegate());
}

}  // namespace
