#ifndef VITALS_PROCESS_DESK_H
#define VITALS_PROCESS_DESK_H

#include <tessel/tessel.h>

#include <cstdint>
#include <memory>

#include "hub_statistics.h"
#include "ports.h"
#include "process_client.h"
#include "process_service.h"

namespace vitals {

/// Where the sensor answers calls: a slave of the hub's broker, with a ProcessService.
class ProcessDesk {
 public:
  explicit ProcessDesk(const Ports& ports);

  /// Offers the service, unless the hub knows of it; one that was started anew does not. On return
  /// calls get through. Throws std::runtime_error if they never do.
  void open();
  /// See ProcessService.
  void look(std::int64_t time) { service_->look(time); }
  /// Takes the service back, and waits until the hub knows and the last call is answered. False if
  /// the hub falls silent before.
  bool close(const HubWatch& hub);

 private:
  enum class Answer { Came, NobodyHasTheService, None };
  Answer ask();

  const std::shared_ptr<ProcessService> service_;
  tessel::RpcBroker broker_;
  ProcessClient self_;  // by way of the hub, as everybody
};

}  // namespace vitals

#endif
