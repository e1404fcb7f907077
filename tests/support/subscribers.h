#ifndef TESSEL_TESTS_SUPPORT_SUBSCRIBERS_H
#define TESSEL_TESTS_SUPPORT_SUBSCRIBERS_H

#include <tessel/message_dispatcher.h>

#include <cstddef>
#include <functional>
#include <string>
#include <utility>

#include "support/deadline.h"
#include "support/recorders.h"

namespace tessel::test {

/// Calls what the test wants for values and deletions; the latter have no data.
class CallingSubscriber : public Subscriber {
 public:
  using Call = std::function<void(const void* data, std::size_t size)>;
  CallingSubscriber(SubscriptionMode mode, const std::string& topic, Call call)
      : Subscriber(mode, topic, ""), call_(std::move(call)) {}
  /// Of all values of "t:default", whatever they are.
  explicit CallingSubscriber(const std::function<void()>& call)
      : CallingSubscriber(SubscriptionMode::AllValues, "t",
                          [call](const void*, std::size_t) { call(); }) {}

 protected:
  void onValue(const void* data, std::size_t size) override { call_(data, size); }
  void onDeletion() override { call_(nullptr, 0); }

 private:
  const Call call_;
};

/// Says what it gets, and waits with the first value until it may go on.
class HeldSubscriber : public RecordingSubscriber {
 public:
  using RecordingSubscriber::RecordingSubscriber;
  Gate gate;

 protected:
  void onValue(const void* data, std::size_t size) override {
    RecordingSubscriber::onValue(data, size);
    gate.pass();
  }
};

}  // namespace tessel::test

#endif
