#pragma once

#include <mutex>

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

class GMP_CAPABILITY("mutex") Mutex final {
 public:
  void lock() GMP_ACQUIRE() { mMutex.lock(); }
  void unlock() GMP_RELEASE() { mMutex.unlock(); }

 private:
  std::mutex mMutex;
};

class GMP_SCOPED_CAPABILITY MutexLocker final {
 public:
  explicit MutexLocker(Mutex& m) GMP_ACQUIRE(m) : mMutex(m) { mMutex.lock(); }
  ~MutexLocker() GMP_RELEASE() { mMutex.unlock(); }
  MutexLocker(MutexLocker const&) = delete;
  MutexLocker& operator=(MutexLocker const&) = delete;

 private:
  Mutex& mMutex;
};

}  // namespace gainmap
