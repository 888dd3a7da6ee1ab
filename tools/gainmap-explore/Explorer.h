#pragma once

// A deterministic scheduler that explores the interleavings of a few threads of real code.
//
// A scenario is a body run as the thread "main": plain setup, then spawn() a few threads, then
// joinAll() and checks. The scheduler runs one thread at a time and decides at every scheduling
// point which thread goes on: the pool's copy built for the explorer has a point before each lock
// of a gainmap::Mutex, each access of a gainmap::Atomic and each wait on a step's future, and the
// explorer's task manager runs each queue on a thread of its own ("daemon"), one task at a time
// in posting order. Choices are made only between the first spawn() and the end of joinAll(); the
// setup and the checks run without preemption.
//
// Strategies: every schedule with at most `bound` preemptions (a switch away from a thread that
// could go on), depth first; or PCT (random priorities with depth-1 change points), for scenarios
// too large to exhaust. A run fails when a check() fails, when no thread can go on (deadlock),
// after `stepLimit` points, or when a replayed prefix offers other threads than it did before
// (the scenario is not deterministic). Every failure prints one replay string,
// "scenario@choices"; runMain's --replay reruns exactly that schedule with a trace of every point.
//
//   explore::Scenario{"lost update", 1, [] {
//     int shared = 0;
//     explore::spawn("a", [&] { int v = shared; explore::point("read"); shared = v + 1; });
//     explore::spawn("b", [&] { ... });
//     explore::joinAll();
//     explore::check(shared == 2, "an update was lost");
//   }};

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace explore {

struct Options {
  int bound = 2;
  // PCT instead of exhaustive search: this many runs, seeds seed, seed+1, ...
  uint64_t pctRuns = 0;
  uint64_t seed = 1;
  int depth = 3;
  // Replay this choice string (the part after '@') instead of exploring.
  std::string replay;
  bool trace = false;
  uint64_t stepLimit = 20000;
  // Under ThreadSanitizer: keep the scheduler's hand-overs out of its sight, so that threads are
  // ordered only by their own synchronisation (and by spawn, join and settle) and a data race
  // between them is reported. runMain sets it.
  bool showRaces = false;
};

struct Result {
  uint64_t schedules = 0;
  bool failed = false;
  std::string failure;
  std::string replay;  // "scenario@choices" of the failing schedule
};

struct Scenario {
  std::string name;
  int bound;  // preemption bound of the exhaustive search
  std::function<void()> body;
};

// Explores `body` under `options`; stops at the first failing schedule.
Result explore(std::string const& name, std::function<void()> const& body, Options const& options);

// In a scenario's body and its threads.
void spawn(std::string const& name, std::function<void()> fn);
// A thread that serves others (a task queue): the run may end while it waits with waitIdle().
void spawnDaemon(std::string const& name, std::function<void()> fn);
// Waits for every spawned thread to end and every daemon to wait idle; ends the explored part.
void joinAll();
// Waits until every daemon waits idle.
void settle();
// Records a failure of this schedule; the run goes on to its end.
void check(bool ok, std::string const& what);
// A scheduling point before an action on `object`.
void point(char const* what, void const* object = nullptr, char const* site = "");
// A mutex as the scheduler sees it: acquire waits until no other thread owns it.
void acquire(void const* mutex, char const* site);
void release(void const* mutex);
// Waits until `ready` holds.
void waitUntil(char const* what, std::function<bool()> const& ready, char const* site);
// A daemon's wait for work: false when the run has ended and the daemon must stop.
bool waitIdle(char const* what, std::function<bool()> const& ready);
// Whether the caller runs under the scheduler.
bool scheduled();

// The explorer's program: runs every scenario (or those named by --scenario) to its bound and
// prints how many schedules each ran. Options: --bound N, --pct RUNS [--seed S] [--depth D],
// --replay STRING, --list. Returns the process's exit status.
int runMain(int argc, char** argv, std::vector<Scenario> const& scenarios);

}  // namespace explore
