// What a dispatcher does when memory runs out. In a program of its own, since it stands in for the
// allocation.

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>

#include "pubsub/message_dispatcher_impl.h"
#include "support/deadline.h"
#include "support/endpoints.h"
#include "support/failing_allocations.h"

namespace tessel::test {
namespace {

std::atomic<int> asked{0};  // whether one has expired
std::atomic<bool> gone{false};
int found = 0;  // to have expired; the dispatcher thread's own

// Its subscriber goes when the test says so. From the second that is found to have gone, the thread
// has no memory for it.
class Expiring : public SubscriptionBase {
 public:
  Expiring() : SubscriptionBase(nullptr, SubscriptionMode::NewValues, "t:default", false) {}
  ~Expiring() override { std::_Exit(0); }  // where it is released, which is the mistake
  void deliverValue(const std::string&, const void*, std::size_t) const override {}
  void deliverDeletion(const std::string&) const override {}
  bool isExpired() const override {
    const bool expired = gone;
    ++asked;
    if (expired && ++found > 1) allocationsLeft = 0;
    return expired;
  }
};

void removeWithoutMemory() {
  MessageDispatcherImpl dispatcher(uniqueInproc(), uniqueInproc(), 1);
  for (int i = 0; i < 2; ++i) dispatcher.registerSubscription(std::make_shared<Expiring>());
  dispatcher.start();
  eventually([] { return asked == 4; });  // when each is added, and when all are looked through
  gone = true;
  dispatcher.stop(false);
  std::_Exit(0);
}

// Before it releases what it has removed so far: a worker may be about to call that.
TEST(DispatcherWithoutMemoryDeathTest, EndsTheProcessWhereItRemovesSubscriptions) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(removeWithoutMemory(), ::testing::KilledBySignal(SIGABRT), "bad_alloc");
}

}  // namespace
}  // namespace tessel::test
