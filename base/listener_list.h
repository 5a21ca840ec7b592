// The one way listeners are kept: a list of pointers to listener interfaces
// (abstract classes with virtual methods), told in the order they were added.
// A callback that lives for one call only (a progress report, an enumeration)
// is a std::function parameter instead; there are no function pointers with
// user data and no global hooks.
//
// Threads: any thread may add, remove and tell. No lock is held while a
// listener runs, so a listener may call back into what told it, add or
// remove listeners (of this list too), and take its own locks. A listener
// added during a walk is told from the next walk on. Remove() returns only
// when no other thread is still telling the removed listener, so its owner
// may destroy it right after; called from inside a walk of the same list on
// the same thread, it does not wait for that walk (the listener must then
// not be destroyed before its own call returns).
#pragma once

#include <algorithm>
#include <condition_variable>
#include <cstddef>
#include <thread>
#include <vector>

#include "base/thread_annotations.h"

namespace trv {

template <typename Listener>
class ListenerList {
 public:
  ListenerList() = default;
  ListenerList(const ListenerList&) = delete;
  ListenerList& operator=(const ListenerList&) = delete;

  // Adding a listener that is already on the list does nothing.
  void Add(Listener* listener) EXCLUDES(mu_) {
    MutexLock lock(mu_);
    if (std::find(list_.begin(), list_.end(), listener) == list_.end()) list_.push_back(listener);
  }

  // Not analysed: the wait needs the mutex as a std::mutex, which the
  // analysis does not see as mu_.
  void Remove(Listener* listener) EXCLUDES(mu_) NO_THREAD_SAFETY_ANALYSIS {
    std::unique_lock<std::mutex> lock(mu_.native());
    list_.erase(std::remove(list_.begin(), list_.end(), listener), list_.end());
    // Wait for the walks of other threads that may be telling it now.
    // A loop, not a predicate lambda, which the analysis would check apart.
    while (TellingElsewhere(listener)) done_.wait(lock);
  }

  // Calls fn(listener) for each listener, in order, with no lock held. A
  // listener removed during the walk is not told after its removal.
  template <typename Fn>
  void ForEach(Fn&& fn) EXCLUDES(mu_) {
    std::vector<Listener*> snapshot;
    {
      MutexLock lock(mu_);
      snapshot = list_;
    }
    for (Listener* listener : snapshot) {
      {
        MutexLock lock(mu_);
        if (std::find(list_.begin(), list_.end(), listener) == list_.end()) continue;
        telling_.push_back({listener, std::this_thread::get_id()});
      }
      fn(*listener);
      {
        MutexLock lock(mu_);
        const Telling mine{listener, std::this_thread::get_id()};
        telling_.erase(std::find(telling_.begin(), telling_.end(), mine));
      }
      done_.notify_all();
    }
  }

  size_t size() const EXCLUDES(mu_) {
    MutexLock lock(mu_);
    return list_.size();
  }

 private:
  struct Telling {
    Listener* listener;
    std::thread::id thread;
    bool operator==(const Telling&) const = default;
  };

  bool TellingElsewhere(Listener* listener) const REQUIRES(mu_) {
    const std::thread::id me = std::this_thread::get_id();
    return std::any_of(telling_.begin(), telling_.end(),
                       [&](const Telling& t) { return t.listener == listener && t.thread != me; });
  }

  mutable Mutex mu_;
  std::condition_variable done_;
  std::vector<Listener*> list_ GUARDED_BY(mu_);
  std::vector<Telling> telling_ GUARDED_BY(mu_);  // listeners being told now, and by which thread
};

}  // namespace trv
