#include <gtest/gtest.h>

#include "Explorer.h"

namespace {

// Two threads add one to a counter by a read and a write with a scheduling point between them.
void lostUpdate() {
  int counter = 0;
  auto add = [&counter] {
    int const read = counter;
    explore::point("write");
    counter = read + 1;
  };
  explore::spawn("a", add);
  explore::spawn("b", add);
  explore::joinAll();
  explore::check(counter == 2, "an update was lost");
}

TEST(Explorer, FindsALostUpdateWithOnePreemptionAndReplaysIt) {
  explore::Options options;
  options.bound = 0;
  EXPECT_FALSE(explore::explore("lost-update", lostUpdate, options).failed);

  options.bound = 1;
  explore::Result const found = explore::explore("lost-update", lostUpdate, options);
  ASSERT_TRUE(found.failed);
  EXPECT_EQ(found.failure, "an update was lost");
  ASSERT_EQ(found.replay.rfind("lost-update@", 0), 0u);

  options.replay = found.replay.substr(found.replay.find('@') + 1);
  explore::Result const replayed = explore::explore("lost-update", lostUpdate, options);
  EXPECT_EQ(replayed.schedules, 1u);
  EXPECT_TRUE(replayed.failed);
  EXPECT_EQ(replayed.replay, found.replay);
}

TEST(Explorer, CountsTheSchedulesOfTwoThreadsOfTwoPointsEach) {
  auto body = [] {
    auto twoPoints = [] {
      explore::point("first");
      explore::point("second");
    };
    explore::spawn("a", twoPoints);
    explore::spawn("b", twoPoints);
    explore::joinAll();
  };
  // Each thread runs three stretches (to its first point, to its second, to its end): the
  // interleavings of aaa and bbb are C(6,3) = 20. One of the switches follows a thread's end, the
  // others are preemptions: 2 orders with 2 runs, 4 with 3, 8 with 4 runs.
  struct Case {
    int bound;
    uint64_t schedules;
  };
  for (Case c : {Case{0, 2}, Case{1, 6}, Case{2, 14}, Case{4, 20}, Case{9, 20}}) {
    explore::Options options;
    options.bound = c.bound;
    explore::Result const result = explore::explore("two-by-two", body, options);
    EXPECT_FALSE(result.failed) << result.failure;
    EXPECT_EQ(result.schedules, c.schedules) << "bound " << c.bound;
  }
}

TEST(Explorer, NamesTheThreadsOfADeadlock) {
  auto body = [] {
    int first = 0;
    int second = 0;
    auto lockBoth = [](void const* a, void const* b) {
      return [a, b] {
        explore::acquire(a, "lockBoth");
        explore::acquire(b, "lockBoth");
        explore::release(b);
        explore::release(a);
      };
    };
    explore::spawn("ab", lockBoth(&first, &second));
    explore::spawn("ba", lockBoth(&second, &first));
    explore::joinAll();
  };
  explore::Options options;
  options.bound = 1;
  explore::Result const result = explore::explore("deadlock", body, options);
  ASSERT_TRUE(result.failed);
  EXPECT_EQ(result.failure,
            "deadlock: no thread can go on\n"
            "  main: waits: join\n"
            "  ab: waits to lock mutex#2 held by ba in lockBoth\n"
            "  ba: waits to lock mutex#1 held by ab in lockBoth");
}

}  // namespace
