#ifndef TESSEL_BENCH_SUPPORT_ROADS_H
#define TESSEL_BENCH_SUPPORT_ROADS_H

#include <tessel/message_broker.h>
#include <tessel/message_dispatcher.h>
#include <tessel/publisher.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/raw.h"
#include "support/try_until.h"

namespace tessel::bench {

/// Runs on a worker thread for each value that arrives.
using Callback = raw::Callback;

enum class Transport { kTcp, kInproc };

/// Endpoints that nobody else uses.
std::string newEndpoint(Transport transport);
raw::Endpoints newEndpoints(Transport transport);

/// Where all values of the roads go.
extern const std::string kTopic;
extern const std::string kTag;

/// A subscriber that only calls back.
class CallbackSubscriber : public Subscriber {
 public:
  CallbackSubscriber(SubscriptionMode mode, const std::string& topic, const std::string& tag,
                     Callback callback)
      : Subscriber(mode, topic, tag), callback_(std::move(callback)) {}

 protected:
  void onValue(const void* data, std::size_t size) override { callback_(data, size); }

 private:
  const Callback callback_;
};

/// From one publisher by way of a running broker to a subscriber, through the library: broker,
/// publisher and dispatcher in one process, joined by the transport that is measured.
class TesselRoad {
 public:
  static constexpr const char* kName = "tessel";

  TesselRoad(Transport transport, Callback callback);
  void publish(const void* data, std::size_t size) { publisher_.publish(data, size); }
  MessageDispatcher& dispatcher() { return dispatcher_; }

  /// Publishes on the road from one more thread, which makes it.
  class Sender {
   public:
    explicit Sender(TesselRoad& road) : road_(road) {}
    void publish(const void* data, std::size_t size) { road_.publish(data, size); }

   private:
    TesselRoad& road_;
  };

 private:
  TesselRoad(const raw::Endpoints& endpoints, Callback callback);

  MessageBroker broker_;
  Publisher publisher_;
  std::shared_ptr<CallbackSubscriber> subscriber_;
  MessageDispatcher dispatcher_;
};

/// The same road by bare libzmq.
class RawRoad {
 public:
  static constexpr const char* kName = "raw";

  RawRoad(Transport transport, Callback callback);
  ~RawRoad() { context_.end(); }
  void publish(const void* data, std::size_t size) {
    raw::Publication(kTopic, kTag, data, size).send(push_);
  }

  class Sender {
   public:
    explicit Sender(RawRoad& road) : push_(road.context_, ZMQ_PUSH) {
      push_.connect(road.pullEndpoint_);
    }
    void publish(const void* data, std::size_t size) {
      raw::Publication(kTopic, kTag, data, size).send(push_);
    }

   private:
    raw::Socket push_;
  };

 private:
  RawRoad(const raw::Endpoints& endpoints, Callback callback);

  const std::string pullEndpoint_;
  raw::Context context_;
  raw::Broker broker_;
  raw::Socket push_;
  raw::Consumer consumer_;
};

/// The number that a value of a road begins with: what its receiver makes of it is up to the
/// benchmark, but for those that probe whether the road is open.
constexpr std::uint64_t kProbe = std::uint64_t{1} << 63;
std::uint64_t numberOf(const void* data);
void setNumber(std::vector<std::uint8_t>& value, std::uint64_t number);

/// A road that is open: the subscription has reached the broker, and no probe is on its way.
template <typename Road>
class OpenRoad {
 public:
  /// `callback` gets every value but the probes. `size` is at least 8.
  OpenRoad(Transport transport, std::size_t size,
           const std::function<void(std::uint64_t)>& callback);

  /// Values that differ from each other are neither suppressed nor mistaken for a probe.
  void publish(std::uint64_t number) {
    setNumber(value_, number);
    road_.publish(value_.data(), value_.size());
  }
  Road& road() { return road_; }

 private:
  std::vector<std::uint8_t> value_;
  std::atomic<std::uint64_t> lastProbe_{0};
  Road road_;
};

template <typename Road>
OpenRoad<Road>::OpenRoad(Transport transport, std::size_t size,
                         const std::function<void(std::uint64_t)>& callback)
    : value_(size, 'x'), road_(transport, [this, callback](const void* data, std::size_t) {
        const std::uint64_t number = numberOf(data);
        if ((number & kProbe) == 0) {
          callback(number);
        } else {
          lastProbe_ = number;
        }
      }) {
  std::uint64_t probe = kProbe;
  // The last one sent is behind all others, so once it has come none is left.
  const auto lastArrives = [&] {
    if (lastProbe_ == probe) return true;
    publish(++probe);
    return false;
  };
  tryUntil(lastArrives, "nothing arrives");
}

}  // namespace tessel::bench

#endif
