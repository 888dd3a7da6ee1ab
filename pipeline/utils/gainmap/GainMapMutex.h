#pragma once

#include <atomic>
#include <mutex>

#if defined(GAINMAP_SCHEDULING_POINTS)
#include <functional>
#endif

// Clang checks these with -Wthread-safety; other compilers see nothing.
#if defined(__clang__)
#define GMP_TSA(x) __attribute__((x))
#else
#define GMP_TSA(x)
#endif

#define GMP_CAPABILITY(name) GMP_TSA(capability(name))
#define GMP_SCOPED_CAPABILITY GMP_TSA(scoped_lockable)
#define GMP_GUARDED_BY(m) GMP_TSA(guarded_by(m))
#define GMP_REQUIRES(...) GMP_TSA(requires_capability(__VA_ARGS__))
#define GMP_ACQUIRE(...) GMP_TSA(acquire_capability(__VA_ARGS__))
#define GMP_RELEASE(...) GMP_TSA(release_capability(__VA_ARGS__))
#define GMP_EXCLUDES(...) GMP_TSA(locks_excluded(__VA_ARGS__))

namespace gainmap {

#if defined(GAINMAP_SCHEDULING_POINTS)
// Only in the explorer's own copy of the pool (tools/gainmap-explore): a scheduler that runs one
// thread at a time decides at each of these points which thread goes on. `site` names the caller
// in the explorer's trace. Outside a scheduled run every hook does nothing.
namespace sched {
void point(char const* what, void const* object, char const* site);
void acquire(void const* mutex, char const* site);
void release(void const* mutex);
void waitUntil(char const* what, std::function<bool()> const& ready, char const* site);
}  // namespace sched

class GMP_CAPABILITY("mutex") Mutex final {
 public:
  void lock(char const* site = __builtin_FUNCTION()) GMP_ACQUIRE() {
    sched::acquire(this, site);
    mMutex.lock();
  }
  void unlock() GMP_RELEASE() {
    mMutex.unlock();
    sched::release(this);
  }

 private:
  std::mutex mMutex;
};

// std::atomic with a scheduling point before every access.
template <class T>
class Atomic {
 public:
  constexpr Atomic() = default;
  constexpr Atomic(T value) : mValue(value) {}  // NOLINT: as std::atomic converts
  T load(std::memory_order order = std::memory_order_seq_cst,
         char const* site = __builtin_FUNCTION()) const {
    sched::point("load", this, site);
    return mValue.load(order);
  }
  void store(T value, std::memory_order order = std::memory_order_seq_cst,
             char const* site = __builtin_FUNCTION()) {
    sched::point("store", this, site);
    mValue.store(value, order);
  }
  T fetch_add(T value, std::memory_order order = std::memory_order_seq_cst,
              char const* site = __builtin_FUNCTION()) {
    sched::point("fetch_add", this, site);
    return mValue.fetch_add(value, order);
  }

 private:
  std::atomic<T> mValue{};
};
#else
class GMP_CAPABILITY("mutex") Mutex final {
 public:
  void lock() GMP_ACQUIRE() { mMutex.lock(); }
  void unlock() GMP_RELEASE() { mMutex.unlock(); }

 private:
  std::mutex mMutex;
};

// The pool's atomics; the explorer's copy of the pool puts a scheduling point before each access.
template <class T>
using Atomic = std::atomic<T>;
#endif

class GMP_SCOPED_CAPABILITY MutexLocker final {
 public:
#if defined(GAINMAP_SCHEDULING_POINTS)
  explicit MutexLocker(Mutex& m, char const* site = __builtin_FUNCTION()) GMP_ACQUIRE(m)
      : mMutex(m) {
    mMutex.lock(site);
  }
#else
  explicit MutexLocker(Mutex& m) GMP_ACQUIRE(m) : mMutex(m) {
    mMutex.lock();
  }
#endif
  ~MutexLocker() GMP_RELEASE() {
    mMutex.unlock();
  }
  MutexLocker(MutexLocker const&) = delete;
  MutexLocker& operator=(MutexLocker const&) = delete;

 private:
  Mutex& mMutex;
};

}  // namespace gainmap
