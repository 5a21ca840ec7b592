// Clang thread-safety annotations (no-ops for other compilers) and a mutex
// type that carries them, so lock rules are checked where the compiler can.
#pragma once

#include <mutex>

#if defined(__clang__)
#define TRV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define TRV_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) TRV_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY TRV_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) TRV_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) TRV_THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) TRV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ACQUIRE(...) TRV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) TRV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define EXCLUDES(...) TRV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define RETURN_CAPABILITY(x) TRV_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS TRV_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace trv {

class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mu_.lock(); }
  void unlock() RELEASE() { mu_.unlock(); }
  bool try_lock() { return mu_.try_lock(); }
  std::mutex& native() { return mu_; }

 private:
  std::mutex mu_;
};

class CAPABILITY("mutex") RecursiveMutex {
 public:
  void lock() ACQUIRE() { mu_.lock(); }
  void unlock() RELEASE() { mu_.unlock(); }

 private:
  std::recursive_mutex mu_;
};

template <typename M>
class SCOPED_CAPABILITY BasicLock {
 public:
  explicit BasicLock(M& mu) ACQUIRE(mu) : mu_(mu) { mu_.lock(); }
  ~BasicLock() RELEASE() { mu_.unlock(); }
  BasicLock(const BasicLock&) = delete;
  BasicLock& operator=(const BasicLock&) = delete;

 private:
  M& mu_;
};

using MutexLock = BasicLock<Mutex>;
using RecursiveLock = BasicLock<RecursiveMutex>;

}  // namespace trv
