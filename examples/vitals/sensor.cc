#include "sensor.h"

#include <tessel/tessel.h>

#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "clock.h"
#include "hub_statistics.h"
#include "names.h"
#include "proc_reader.h"
#include "process_desk.h"

namespace vitals {
namespace {

constexpr std::chrono::milliseconds kPeriod{200};
constexpr std::int64_t kLookPeriod = 1'000'000'000;  // nanoseconds

// Publishes what the reader reads, one Publisher a vital sign.
class Sensor {
 public:
  explicit Sensor(const Ports& ports)
      : transports_{endpoint(ports.pull)}, keys_(transports_, kSensorTopic, kKeysTag) {
    reader_.read(now());
  }

  std::size_t publish() {
    std::map<std::string, Sign> before;
    before.swap(signs_);
    Keys keys;
    for (const Vital& vital : reader_.read(now())) {
      const std::string key = vital.topic + ":" + vital.tag;
      Sign& sign = signs_[key];
      const auto known = before.find(key);
      if (known != before.end()) sign = std::move(known->second);
      publish(sign, vital);
      keys.push_back(key);
    }
    // The list comes after the values: whoever has it finds all of them in the hub's cache.
    const std::string bytes = encode(keys);
    keys_.publish(bytes.data(), bytes.size());
    return keys.size();
  }  // what is no longer there, a network interface perhaps, is withdrawn here

  // Values first, the list last: who hears that it went has heard of all the others.
  void withdraw() {
    signs_.clear();
    keys_.unpublish();
  }

 private:
  struct Sign {
    std::unique_ptr<tessel::Publisher> publisher;
    Reading reading;
  };

  // All is published every time. Of a reading that is as it was the bytes are as they were, its age
  // included, and the hub keeps it to itself.
  void publish(Sign& sign, const Vital& vital) {
    if (!sign.publisher) {
      sign.publisher = std::make_unique<tessel::Publisher>(transports_, vital.topic, vital.tag);
      sign.publisher->enableUnpublishOnDestruction(true);
    }
    if (sign.reading.since == 0 || !sameAmount(sign.reading, vital.reading)) {
      sign.reading = vital.reading;
      sign.reading.since = now();
    }
    const std::string bytes = encode(sign.reading);
    sign.publisher->publish(bytes.data(), bytes.size());
  }

  std::vector<std::string> transports_;
  tessel::Publisher keys_;
  ProcReader reader_;
  std::map<std::string, Sign> signs_;  // by key
};

// Hears from the hub that the list of keys was withdrawn. A process that ends drops what it has not
// sent yet; so the sensor waits for its last words to come back.
class Echo : public tessel::Subscriber {
 public:
  Echo() : Subscriber(tessel::SubscriptionMode::AllValues, kSensorTopic, kKeysTag) {}
  // False if the hub falls silent before.
  bool waitFor(const HubWatch& hub) {
    const std::future<void> withdrawn = withdrawn_.get_future();
    while (withdrawn.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready) {
      if (!hub.heardWithin(std::chrono::seconds(2))) return false;
    }
    return true;
  }

 private:
  void onDeletion() override {
    if (!std::exchange(done_, true)) withdrawn_.set_value();
  }

  std::promise<void> withdrawn_;
  bool done_ = false;
};

}  // namespace

int runSensor(const Options& options, StopSignals& stop) {
  const Ports& ports = *options.ports;
  const auto hub = std::make_shared<HubWatch>();
  const auto echo = std::make_shared<Echo>();
  tessel::MessageDispatcher dispatcher(endpoint(ports.updates), endpoint(ports.cache), 1);
  dispatcher.registerSubscriber(hub);
  dispatcher.registerSubscriber(echo);
  dispatcher.start();
  if (!hub->waitForLaterThan(0, kHubPatience, &stop)) {
    if (stop.waitFor(std::chrono::milliseconds(0))) return 0;
    throw std::runtime_error("there is no hub");
  }

  // Open before anything is published: whoever sees a value can call.
  ProcessDesk desk(ports);
  desk.open();
  Sensor sensor(ports);
  bool announced = false;
  bool silent = false;
  std::int64_t looked = 0;
  while (!stop.waitFor(kPeriod)) {
    // Without a hub the queue to it would fill up, and publish() would wait for ever.
    if (!hub->heardWithin(std::chrono::seconds(kHubPatience))) {
      throw std::runtime_error("the hub has gone");
    }
    const bool silentBefore =
        std::exchange(silent, !hub->heardWithin(std::chrono::milliseconds(500)));
    if (silent) continue;
    if (silentBefore) desk.open();  // it may be another one
    if (now() - looked >= kLookPeriod) desk.look(looked = now());
    const std::size_t count = sensor.publish();
    if (!announced) {
      sayReady(options.supervisor, "publishes " + std::to_string(count) +
                                       " values five times a second, and answers calls");
    }
    announced = true;
  }

  sensor.withdraw();
  if (announced && !echo->waitFor(*hub)) {
    throw std::runtime_error("the hub did not confirm that the values were withdrawn");
  }
  if (desk.close(*hub)) return 0;
  throw std::runtime_error("the hub did not confirm that the service was withdrawn");
}

}  // namespace vitals
