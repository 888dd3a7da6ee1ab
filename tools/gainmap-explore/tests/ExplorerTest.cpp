#include <gtest/gtest.h>

#include "Explorer.h"

namespace {

explore::Result run(char const* name, std::function<void()> const& body, int bound,
                    std::string replay = "") {
  explore::Options options;
  options.bound = bound;
  options.replay = std::move(replay);
  return explore::explore(name, body, options);
}

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
  EXPECT_FALSE(run("lost-update", lostUpdate, 0).failed);

  explore::Result const found = run("lost-update", lostUpdate, 1);
  ASSERT_TRUE(found.failed);
  EXPECT_EQ(found.failure, "an update was lost");
  ASSERT_EQ(found.replay.rfind("lost-update@", 0), 0u);

  explore::Result const replayed =
      run("lost-update", lostUpdate, 1, found.replay.substr(found.replay.find('@') + 1));
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
  for (auto [bound, schedules] : {std::pair{0, 2u}, {1, 6u}, {2, 14u}, {4, 20u}, {9, 20u}}) {
    explore::Result const result = run("two-by-two", body, bound);
    EXPECT_FALSE(result.failed) << result.failure;
    EXPECT_EQ(result.schedules, schedules) << "bound " << bound;
  }
}

TEST(Explorer, NamesTheThreadsOfADeadlock) {
  auto body = [] {
    int locks[2] = {};
    auto lockBoth = [](void const* a, void const* b) {
      return [a, b] {
        explore::acquire(a, "lockBoth");
        explore::acquire(b, "lockBoth");
        explore::release(b);
        explore::release(a);
      };
    };
    explore::spawn("ab", lockBoth(&locks[0], &locks[1]));
    explore::spawn("ba", lockBoth(&locks[1], &locks[0]));
    explore::joinAll();
  };
  explore::Result const result = run("deadlock", body, 1);
  ASSERT_TRUE(result.failed);
  EXPECT_EQ(result.failure,
            "deadlock: no thread can go on\n"
            "  main: waits: join\n"
            "  ab: waits to lock mutex#2 held by ba in lockBoth\n"
            "  ba: waits to lock mutex#1 held by ab in lockBoth");
}

}  // namespace
