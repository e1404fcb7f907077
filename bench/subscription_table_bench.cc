// Finding the subscriptions that a value is for, among few and among many.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "pubsub/subscription.h"
#include "pubsub/subscription_table.h"
#include "support/loads.h"
#include "support/measure.h"
#include "support/roads.h"
#include "support/window.h"

namespace tessel::bench {
namespace {

enum class Kind { kExact, kPrefix };

std::string topicOf(int index) { return "sensor" + std::to_string(index); }

// Subscribers, each of another topic.
class Subscribers {
 public:
  Subscribers(Kind kind, int count) {
    for (int i = 0; i < count; ++i) {
      if (kind == Kind::kExact) {
        exact_.push_back(std::make_shared<Subscriber>(SubscriptionMode::NewValues, topicOf(i), ""));
      } else {
        prefixes_.push_back(std::make_shared<MultiSubscriber>(topicOf(i) + ":"));
      }
    }
  }
  template <typename Visit>
  void forEach(const Visit& visit) const {
    for (const auto& subscriber : exact_) visit(subscriber);
    for (const auto& subscriber : prefixes_) visit(subscriber);
  }

 private:
  std::vector<std::shared_ptr<Subscriber>> exact_;
  std::vector<std::shared_ptr<MultiSubscriber>> prefixes_;
};

// The table alone, for a key that one entry is for.
void lookUp(benchmark::State& state, Kind kind, int count) {
  const Subscribers subscribers(kind, count);
  SubscriptionTable table;
  subscribers.forEach([&](const auto& subscriber) {
    using T = typename std::decay_t<decltype(subscriber)>::element_type;
    table.add(std::make_shared<Subscription<T>>(subscriber));
  });
  const std::string key = topicOf(count / 2) + ":default";
  std::int64_t found = 0;
  const auto visit = [&] {
    table.visitMatches(key, [&](const SubscriptionTable::Entry&) {
      ++found;
      return true;
    });
  };
  for (auto _ : state) visit();
  if (found != static_cast<std::int64_t>(state.iterations())) state.SkipWithError("wrong match");
  state.SetItemsProcessed(found);
  state.counters["allocations"] = static_cast<double>(allocationsDuring(visit));
}

// A whole dispatcher that has them besides the one that gets the values; per value.
void receive(benchmark::State& state, Kind kind, int count) {
  constexpr std::uint64_t kBurst = 5000;
  Window window(500);
  const Subscribers others(kind, count);
  OpenRoad<TesselRoad> road(Transport::kInproc, 16, [&](std::uint64_t) { window.arrive(); });
  others.forEach(
      [&](const auto& subscriber) { road.road().dispatcher().registerSubscriber(subscriber); });
  std::uint64_t number = 0;
  const auto send = [&] { sendBurst(window, kBurst, [&] { road.publish(++number); }); };
  send();  // behind the registrations, which the dispatcher may still be busy with
  const Usage before = Usage::now();
  const std::uint64_t warm = number;
  for (auto _ : state) send();
  reportUsage(state, before, static_cast<double>(number - warm));
  state.SetItemsProcessed(static_cast<std::int64_t>(number - warm));
}

void registerAll() {
  const auto add = [](Kind kind, const std::string& name, int count) {
    benchmark::RegisterBenchmark(("look_up/" + name + "/" + std::to_string(count)).c_str(),
                                 [=](benchmark::State& state) { lookUp(state, kind, count); });
    benchmark::RegisterBenchmark(("receive_among/" + name + "/" + std::to_string(count)).c_str(),
                                 [=](benchmark::State& state) { receive(state, kind, count); })
        ->UseRealTime();
  };
  for (const int count : {10, 1000, 100000}) add(Kind::kExact, "exact", count);
  for (const int count : {10, 1000, 10000}) add(Kind::kPrefix, "prefix", count);
}

}  // namespace
}  // namespace tessel::bench

int main(int argc, char** argv) {
  tessel::bench::registerAll();
  return tessel::bench::runBenchmarks(argc, argv);
}
