#include <tessel/message_dispatcher.h>
#include <zmq.h>

#include <algorithm>
#include <memory>

#include "pubsub/subscription_table.h"
#include "target.h"

namespace tessel::fuzz {
namespace {

// Every frame but the last message's is a prefix that somebody subscribes to; the last message's
// are keys. The table finds those whom a walk over all of them finds.
TESSEL_FUZZ_TARGET(subscription_match) {
  SubscriptionTable table;
  std::vector<std::shared_ptr<MultiSubscriber>> subscribers;
  std::vector<std::shared_ptr<SubscriptionBase>> entries;
  for (std::size_t i = 0; i + 1 < messages.size(); ++i) {
    for (const std::string& prefix : messages[i]) {
      subscribers.push_back(std::make_shared<MultiSubscriber>(prefix));
      entries.push_back(std::make_shared<Subscription<MultiSubscriber>>(subscribers.back()));
      table.add(entries.back());
    }
  }
  for (const std::string& key : messages.back()) {
    std::vector<SubscriptionBase*> found;
    std::vector<SubscriptionBase*> expected;
    table.visitMatches(key, [&](const std::shared_ptr<SubscriptionBase>& entry) {
      found.push_back(entry.get());
      return true;
    });
    for (const auto& entry : entries) {
      if (entry->isFor(key)) expected.push_back(entry.get());
    }
    std::sort(found.begin(), found.end());
    std::sort(expected.begin(), expected.end());
    require(found == expected, "the index finds whom a walk finds");
  }
  for (const auto& entry : entries) table.removeOne(*entry);
  require(table.size() == 0, "each is removed");
}

}  // namespace
}  // namespace tessel::fuzz
