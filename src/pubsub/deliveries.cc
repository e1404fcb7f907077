#include "pubsub/deliveries.h"

namespace tessel {
namespace {

// Whose callbacks the thread runs; set once and for all, since a worker serves one dispatcher only.
thread_local const Deliveries* served = nullptr;

void deliver(const SubscriptionBase& subscription, const ReceivedNotification& value) {
  if (value.withdrawn()) {
    subscription.deliverDeletion(value.key);
  } else {
    subscription.deliverValue(value.key, value.value.data(), value.value.size());
  }
}

}  // namespace

void Deliveries::run(ReceivedNotification&& value, WorkQueue& queue) {
  std::swap(value_, value);  // back goes the memory of the last key
  if (subscriptions_.empty()) return clear();
  next_ = 0;
  unfinished_ = subscriptions_.size();
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

void Deliveries::clear() {
  subscriptions_.clear();
  value_.value = ZmqFrame();
}

Deliveries::Subscriptions Deliveries::takeBack() {
  Subscriptions taken;
  taken.swap(subscriptions_);
  clear();
  return taken;
}

bool Deliveries::isOnWorker() const { return served == this; }

void Deliveries::work() {
  served = this;
  const std::size_t count = subscriptions_.size();
  std::size_t finished = 0;
  for (std::size_t mine = next_++; mine < count; mine = next_++, ++finished) {
    // Its own from here on, to be let go of when it has been called.
    const std::shared_ptr<SubscriptionBase> subscription = std::move(subscriptions_[mine]);
    deliver(*subscription, value_);
  }
  if (finished != 0 && unfinished_.fetch_sub(finished) == finished) value_.value = ZmqFrame();
}

}  // namespace tessel
