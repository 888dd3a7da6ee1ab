// The scheduler: every thread of a run is a real thread, and a token passed under one mutex lets
// exactly one of them run at a time. A thread gives the token up only at a scheduling point, where
// it records what it waits to do (lock a mutex, see a condition hold, or nothing); the scheduler
// then chooses among the threads able to go on. Lock order: none besides mMutex.

#include "Explorer.h"

#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>

extern "C" void __sanitizer_set_death_callback(void (*callback)()) __attribute__((weak));

#if defined(__SANITIZE_THREAD__)
#define EXPLORE_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define EXPLORE_TSAN 1
#endif
#endif

#if defined(EXPLORE_TSAN)
extern "C" {
void AnnotateIgnoreSyncBegin(char const* file, int line);
void AnnotateIgnoreSyncEnd(char const* file, int line);
void AnnotateIgnoreReadsBegin(char const* file, int line);
void AnnotateIgnoreReadsEnd(char const* file, int line);
void AnnotateIgnoreWritesBegin(char const* file, int line);
void AnnotateIgnoreWritesEnd(char const* file, int line);
void __tsan_acquire(void* address);
void __tsan_release(void* address);
}
#endif

namespace explore {
namespace {

enum class Wait { None, Lock, Until, Idle };

class Run;

struct Thread {
  Run* run = nullptr;
  int id = 0;
  std::string name;
  bool daemon = false;
  bool finished = false;
  // The run has ended while this daemon waited idle: it stops.
  bool abandoned = false;
  Wait wait = Wait::None;
  std::function<bool()> ready;
  // The point the thread stands at, for traces and failure reports.
  char const* what = "start";
  void const* object = nullptr;
  char const* site = "";
  uint64_t priority = 0;
  std::thread os;
};

struct Choice {
  std::vector<int> enabled;
  int current;  // the thread at the point, or -1 when it cannot go on
  int chosen;
};

thread_local Thread* tSelf = nullptr;

// Under ThreadSanitizer the scheduler's own locking can stay out of sight (Options::showRaces):
// otherwise every token passed would order the threads, and a race in the code under test would
// never show. What a run's threads may rely on is then ordered explicitly: a spawn before the
// thread, a thread's end or idle wait before a join or settle. Set before any run, constant while
// threads run.
bool gHidden = false;
#if defined(EXPLORE_TSAN)
void hideSync(bool hide) {
  if (gHidden) {
    hide ? AnnotateIgnoreSyncBegin(__FILE__, __LINE__) : AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
  }
}
void hideAccesses(bool hide) {
  if (gHidden && hide) {
    AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
    AnnotateIgnoreWritesBegin(__FILE__, __LINE__);
  } else if (gHidden) {
    AnnotateIgnoreWritesEnd(__FILE__, __LINE__);
    AnnotateIgnoreReadsEnd(__FILE__, __LINE__);
  }
}
void publish(void* address) {
  __tsan_release(address);
}
void observe(void* address) {
  __tsan_acquire(address);
}
#else
void hideSync(bool) {}
void hideAccesses(bool) {}
void publish(void*) {}
void observe(void*) {}
#endif

struct Unseen {
  Unseen() {
    hideSync(true);
    hideAccesses(true);
  }
  ~Unseen() {
    hideAccesses(false);
    hideSync(false);
  }
};
// Inside an Unseen region: the spawner's work is ordered before the new thread.
struct SeenSync {
  SeenSync() { hideSync(false); }
  ~SeenSync() { hideSync(true); }
};

// The scheduler's mutex, held.
struct Token {
  explicit Token(std::mutex& mutex) : lock(mutex) {}
  Unseen unseen;
  std::unique_lock<std::mutex> lock;
};

// The schedule running now, as its replay string, for a report from a signal handler.
char gReplay[8192];
size_t gReplayLength = 0;

void setReplay(std::string const& text) {
  gReplayLength = std::min(text.size(), sizeof(gReplay));
  std::memcpy(gReplay, text.data(), gReplayLength);
}

void appendReplay(char c) {
  if (gReplayLength < sizeof(gReplay)) {
    gReplay[gReplayLength++] = c;
  }
}

void printReplay() {
  // Only async-signal-safe calls: a crash in the code under test lands here.
  constexpr char kHead[] = "\nreplay: ";
  ssize_t ignored = ::write(2, kHead, sizeof(kHead) - 1);
  ignored = ::write(2, gReplay, gReplayLength);
  ignored = ::write(2, "\n", 1);
  (void)ignored;
}

extern "C" void onFatalSignal(int signal) {
  printReplay();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

void reportCrashes() {
  for (int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
    std::signal(signal, onFatalSignal);
  }
  if (__sanitizer_set_death_callback != nullptr) {
    __sanitizer_set_death_callback(printReplay);
  }
}

constexpr char kDigits[] = "0123456789abcdefghijklmnopqrstuvwxyz";

std::string encode(std::vector<Choice> const& trail) {
  std::string text;
  for (Choice const& choice : trail) {
    text += kDigits[choice.chosen];
  }
  return text;
}

bool decode(std::string const& text, std::vector<int>* script) {
  for (char c : text) {
    char const* digit = std::strchr(kDigits, c);
    if (c == '\0' || digit == nullptr) {
      return false;
    }
    script->push_back(static_cast<int>(digit - kDigits));
  }
  return true;
}

class Run {
 public:
  Run(std::string const& name, Options const& options, std::vector<int> script,
      std::vector<Choice> const* previous, uint64_t pctSeed, uint64_t pctSteps)
      : mOptions(options), mScript(std::move(script)), mPrevious(previous), mRandom(pctSeed) {
    mPct = options.pctRuns > 0;
    for (int i = 1; mPct && pctSteps > 0 && i < options.depth; ++i) {
      mChangeSteps.push_back(1 + mRandom() % pctSteps);
    }
    setReplay(name + "@");
  }

  // Runs `body` as "main" to its end. False when the run had to stop (its threads stay blocked
  // and the run must be leaked).
  bool execute(std::function<void()> const& body) {
    {
      Token token(mMutex);
      mRunning = addThread("main", false, body).id;
      mChanged.notify_all();
      mChanged.wait(token.lock, [this] { return mDone || !mFatal.empty(); });
      if (!mFatal.empty()) {
        for (auto& thread : mThreads) {
          thread->os.detach();
        }
        return false;
      }
    }
    // In sight of ThreadSanitizer: the run's threads are done before it is destroyed.
    for (auto& thread : mThreads) {
      thread->os.join();
    }
    return true;
  }

  void spawn(std::string const& name, bool daemon, std::function<void()> fn) {
    Token token(mMutex);
    if (!daemon) {
      mExploring = true;
    }
    addThread(name, daemon, std::move(fn));
  }

  void point(Thread& me, Wait wait, char const* what, void const* object, char const* site) {
    Token token(mMutex);
    std::unique_lock<std::mutex>& lock = token.lock;
    me.wait = wait;
    me.what = what;
    me.object = object;
    me.site = site;
    step(lock, me);
    if (wait == Wait::Lock) {
      mOwners[object] = me.id;
    }
    me.wait = Wait::None;
    me.ready = nullptr;
  }

  void waitFor(Thread& me, Wait wait, char const* what, std::function<bool()> ready,
               char const* site) {
    {
      Token token(mMutex);
      me.ready = std::move(ready);
    }
    point(me, wait, what, nullptr, site);
  }

  void release(void const* mutex) {
    Token token(mMutex);
    mOwners.erase(mutex);
  }

  void check(bool ok, std::string const& what) {
    if (!ok) {
      Token token(mMutex);
      mFailures.push_back(what);
    }
  }

  // Evaluated under mMutex, by the thread that chooses.
  bool daemonsIdle() const {
    return std::all_of(mThreads.begin(), mThreads.end(), [](auto const& t) {
      return !t->daemon || t->finished || (t->wait == Wait::Idle && !t->ready());
    });
  }
  bool othersDone(Thread const& me) const {
    return std::all_of(mThreads.begin(), mThreads.end(),
                       [&](auto const& t) { return t.get() == &me || t->daemon || t->finished; });
  }
  void publishJoin() { publish(&mJoin); }
  void observeJoin() { observe(&mJoin); }
  bool abandoned(Thread const& me) {
    Token token(mMutex);
    return me.abandoned;
  }
  void stopExploring() {
    Token token(mMutex);
    mExploring = false;
  }
  bool exploring() {
    Token token(mMutex);
    return mExploring;
  }

  std::vector<Choice> const& trail() const { return mTrail; }
  std::vector<std::string> const& failures() const { return mFailures; }
  std::string const& fatal() const { return mFatal; }
  uint64_t steps() const { return mSteps; }

 private:
  Thread& addThread(std::string const& name, bool daemon, std::function<void()> fn) {
    auto thread = std::make_unique<Thread>();
    Thread* t = thread.get();
    t->run = this;
    t->id = static_cast<int>(mThreads.size());
    t->name = name;
    t->daemon = daemon;
    t->priority = static_cast<uint64_t>(mOptions.depth) + mRandom() % 1000000;
    mThreads.push_back(std::move(thread));
    SeenSync seen;
    t->os = std::thread([this, t, fn = std::move(fn)] {
      tSelf = t;
      {
        Token token(mMutex);
        std::unique_lock<std::mutex>& lock = token.lock;
        waitTurn(lock, *t);
      }
      fn();
      publish(&mJoin);
      finish(*t);
    });
    return *t;
  }

  void finish(Thread& me) {
    Token token(mMutex);
    std::unique_lock<std::mutex>& lock = token.lock;
    me.finished = true;
    me.what = "end";
    if (!me.abandoned) {
      handOff(lock, me);
    }
  }

  void waitTurn(std::unique_lock<std::mutex>& lock, Thread& me) {
    mChanged.wait(lock, [&] { return mRunning == me.id || me.abandoned; });
  }

  bool enabled(Thread const& t) const {
    if (t.finished || t.abandoned) {
      return false;
    }
    switch (t.wait) {
      case Wait::Lock:
        return mOwners.count(t.object) == 0;
      case Wait::Until:
      case Wait::Idle:
        return t.ready();
      case Wait::None:
        break;
    }
    return true;
  }

  void step(std::unique_lock<std::mutex>& lock, Thread& me) {
    ++mSteps;
    for (size_t i = 0; i < mChangeSteps.size(); ++i) {
      if (mChangeSteps[i] == mSteps) {
        me.priority = i + 1;
      }
    }
    std::string const object = nameOf(me.object, me.wait);
    if (mOptions.trace) {
      std::printf("%6llu %-12s %s %s%s%s\n", static_cast<unsigned long long>(mSteps),
                  me.name.c_str(), me.what, object.c_str(), *me.site != '\0' ? " in " : "",
                  me.site);
    }
    if (mSteps > mOptions.stepLimit) {
      fail(lock, "step limit of " + std::to_string(mOptions.stepLimit) + " points reached");
    }
    handOff(lock, me);
  }

  // `me` stands at a point or has ended: choose who goes on, and wait for the token if it is not
  // `me`.
  void handOff(std::unique_lock<std::mutex>& lock, Thread& me) {
    std::vector<int> able;
    for (auto const& t : mThreads) {
      if (enabled(*t)) {
        able.push_back(t->id);
      }
    }
    if (able.empty()) {
      bool const done = std::all_of(mThreads.begin(), mThreads.end(), [](auto const& t) {
        return t->finished || (t->daemon && t->wait == Wait::Idle);
      });
      if (!done) {
        fail(lock, "deadlock: no thread can go on");
      }
      for (auto& t : mThreads) {
        t->abandoned = !t->finished;
      }
      mDone = true;
      mRunning = -1;
      mChanged.notify_all();
      return;
    }
    int const current = enabled(me) ? me.id : -1;
    int const next = choose(lock, able, current);
    if (next == me.id) {
      return;
    }
    if (mOptions.trace && mExploring) {
      std::printf("       -> %s%s\n", mThreads[static_cast<size_t>(next)]->name.c_str(),
                  current >= 0 ? " (preempts)" : "");
    }
    mRunning = next;
    mChanged.notify_all();
    if (!me.finished) {
      waitTurn(lock, me);
    }
  }

  int choose(std::unique_lock<std::mutex>& lock, std::vector<int> const& able, int current) {
    if (able.size() == 1 || !mExploring) {
      return current >= 0 ? current : able.front();
    }
    size_t const k = mTrail.size();
    int chosen = current >= 0 ? current : able.front();
    if (k < mScript.size()) {
      chosen = mScript[k];
      bool const offered = std::find(able.begin(), able.end(), chosen) != able.end();
      if (!offered ||
          (mPrevious != nullptr && k < mPrevious->size() && (*mPrevious)[k].enabled != able)) {
        fail(lock, "not deterministic: choice " + std::to_string(k) +
                       " offers other threads than before");
      }
    } else if (mPct) {
      chosen = *std::max_element(able.begin(), able.end(), [this](int a, int b) {
        return mThreads[static_cast<size_t>(a)]->priority <
               mThreads[static_cast<size_t>(b)]->priority;
      });
    }
    mTrail.push_back(Choice{able, current, chosen});
    appendReplay(kDigits[chosen]);
    return chosen;
  }

  [[noreturn]] void fail(std::unique_lock<std::mutex>& lock, std::string const& why) {
    std::string text = why;
    for (auto const& t : mThreads) {
      text += "\n  " + t->name + ": " + describe(*t);
    }
    mFatal = text;
    mRunning = -1;
    mChanged.notify_all();
    // This thread and every other stay blocked; the controller leaks the run.
    for (;;) {
      mChanged.wait(lock);
    }
  }

  std::string describe(Thread const& t) {
    if (t.finished) {
      return "ended";
    }
    std::string text;
    switch (t.wait) {
      case Wait::Lock: {
        auto owner = mOwners.find(t.object);
        text = "waits to lock " + nameOf(t.object, t.wait);
        if (owner != mOwners.end()) {
          text += " held by " + mThreads[static_cast<size_t>(owner->second)]->name;
        }
        break;
      }
      case Wait::Until:
      case Wait::Idle:
        text = std::string("waits: ") + t.what;
        break;
      case Wait::None:
        text = std::string("at ") + t.what + " " + nameOf(t.object, t.wait);
        break;
    }
    return *t.site != '\0' ? text + " in " + t.site : text;
  }

  // Objects are named in the order a run first meets them, the same in every replay.
  std::string nameOf(void const* object, Wait wait) {
    if (object == nullptr) {
      return "";
    }
    auto named = mNames.find(object);
    if (named == mNames.end()) {
      std::string const kind = wait == Wait::Lock ? "mutex#" : "var#";
      named = mNames.emplace(object, kind + std::to_string(mNames.size() + 1)).first;
    }
    return named->second;
  }

  Options const mOptions;
  std::vector<int> const mScript;
  std::vector<Choice> const* const mPrevious;
  bool mPct = false;
  std::vector<uint64_t> mChangeSteps;
  std::mt19937_64 mRandom;

  std::mutex mMutex;  // guards everything below, and hands the token over
  std::condition_variable mChanged;
  std::vector<std::unique_ptr<Thread>> mThreads;
  int mRunning = -1;
  bool mDone = false;
  bool mExploring = false;
  std::map<void const*, int> mOwners;
  std::map<void const*, std::string> mNames;
  std::vector<Choice> mTrail;
  std::vector<std::string> mFailures;
  std::string mFatal;
  uint64_t mSteps = 0;
  // What threads publish at their end or idle wait, for a join or settle to observe.
  char mJoin = 0;
};

// The next schedule of a depth-first search: the deepest choice with an untried alternative
// within the preemption bound. Alternatives are tried in the order the default takes them: the
// current thread first, then the others by id.
bool nextScript(std::vector<Choice> const& trail, int bound, std::vector<int>* script) {
  std::vector<int> preemptions(trail.size() + 1, 0);
  for (size_t k = 0; k < trail.size(); ++k) {
    Choice const& c = trail[k];
    preemptions[k + 1] = preemptions[k] + (c.current >= 0 && c.chosen != c.current ? 1 : 0);
  }
  for (size_t k = trail.size(); k-- > 0;) {
    Choice const& c = trail[k];
    std::vector<int> order;
    if (c.current >= 0) {
      order.push_back(c.current);
    }
    for (int id : c.enabled) {
      if (id != c.current) {
        order.push_back(id);
      }
    }
    auto const tried = std::find(order.begin(), order.end(), c.chosen);
    for (auto alternative = tried + 1; alternative != order.end(); ++alternative) {
      int const cost = preemptions[k] + (c.current >= 0 ? 1 : 0);
      if (cost <= bound) {
        script->clear();
        for (size_t j = 0; j < k; ++j) {
          script->push_back(trail[j].chosen);
        }
        script->push_back(*alternative);
        return true;
      }
    }
  }
  return false;
}

Thread& self(char const* call) {
  if (tSelf == nullptr) {
    std::fprintf(stderr, "explore::%s called outside a scheduled run\n", call);
    std::abort();
  }
  return *tSelf;
}

}  // namespace

Result explore(std::string const& name, std::function<void()> const& body, Options const& options) {
  gHidden = options.showRaces;
  Result result;
  std::vector<int> script;
  if (!options.replay.empty() && !decode(options.replay, &script)) {
    result.failed = true;
    result.failure = "not a replay string: " + options.replay;
    return result;
  }
  std::vector<Choice> previous;
  uint64_t pctSteps = 0;
  for (;;) {
    auto run = std::make_unique<Run>(name, options, script, previous.empty() ? nullptr : &previous,
                                     options.seed + result.schedules, pctSteps);
    bool const ended = run->execute(body);
    ++result.schedules;
    if (!ended || !run->failures().empty()) {
      result.failed = true;
      result.replay = name + "@" + encode(run->trail());
      result.failure = run->fatal();
      for (std::string const& failure : run->failures()) {
        result.failure += (result.failure.empty() ? "" : "\n") + failure;
      }
      if (!ended) {
        // Its threads are blocked for good and still use it.
        run.release();
      }
      return result;
    }
    if (!options.replay.empty()) {
      return result;
    }
    if (options.pctRuns > 0) {
      pctSteps = run->steps();
      if (result.schedules >= options.pctRuns) {
        return result;
      }
      continue;
    }
    previous = run->trail();
    if (!nextScript(previous, options.bound, &script)) {
      return result;
    }
  }
}

void spawn(std::string const& name, std::function<void()> fn) {
  Thread& me = self(__func__);
  if (!me.run->exploring()) {
    settle();
  }
  me.run->spawn(name, false, std::move(fn));
}

void spawnDaemon(std::string const& name, std::function<void()> fn) {
  self(__func__).run->spawn(name, true, std::move(fn));
}

void joinAll() {
  Thread& me = self(__func__);
  Run* run = me.run;
  me.run->waitFor(
      me, Wait::Until, "join", [run, &me] { return run->othersDone(me) && run->daemonsIdle(); },
      "");
  run->observeJoin();
  run->stopExploring();
}

void settle() {
  Thread& me = self(__func__);
  Run* run = me.run;
  run->waitFor(
      me, Wait::Until, "settle", [run] { return run->daemonsIdle(); }, "");
  run->observeJoin();
}

void check(bool ok, std::string const& what) {
  self(__func__).run->check(ok, what);
}

bool scheduled() {
  return tSelf != nullptr;
}

void point(char const* what, void const* object, char const* site) {
  if (tSelf != nullptr) {
    tSelf->run->point(*tSelf, Wait::None, what, object, site);
  }
}

void acquire(void const* mutex, char const* site) {
  if (tSelf != nullptr) {
    tSelf->run->point(*tSelf, Wait::Lock, "lock", mutex, site);
  }
}

void release(void const* mutex) {
  if (tSelf != nullptr) {
    tSelf->run->release(mutex);
  }
}

void waitUntil(char const* what, std::function<bool()> const& ready, char const* site) {
  if (tSelf != nullptr) {
    tSelf->run->waitFor(*tSelf, Wait::Until, what, ready, site);
  }
}

bool waitIdle(char const* what, std::function<bool()> const& ready) {
  Thread& me = self(__func__);
  me.run->publishJoin();
  me.run->waitFor(me, Wait::Idle, what, ready, "");
  return !me.run->abandoned(me);
}

int runMain(int argc, char** argv, std::vector<Scenario> const& scenarios) {
  Options options;
  options.showRaces = true;
  int bound = -1;
  std::string only;
  // Every option but --list takes a value.
  for (int i = 1; i < argc; i += 2) {
    std::string const arg = argv[i];
    char const* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (arg == "--list") {
      for (Scenario const& scenario : scenarios) {
        std::printf("%s (bound %d)\n", scenario.name.c_str(), scenario.bound);
      }
      return 0;
    } else if (value != nullptr && arg == "--bound") {
      bound = std::atoi(value);
    } else if (value != nullptr && arg == "--pct") {
      options.pctRuns = std::strtoull(value, nullptr, 10);
    } else if (value != nullptr && arg == "--seed") {
      options.seed = std::strtoull(value, nullptr, 10);
    } else if (value != nullptr && arg == "--depth") {
      options.depth = std::atoi(value);
    } else if (value != nullptr && arg == "--scenario") {
      only = value;
    } else if (value != nullptr && arg == "--replay") {
      std::string const replay = value;
      only = replay.substr(0, replay.find('@'));
      options.replay = replay.substr(only.size() + (only.size() < replay.size() ? 1 : 0));
      options.trace = true;
    } else {
      std::fprintf(stderr,
                   "usage: %s [--list] [--scenario NAME] [--bound N] "
                   "[--pct RUNS [--seed S] [--depth D]] [--replay STRING]\n",
                   argv[0]);
      return 2;
    }
  }
  reportCrashes();
  int status = 0;
  bool found = false;
  for (Scenario const& scenario : scenarios) {
    if (!only.empty() && scenario.name != only) {
      continue;
    }
    found = true;
    options.bound = bound >= 0 ? bound : scenario.bound;
    Result const result = explore(scenario.name, scenario.body, options);
    std::string const how = !options.replay.empty() ? "replayed"
                            : options.pctRuns > 0   ? "PCT depth " + std::to_string(options.depth) +
                                                        " seed " + std::to_string(options.seed)
                                                  : "bound " + std::to_string(options.bound);
    std::printf("%s: %llu schedules (%s): %s\n", scenario.name.c_str(),
                static_cast<unsigned long long>(result.schedules), how.c_str(),
                result.failed ? "FAILED" : "ok");
    if (result.failed) {
      std::printf("%s\nreplay: %s\n", result.failure.c_str(), result.replay.c_str());
      status = 1;
    }
    std::fflush(stdout);
  }
  if (!found) {
    std::fprintf(stderr, "no scenario named \"%s\"\n", only.c_str());
    return 2;
  }
  return status;
}

}  // namespace explore

// The hooks of the pool's copy built for the explorer.
namespace gainmap {
namespace sched {

void point(char const* what, void const* object, char const* site) {
  explore::point(what, object, site);
}
void acquire(void const* mutex, char const* site) {
  explore::acquire(mutex, site);
}
void release(void const* mutex) {
  explore::release(mutex);
}
void waitUntil(char const* what, std::function<bool()> const& ready, char const* site) {
  explore::waitUntil(what, ready, site);
}

}  // namespace sched
}  // namespace gainmap
