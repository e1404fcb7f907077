// Which brokers a publisher sends to.
#include "support.h"

int main() {
  tessel::MessageBroker hub({}, {}, {});
  tessel::MessageBroker spare({}, {}, {});
  const auto hubWitness = std::make_shared<guide::Witness>();
  const auto spareWitness = std::make_shared<guide::Witness>();
  hub.attach(hubWitness);
  spare.attach(spareWitness);
  hub.start();
  spare.start();
  //! [brokers]
  tessel::Publisher direct(hub, "temperature", "kitchen");  // a broker of this process
  tessel::Publisher remote({"tcp://hub.example:9010"}, "temperature", "kitchen");
  tessel::Publisher both({hub.getInprocPullTransport(), spare.getInprocPullTransport()},
                         "temperature", "kitchen");
  //! [brokers]
  //! [default]
  tessel::Publisher first("temperature", "kitchen");  // the first broker of this process
  tessel::Publisher::setDefaultBroker(spare);
  tessel::Publisher later("temperature", "kitchen");  // from now on, the spare one
  //! [default]
  direct.publish("1", 1);
  both.publish("2", 1);
  first.publish("3", 1);
  later.publish("4", 1);
  hubWitness->waitForValues(3);
  spareWitness->waitForValues(2);
  std::cout << "hub " << hubWitness->values() << ", spare " << spareWitness->values() << "\n";
}
