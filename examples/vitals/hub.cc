#include "hub.h"

#include <tessel/tessel.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <string>

#include "clock.h"
#include "hub_statistics.h"
#include "names.h"

namespace vitals {
namespace {

// Counts what passes through the broker, other than the counts themselves.
class Counter : public tessel::MessageBrokerObserver {
 public:
  HubStatistics read() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return statistics_;
  }

  void onSubscribe(const std::string&, const std::string&) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++statistics_.subscriptions;
  }
  void onUnsubscribe(const std::string&, const std::string&) override {}
  void onPublish(const std::string& topic, const std::string&, bool, bool,
                 bool suppressed) override {
    if (topic == kHubTopic) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    ++statistics_.published;
    if (suppressed) ++statistics_.suppressed;
  }
  void onUnpublish(const std::string&, const std::string&, bool, bool cacheUpdated, bool) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (cacheUpdated) ++statistics_.withdrawn;
  }

 private:
  mutable std::mutex mutex_;  // the broker's thread writes, the main thread reads
  HubStatistics statistics_;
};

}  // namespace

int runHub(const Options& options, StopSignals& stop) {
  const Ports& ports = *options.ports;
  tessel::MessageBroker broker({endpoint(ports.pull)}, {endpoint(ports.updates)},
                               {endpoint(ports.cache)});
  const auto counter = std::make_shared<Counter>();
  broker.attach(counter);
  broker.start();
  // Passes calls on to whoever offers the service; it has none itself, and so needs no workers.
  tessel::RpcBroker calls(true, {endpoint(ports.calls)},
                          std::make_shared<tessel::ThreadedRpcDispatcher>(0));
  calls.start();
  sayReady(options.supervisor,
           "listens on ports " + std::to_string(ports.pull) + ", " + std::to_string(ports.updates) +
               ", " + std::to_string(ports.cache) + " and " + std::to_string(ports.calls));

  // The hub's own news goes the same way as everybody's. Whoever comes later waits for the next.
  tessel::Publisher news(broker, kHubTopic, kStatisticsTag);
  news.enableCache(false);
  do {
    HubStatistics statistics = counter->read();
    statistics.time = now();
    const std::string bytes = encode(statistics);
    news.publish(bytes.data(), bytes.size());
  } while (!stop.waitFor(std::chrono::milliseconds(100)));
  calls.stop();
  broker.stop();
  return 0;
}

}  // namespace vitals
