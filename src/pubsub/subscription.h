#ifndef TESSEL_SRC_PUBSUB_SUBSCRIPTION_H
#define TESSEL_SRC_PUBSUB_SUBSCRIPTION_H

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>

#include "pubsub/multi_subscriber_impl.h"
#include "pubsub/subscriber_impl.h"
#include "tessel/message_dispatcher.h"

namespace tessel {

/// One registration of a subscriber with a dispatcher. It does not keep the subscriber alive, and
/// owns it only while a callback runs: so no subscriber is ever destroyed on the dispatcher thread,
/// though the deleter or allocator that an application put into its shared_ptr may be, with the
/// last registration. Unchanged once made, other than delivered() and place().
class SubscriptionBase {
 public:
  virtual ~SubscriptionBase() = default;
  SubscriptionBase(const SubscriptionBase&) = delete;
  SubscriptionBase& operator=(const SubscriptionBase&) = delete;

  /// Whether both are registrations of one subscriber that is still alive.
  bool isSameSubscriber(const SubscriptionBase& other) const {
    return identity_ == other.identity_ && isPrefix_ == other.isPrefix_ && !isExpired() &&
           !other.isExpired();
  }
  /// Call the subscriber, or do nothing when it has gone.
  virtual void deliverValue(const std::string& key, const void* data, std::size_t size) const = 0;
  virtual void deliverDeletion(const std::string& key) const = 0;
  virtual bool isExpired() const = 0;

  SubscriptionMode mode() const { return mode_; }
  /// The exact key, or the prefix of many: what the socket subscribes to.
  const std::string& key() const { return key_; }
  bool isPrefix() const { return isPrefix_; }
  /// Whether a value of that key is for the subscriber, if it has not gone.
  bool isFor(const std::string& key) const;

  /// Whether replays from the cache are no longer for it: it has had a value, or wants new ones
  /// only. The dispatcher thread's own.
  bool delivered() const { return delivered_; }
  void setDelivered() { delivered_ = true; }
  /// Where it stood among those whom the last value that was for it went to. The dispatcher
  /// thread's own.
  std::size_t place() const { return place_; }
  void setPlace(std::size_t place) { place_ = place; }

 protected:
  SubscriptionBase(const void* identity, SubscriptionMode mode, const std::string& key,
                   bool isPrefix)
      : identity_(identity),
        mode_(mode),
        key_(key),
        isPrefix_(isPrefix),
        delivered_(mode == SubscriptionMode::NewValues) {}

 private:
  // The address of the subscriber, which is unique among the living of its kind; it owns nothing.
  const void* const identity_;
  const SubscriptionMode mode_;
  const std::string key_;
  const bool isPrefix_;
  bool delivered_;
  std::size_t place_ = 0;
};

/// Prefixes are compared as NUL-terminated texts: what follows a NUL byte only counts by its
/// length.
inline bool beginsWith(const std::string& key, const std::string& prefix) {
  return key.size() >= prefix.size() &&
         std::strncmp(key.c_str(), prefix.c_str(), prefix.size()) == 0;
}

inline bool SubscriptionBase::isFor(const std::string& key) const {
  return isPrefix_ ? beginsWith(key, key_) : key == key_;
}

/// T is Subscriber or MultiSubscriber.
template <typename T>
class Subscription : public SubscriptionBase {
 public:
  using Impl =
      std::conditional_t<std::is_same_v<T, MultiSubscriber>, MultiSubscriberImpl, SubscriberImpl>;
  static constexpr bool kIsPrefix = std::is_same_v<T, MultiSubscriber>;

  explicit Subscription(const std::shared_ptr<T>& subscriber)
      : SubscriptionBase(subscriber.get(), Impl::of(*subscriber).mode(),
                         Impl::of(*subscriber).key(), kIsPrefix),
        subscriber_(subscriber) {}

  void deliverValue(const std::string& key, const void* data, std::size_t size) const override {
    if (const std::shared_ptr<T> alive = subscriber_.lock()) {
      Impl::deliverValue(*alive, key, data, size);
    }
  }
  void deliverDeletion(const std::string& key) const override {
    if (const std::shared_ptr<T> alive = subscriber_.lock()) Impl::deliverDeletion(*alive, key);
  }
  bool isExpired() const override { return subscriber_.expired(); }

 private:
  const std::weak_ptr<T> subscriber_;
};

}  // namespace tessel

#endif
