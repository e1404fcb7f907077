#include "pubsub/deliveries.h"

#include <algorithm>
#include <iterator>

namespace tessel {
namespace {

// Whose callbacks the thread runs; set once and for all, since a worker serves one dispatcher only.
thread_local const Deliveries* served = nullptr;

// Calls one subscriber after the other with the same value, which is asked for its bytes once.
class Delivery {
 public:
  explicit Delivery(const ReceivedNotification& value)
      : key_(value.key),
        withdrawn_(value.withdrawn()),
        data_(value.value.data()),
        size_(value.value.size()) {}

  void operator()(const SubscriptionBase& subscription) const {
    if (withdrawn_) {
      subscription.deliverDeletion(key_);
    } else {
      subscription.deliverValue(key_, data_, size_);
    }
  }

 private:
  const std::string& key_;
  const bool withdrawn_;
  const void* const data_;
  const std::size_t size_;
};

}  // namespace

void Deliveries::run(ReceivedNotification&& value, WorkQueue& queue) {
  std::swap(value_, value);  // back goes the memory of the last key
  if (subscriptions_.empty()) return clear();
  next_ = 0;
  called_ = 0;
  callWorker(queue);
}

void Deliveries::callWorker(WorkQueue& queue) {
  ++called_;
  queue.push([this] { work(); });
}

void Deliveries::callWorkers(WorkQueue& queue) {
  const std::size_t count = subscriptions_.size();
  for (std::size_t taken = next_; taken < count && called_ < workerCount_; ++taken) {
    callWorker(queue);
  }
}

bool Deliveries::finish(WorkQueue& queue) {
  if (!queue.isIdleSoon()) callWorkers(queue);
  return queue.waitIdle();
}

// Finds each by its place, not by a search: whoever unregisters thousands of one key does so while
// the dispatcher thread serves everybody else.
bool Deliveries::wasAdded(const SubscriptionBase& subscription) const {
  const std::size_t place = subscription.place();
  return place < subscriptions_.size() && subscriptions_[place] == &subscription;
}

// Moves from the caller's vector, not from one of its own: without memory, some compilers release
// what a noexcept function owns before they end the process.
void Deliveries::keep(Subscriptions&& removed) noexcept {
  // Nobody is called any more when all have returned, nor ever without workers.
  if (removed.empty() || workerCount_ == 0 || unfinished_ == 0) return;
  const auto firstToKeep = std::partition(removed.begin(), removed.end(),
                                          [this](const auto& one) { return !wasAdded(*one); });
  const Lock lock(keptMutex_);
  if (unfinished_ == 0) return;
  std::move(firstToKeep, removed.end(), std::back_inserter(kept_));
}

Deliveries::Subscriptions Deliveries::takeKept() {
  Subscriptions taken;
  const Lock lock(keptMutex_);
  taken.swap(kept_);
  return taken;
}

Deliveries::Subscriptions Deliveries::takeBack() {
  subscriptions_.clear();
  unfinished_ = 0;
  value_.value = ZmqFrame();
  return takeKept();
}

bool Deliveries::isOnWorker() const { return served == this; }

void Deliveries::work() {
  served = this;
  const std::size_t count = subscriptions_.size();
  std::size_t mine = next_++;
  if (mine >= count) return;  // one called late: the value may be gone by now
  const Delivery deliver(value_);
  std::size_t finished = 0;
  for (; mine < count; mine = next_++, ++finished) deliver(*subscriptions_[mine]);
  if (unfinished_.fetch_sub(finished) != finished) return;
  value_.value = ZmqFrame();
  takeKept();  // what comes back is released here, without the lock
}

}  // namespace tessel
