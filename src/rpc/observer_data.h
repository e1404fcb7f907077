#ifndef TESSEL_SRC_RPC_OBSERVER_DATA_H
#define TESSEL_SRC_RPC_OBSERVER_DATA_H

#include <memory>
#include <vector>

#include "tessel/rpc_broker.h"
#include "transport/observer_list.h"

namespace tessel {

/// A broker's observers, shared with the requests that it has accepted, which may outlive it.
using ObserverData = ObserverList<RpcBrokerObserver>;
using ObserverSnapshot = std::vector<std::shared_ptr<RpcBrokerObserver>>;

}  // namespace tessel

#endif
