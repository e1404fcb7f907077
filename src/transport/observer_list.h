#ifndef TESSEL_SRC_TRANSPORT_OBSERVER_LIST_H
#define TESSEL_SRC_TRANSPORT_OBSERVER_LIST_H

#include <algorithm>
#include <memory>
#include <vector>

#include "transport/mutex.h"

namespace tessel {

/// Observers in order of attachment, held weakly: the application owns them. Any thread.
template <typename Observer>
class ObserverList {
 public:
  void attach(const std::shared_ptr<Observer>& observer) TESSEL_EXCLUDES(mutex_) {
    if (observer == nullptr) return;
    const Lock lock(mutex_);
    observers_.push_back(observer);  // again, if it is there already
  }

  /// Removes every entry of the observer, and those that have expired.
  void detach(const std::shared_ptr<Observer>& observer) TESSEL_EXCLUDES(mutex_) {
    // Declared first, destroyed last: an observer that only we keep alive may detach others.
    std::vector<std::shared_ptr<Observer>> kept;
    const Lock lock(mutex_);
    removeIf([&](const std::weak_ptr<Observer>& entry) {
      std::shared_ptr<Observer> alive = entry.lock();
      if (alive == nullptr) return true;
      const bool same = alive == observer;
      kept.push_back(std::move(alive));
      return same;
    });
  }

  void clear() TESSEL_EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    observers_.clear();
  }

  /// Those that are alive, in order, for calls without the lock.
  std::vector<std::shared_ptr<Observer>> snapshot() TESSEL_EXCLUDES(mutex_) {
    std::vector<std::shared_ptr<Observer>> alive;
    const Lock lock(mutex_);
    removeExpired();
    alive.reserve(observers_.size());
    for (const std::weak_ptr<Observer>& entry : observers_) {
      if (std::shared_ptr<Observer> observer = entry.lock()) alive.push_back(std::move(observer));
    }
    return alive;
  }

  /// Calls `call(observer)` for each in order. The lock is held meanwhile, so that attach() and
  /// detach() of other threads wait until the pass is over; observers may not call them.
  template <typename Call>
  void notify(const Call& call) TESSEL_EXCLUDES(mutex_) {
    // Released after the lock: the last owner's release runs a destructor, which may detach.
    std::vector<std::shared_ptr<Observer>> called;
    notify(call, called);
  }

  /// The same for a caller that holds locks of its own: they are to be released before `called`,
  /// which keeps the observers.
  template <typename Call>
  void notify(const Call& call, std::vector<std::shared_ptr<Observer>>& called)
      TESSEL_EXCLUDES(mutex_) {
    const Lock lock(mutex_);
    removeExpired();
    called.reserve(called.size() + observers_.size());
    for (const std::weak_ptr<Observer>& entry : observers_) {
      std::shared_ptr<Observer> alive = entry.lock();
      if (alive == nullptr) continue;
      called.push_back(std::move(alive));
      call(*called.back());
    }
  }

 private:
  template <typename Predicate>
  void removeIf(const Predicate& predicate) TESSEL_REQUIRES(mutex_) {
    observers_.erase(std::remove_if(observers_.begin(), observers_.end(), predicate),
                     observers_.end());
  }
  void removeExpired() TESSEL_REQUIRES(mutex_) {
    removeIf([](const std::weak_ptr<Observer>& entry) { return entry.expired(); });
  }

  Mutex mutex_;
  std::vector<std::weak_ptr<Observer>> observers_ TESSEL_GUARDED_BY(mutex_);
};

}  // namespace tessel

#endif
