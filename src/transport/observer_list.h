#ifndef TESSEL_SRC_TRANSPORT_OBSERVER_LIST_H
#define TESSEL_SRC_TRANSPORT_OBSERVER_LIST_H

#include <algorithm>
#include <memory>
#include <vector>

#include "transport/mutex.h"

namespace tessel {

/// Observers in order of attachment, held weakly: the application owns them. Any thread.
///
/// Nothing of theirs is released with the lock held. With the last reference goes a destructor,
/// with the last weak one what the application gave its shared_ptr besides, and both may call the
/// list.
template <typename Observer>
class ObserverList {
 public:
  using Entries = std::vector<std::weak_ptr<Observer>>;

  /// Whom a caller with locks of its own has told; made before those locks are taken, so that what
  /// it releases is released after them.
  class Told {
   public:
    Told() = default;
    ~Told() {
      if (purged_ != nullptr) purged_->removeExpired();
    }
    Told(const Told&) = delete;
    Told& operator=(const Told&) = delete;

   private:
    friend class ObserverList;
    std::vector<std::shared_ptr<Observer>> observers_;
    ObserverList* purged_ = nullptr;
  };

  void attach(const std::shared_ptr<Observer>& observer) TESSEL_EXCLUDES(mutex_) {
    if (observer == nullptr) return;
    removeExpired();
    const Lock lock(mutex_);
    observers_.push_back(observer);  // again, if it is there already
  }

  /// Removes every entry of the observer, and those that have expired.
  void detach(const std::shared_ptr<Observer>& observer) TESSEL_EXCLUDES(mutex_) {
    removeExpired();
    std::vector<std::shared_ptr<Observer>> kept;
    const Lock lock(mutex_);
    const auto isIt = [&](const std::weak_ptr<Observer>& entry) {
      kept.push_back(entry.lock());
      return kept.back() != nullptr && kept.back() == observer;
    };
    observers_.erase(std::remove_if(observers_.begin(), observers_.end(), isIt), observers_.end());
  }

  /// Removes all; they are the caller's to release, after locks of its own.
  [[nodiscard]] Entries takeAll() TESSEL_EXCLUDES(mutex_) {
    Entries taken;
    const Lock lock(mutex_);
    taken.swap(observers_);
    return taken;
  }

  /// Those that are alive, in order, for calls without the lock.
  std::vector<std::shared_ptr<Observer>> snapshot() TESSEL_EXCLUDES(mutex_) {
    std::vector<std::shared_ptr<Observer>> alive;
    if (visit(alive, [](Observer& /*observer*/) {})) removeExpired();
    return alive;
  }

  /// Calls `call(observer)` for each in order. The lock is held meanwhile, so that attach() and
  /// detach() of other threads wait until the pass is over; observers may not call them.
  template <typename Call>
  void notify(const Call& call) TESSEL_EXCLUDES(mutex_) {
    std::vector<std::shared_ptr<Observer>> called;
    if (visit(called, call)) removeExpired();
  }

  /// The same for a caller that holds locks of its own.
  template <typename Call>
  void notify(const Call& call, Told& told) TESSEL_EXCLUDES(mutex_) {
    if (visit(told.observers_, call)) told.purged_ = this;
  }

 private:
  // Whether there are some that have expired.
  template <typename Call>
  bool visit(std::vector<std::shared_ptr<Observer>>& alive, const Call& call)
      TESSEL_EXCLUDES(mutex_) {
    bool expired = false;
    const Lock lock(mutex_);
    alive.reserve(alive.size() + observers_.size());
    for (const std::weak_ptr<Observer>& entry : observers_) {
      std::shared_ptr<Observer> observer = entry.lock();
      if (observer == nullptr) {
        expired = true;
        continue;
      }
      alive.push_back(std::move(observer));
      call(*alive.back());
    }
    return expired;
  }

  // One by one, which needs no memory.
  void removeExpired() TESSEL_EXCLUDES(mutex_) {
    for (bool more = true; more;) {
      std::weak_ptr<Observer> released;
      const Lock lock(mutex_);
      const auto gone =
          std::find_if(observers_.begin(), observers_.end(),
                       [](const std::weak_ptr<Observer>& entry) { return entry.expired(); });
      more = gone != observers_.end();
      if (!more) continue;
      released = std::move(*gone);
      observers_.erase(gone);
    }
  }

  Mutex mutex_;
  Entries observers_ TESSEL_GUARDED_BY(mutex_);
};

}  // namespace tessel

#endif
