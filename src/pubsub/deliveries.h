#ifndef TESSEL_SRC_PUBSUB_DELIVERIES_H
#define TESSEL_SRC_PUBSUB_DELIVERIES_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "messages/value_notification.h"
#include "pubsub/subscription.h"
#include "transport/mutex.h"
#include "transport/work_queue.h"

namespace tessel {

/// The callbacks of one value, run by the workers of a queue; one value after the other.
///
/// Workers take them from a list by a common index, each the next one as soon as it is free: no
/// task, allocation or lock for each callback. The first worker is called at once, the others when
/// the dispatcher thread has nothing better to do than to sleep and callbacks are still left: most
/// are done by then, and waking a thread takes longer than dozens of them.
class Deliveries {
 public:
  using Subscriptions = std::vector<std::shared_ptr<SubscriptionBase>>;

  explicit Deliveries(std::size_t workerCount) : workerCount_(workerCount) {}

  // Of the dispatcher thread.

  /// Adds a callback for the next value, while nothing is under way. Takes the address only: to
  /// count an owner in and out would move that count between processors for each callback. So the
  /// subscription must not be destroyed before the callbacks have returned; whoever removes it from
  /// a table hands it to keep().
  void add(SubscriptionBase& subscription) {
    // Mostly that of the value before: a write would take the memory from the workers' processors.
    const std::size_t place = subscriptions_.size();
    if (subscription.place() != place) subscription.setPlace(place);
    subscriptions_.push_back(&subscription);
    unfinished_.store(subscriptions_.size(), std::memory_order_relaxed);
  }
  /// Takes those that were added and owns them until the callbacks of the value have returned; the
  /// others stay the caller's to release. Without memory for that the process ends: a callback may
  /// be about to begin on one that would be released.
  void keep(Subscriptions&& removed) noexcept TESSEL_EXCLUDES(keptMutex_);
  /// Calls what was added with the value. Under way until the queue is idle.
  void run(ReceivedNotification&& value, WorkQueue& queue);
  /// Has every worker take part for whom there is a callback left. Before a sleep, since a callback
  /// may wait for the next one.
  void callWorkers(WorkQueue& queue);
  /// Waits until all have returned: true. False when waiting was cancelled.
  bool finish(WorkQueue& queue);

  /// Keeps what has not begun from beginning. When the dispatcher thread has ended.
  void abandon() { next_ = subscriptions_.size(); }
  /// Releases everything, when nothing is under way.
  void clear() TESSEL_EXCLUDES(keptMutex_) { takeBack(); }
  /// The same, but the subscriptions kept are released with what is returned.
  Subscriptions takeBack() TESSEL_EXCLUDES(keptMutex_);
  /// Whether the calling thread is a worker that has run callbacks from here.
  bool isOnWorker() const;

 private:
  void callWorker(WorkQueue& queue);
  void work();
  bool wasAdded(const SubscriptionBase& subscription) const;
  Subscriptions takeKept() TESSEL_EXCLUDES(keptMutex_);

  const std::size_t workerCount_;
  std::size_t called_ = 0;  // workers; the dispatcher thread's own

  // Changed by the dispatcher thread while nothing is under way; the worker who is the last to
  // leave empties the value.
  std::vector<const SubscriptionBase*> subscriptions_;
  ReceivedNotification value_;

  std::atomic<std::size_t> next_{0};  // the first subscription that nobody has taken
  // Callbacks not counted off yet; a worker counts his off all at once when he leaves. At 0 none
  // runs and none will begin.
  std::atomic<std::size_t> unfinished_{0};

  Mutex keptMutex_;
  // Those of subscriptions_ that nobody else may own any more. The worker who is the last to leave
  // releases them, without the lock, since what is freed with them may be the application's.
  Subscriptions kept_ TESSEL_GUARDED_BY(keptMutex_);
};

}  // namespace tessel

#endif
