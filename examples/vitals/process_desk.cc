#include "process_desk.h"

#include <unistd.h>

#include <chrono>
#include <stdexcept>
#include <thread>

namespace vitals {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kPatience{200};
constexpr milliseconds kLook{10};

}  // namespace

ProcessDesk::ProcessDesk(const Ports& ports)
    : service_(std::make_shared<ProcessService>()),
      broker_(false, {endpoint(ports.calls)}, std::make_shared<tessel::ThreadedRpcDispatcher>()),
      self_(endpoint(ports.calls), kPatience) {
  broker_.start();
}

// What is registered travels like everything else: the hub hears of it in its own time.
void ProcessDesk::open() {
  const auto deadline = std::chrono::steady_clock::now() + kHubPatience;
  for (Answer answer = ask(); answer != Answer::Came; answer = ask()) {
    if (std::chrono::steady_clock::now() > deadline) {
      throw std::runtime_error("the hub does not pass calls on");
    }
    // Also when none came: a connection that broke and is up again has a new identity, and the hub
    // sends the calls to the old one.
    broker_.unregisterService(service_);
    broker_.registerService(service_);
    std::this_thread::sleep_for(kLook);
  }
}

// Only then does the broker stop, so that no call is passed on that nobody would answer.
bool ProcessDesk::close(const HubWatch& hub) {
  broker_.unregisterService(service_);
  while (ask() != Answer::NobodyHasTheService) {
    if (!hub.heardWithin(std::chrono::seconds(2))) return false;
    std::this_thread::sleep_for(kLook);
  }
  broker_.stop();
  return true;
}

ProcessDesk::Answer ProcessDesk::ask() {
  try {
    self_.process(getpid());
    return Answer::Came;
  } catch (const tessel::rpc_timeout&) {
    return Answer::None;
  } catch (const tessel::rpc_broker_error&) {
    return Answer::NobodyHasTheService;
  }
}

}  // namespace vitals
