#include <gtest/gtest.h>

#include "Explorer.h"

namespace {

explore::Result run(char const* name, int bound, std::function<void()> const& body) {
  explore::Options options;
  options.bound = bound;
  return explore::explore(name, body, options);
}

// Two threads add one to a counter, each by a read and a write with a scheduling point before
// each; a lost update fails the run if `checked`.
void twoAdds(bool checked) {
  int counter = 0;
  auto add = [&counter] {
    explore::point("read");
    int const read = counter;
    explore::point("write");
    counter = read + 1;
  };
  explore::spawn("a", add);
  explore::spawn("b", add);
  explore::joinAll();
  explore::check(!checked || counter == 2, "an update was lost");
}

TEST(Explorer, FindsALostUpdateWithOnePreemptionAndReplaysIt) {
  auto const lostUpdate = [] { twoAdds(true); };
  explore::Result const found = run("lost-update", 1, lostUpdate);
  EXPECT_EQ(found.failure, "an update was lost");
  ASSERT_EQ(found.replay.rfind("lost-update@", 0), 0u);
  explore::Options replay;
  replay.replay = found.replay.substr(found.replay.find('@') + 1);
  explore::Result const replayed = explore::explore("lost-update", lostUpdate, replay);
  EXPECT_EQ(std::make_tuple(replayed.schedules, replayed.failed, replayed.replay),
            std::make_tuple(uint64_t{1}, true, found.replay));
}

TEST(Explorer, CountsTheSchedulesOfTwoThreadsOfTwoPointsEach) {
  // Each thread runs three stretches (to its read, to its write, to its end): the interleavings of
  // aaa and bbb are C(6,3) = 20. One of the switches follows a thread's end, the others are
  // preemptions: 2 orders with 2 runs, 4 with 3, 8 with 4 runs.
  for (auto [bound, schedules] : {std::pair{0, 2u}, {1, 6u}, {2, 14u}, {4, 20u}, {9, 20u}}) {
    EXPECT_EQ(run("two-adds", bound, [] { twoAdds(false); }).schedules, schedules) << bound;
  }
}

TEST(Explorer, NamesTheThreadsOfADeadlock) {
  auto body = [] {
    int locks[2] = {};
    for (int first : {0, 1}) {
      explore::spawn(first == 0 ? "ab" : "ba", [&locks, first] {
        explore::acquire(&locks[first], "lockBoth");
        explore::acquire(&locks[1 - first], "lockBoth");
        explore::release(&locks[1 - first]);
        explore::release(&locks[first]);
      });
    }
    explore::joinAll();
  };
  EXPECT_EQ(run("deadlock", 1, body).failure,
            "deadlock: no thread can go on\n"
            "  main: waits: join\n"
            "  ab: waits to lock mutex#2 held by ba in lockBoth\n"
            "  ba: waits to lock mutex#1 held by ab in lockBoth");
}

}  // namespace
