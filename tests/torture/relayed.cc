// A bad network, made by relays on the loopback:
//
//   relayed [--seed N] [--count FAULTS OF EACH KIND] [--seconds N]
//
// Everything that travels between a publisher, a broker, a dispatcher, a master, a slave and
// callers passes a relay, which delays it, stalls, or ends its connections and refuses new ones for
// a while. Afterwards all goes on by itself. The slave is spared the last: its master knows it by
// its connection, and it announces itself when it starts.

#include <string>
#include <thread>
#include <vector>

#include "recovery.h"
#include "relay.h"
#include "support/endpoints.h"
#include "support/watchdog.h"

namespace tessel::test {
namespace {

class System {
 public:
  // On all relays, or on one.
  template <typename Change>
  void change(std::size_t which, const Change& change) {
    for (std::size_t i = 0; i < relays_.size(); ++i) {
      if (which == i || which >= relays_.size()) change(*relays_[i]);
    }
  }
  std::size_t pickRelays(Random& random) const { return pick(random, 2 * relays_.size()); }
  Relay& slaveRelay() { return toMasterFromSlave_; }
  Recovery& recovery() { return recovery_; }

 private:
  const std::string pull_ = freeTcp();
  const std::string updates_ = freeTcp();
  const std::string cache_ = freeTcp();
  const std::string rpc_ = freeTcp();
  Relay toPull_{pull_}, toUpdates_{updates_}, toCache_{cache_}, toMaster_{rpc_};
  Relay toMasterFromSlave_{rpc_};
  const std::vector<Relay*> relays_ = {&toPull_, &toUpdates_, &toCache_, &toMaster_};
  NodeHandle broker_ = startPubsubBroker(pull_, updates_, cache_);
  NodeHandle master_ = startMaster(rpc_);
  NodeHandle slave_ = startSlave(toMasterFromSlave_.endpoint(), "one");
  NodeHandle dispatcher_ =
      startNode({"dispatch", toUpdates_.endpoint(), toCache_.endpoint(), "8", "32", "0", "0"});
  NodeHandle publisher_ = startNode({"publish", toPull_.endpoint(), "1", "2", "8", "500"});
  NodeHandle callers_ = startNode({"call", toMaster_.endpoint(), "300", "2", "master"});
  NodeHandle callersOfSlave_ = startNode({"call", toMaster_.endpoint(), "300", "2", "one"});
  Recovery recovery_{*dispatcher_, {callers_.get(), callersOfSlave_.get()}};
};

using std::chrono::milliseconds;

template <typename Fault>
void repeat(const char* what, int part, const Fault& fault) {
  const Torture& torture = Torture::instance();
  Random random = randomFor(static_cast<std::uint64_t>(part));
  System system;
  std::uint64_t faults = 0;
  while (faults < torture.count() && !torture.timeIsUp(part, 3)) {
    fault(system, random);
    system.recovery().awaitProgress();
    ++faults;
  }
  if (faults == 0) return;
  row("F10", what, grouped(faults) + " faults",
      system.recovery().found() + "; goes on by itself after " + system.recovery().times());
}

void delays(System& system, Random& random) {
  const std::size_t which = system.pickRelays(random);
  system.change(which, [&](Relay& relay) { relay.setDelay(milliseconds(5 + pick(random, 40))); });
  std::this_thread::sleep_for(milliseconds(100 + pick(random, 300)));
  system.recovery().awaitProgress();  // while all of it is late
  system.change(which, [](Relay& relay) { relay.setDelay(milliseconds(0)); });
}
void stalls(System& system, Random& random) {
  const std::size_t which = system.pickRelays(random);
  system.change(which, [](Relay& relay) { relay.stall(true); });
  system.slaveRelay().stall(true);
  std::this_thread::sleep_for(milliseconds(50 + pick(random, 1500)));
  system.change(which, [](Relay& relay) { relay.stall(false); });
  system.slaveRelay().stall(false);
}
void ends(System& system, Random& random) {
  const std::size_t which = system.pickRelays(random);
  const bool reset = pick(random, 2) == 0;
  system.change(which, [&](Relay& relay) { relay.setReset(reset); });
  system.change(which, [](Relay& relay) { relay.refuse(true); });
  std::this_thread::sleep_for(milliseconds(5 + pick(random, 1000)));
  system.change(which, [](Relay& relay) { relay.refuse(false); });
}

}  // namespace
}  // namespace tessel::test

int main(int argc, char** argv) {
  using namespace tessel::test;
  Torture::instance().begin(argc, argv, 100, 3600);
  const Watchdog watchdog("the relays", Torture::instance().length() + std::chrono::seconds(300));
  repeat("a relay that delays", 1, delays);
  repeat("a relay that stalls for up to 1.5 s", 2, stalls);
  repeat("a relay that ends connections and refuses them for up to 1 s", 3, ends);
  return 0;
}
